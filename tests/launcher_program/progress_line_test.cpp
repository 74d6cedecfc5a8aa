#include "progress_line.h"

#include "support/testing.h"
#include "text_layout.h"

namespace tavro::program_test {

using namespace program;
using std::chrono::milliseconds;

ProgressState halfway(const std::string& label) {
  return {label, "downloading", 50 << 20, 100 << 20, 1 << 20};
}

TEST(ProgressText, FitsEveryWidthAndKeepsTheNumberLongest) {
  for (const char* label : {"", "Space", "星の王子さま物語"})
    for (std::size_t columns = 1; columns < 140; ++columns) {
      const std::string text = progress_text(halfway(label), columns);
      EXPECT_LE(display_columns(text), columns) << text;
      EXPECT_EQ(plain_text(text), text);
      EXPECT_EQ(text.find(" 50%") != text.npos, columns >= 12) << columns << text;
    }
  EXPECT_EQ(progress_text(halfway("Space"), 200),
            "Space: downloading  [##############--------------]   50%  50.0 MiB of 100.0 MiB"
            "  50 s left  1.0 MiB/s");
  EXPECT_EQ(progress_text({"", "asking", 0, 0, 0}, 40), "Asking");
}

/// What is written, and the time that passes.
struct Screen {
  std::string written;
  std::size_t columns = 60;
  std::chrono::steady_clock::time_point now{milliseconds(1000)};

  ProgressLook look(bool in_place, bool colours) {
    return {in_place, colours, [this] { return columns; },
            [this](std::string_view text) { written += text; }, [this] { return now; }};
  }
  std::string take() { return std::exchange(written, {}); }
};

TEST(ProgressLine, IsRedrawnTenTimesASecondAtMost) {
  Screen screen;
  ProgressLine line(screen.look(true, true));
  int draws = 0;
  for (int i = 0; i < 1000; ++i, screen.now += milliseconds(1)) {
    line.show(i % 2 == 0 ? "reading" : "writing", i, 1000);
    if (!screen.take().empty()) ++draws;
  }
  EXPECT_EQ(draws, 10);
  line.clear();
  EXPECT_EQ(screen.take(), "\r\x1b[J");
}

TEST(ProgressLine, ErasesWhatANarrowerWindowFolded) {
  Screen screen;
  ProgressLine line(screen.look(true, false));
  line.show("downloading", 1, 2);
  const std::size_t drawn = display_columns(screen.take()) - 1;
  EXPECT_LT(drawn, 60);
  screen.columns = 20;
  screen.now += milliseconds(200);
  line.show("downloading", 1, 2);
  EXPECT_THAT(screen.take(),
              testing::StartsWith("\r\x1b[" + std::to_string((drawn - 1) / 20) + "A\x1b[J"));
}

TEST(ProgressLine, WritesLinesNowAndThenWhereNothingCanBeRedrawn) {
  Screen screen;
  ProgressLine line(screen.look(false, false));
  for (int i = 0; i <= 100; ++i, screen.now += milliseconds(100)) line.show("reading", i, 100);
  line.show("writing", 0, 0);
  line.clear();
  EXPECT_THAT(screen.take(),
              testing::MatchesRegex("Reading [^\n]*\nReading [^\n]*\nReading [^\n]*\nWriting\n"));
}

TEST(PlainText, LetsNothingSteerATerminal) {
  EXPECT_EQ(plain_text("a\x1b[2Jb\r\xff\u202e c\td\n"), "a?[2Jb??? c d\n");
}

}  // namespace tavro::program_test
