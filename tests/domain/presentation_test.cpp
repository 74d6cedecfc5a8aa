#include "domain/presentation.h"

#include "domain/crypto.h"
#include "domain/documents.h"

namespace tavro {

// As ImageMagick writes it: convert -size 3x2 gradient:red-blue -type TrueColor BMP3:-
static const std::string bitmap_hex =
    "424d4e0000000000000036000000280000000300000002000000010018000000000018000000000000000000000000"
    "00000000000000ff0000ff0000ff00000000000000ff0000ff0000ff000000";
static const json document = json::parse(R"({"artwork": {"format": "bmp-rgb24-v1", "width": 3,
    "height": 2, "alternative_text": "A gradient", "bmp_hex": ")" +
                                         bitmap_hex + "\"}}");

TEST(Presentation, HasAMonogramAndASummaryWithoutPixels) {
  for (const std::string first : {"n", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x8e\xae"})
    EXPECT_EQ(GamePresentation::parse(first + "x", nullptr).monogram, first);
  json expected = damaged(document, "/artwork/bmp_hex");
  expected.update(
      {{"display_name", "\xf0"}, {"monogram", "\xf0"}, {"tagline", ""}, {"description", ""}});
  EXPECT_EQ(GamePresentation::parse("\xf0", document).summary(), expected);
  EXPECT_EQ(code_of([] { GamePresentation::parse("", nullptr); }), "invalid_presentation");
}

TEST(Presentation, RefusesWhatItsClosedRulesDoNotName) {
  const std::string x200(200, 'x'), x4096(4096, 'x');
  expect_answers(
      "|null|{}|/tagline \"" + x200 + "\"|/description \"" + x4096 + "\"\n" +
          "exceeds its bound|/monogram \"seventeen letters\"|/tagline \"x" + x200 +
          "\"|/description \"x" + x4096 + "\"\n" +
          R"(|/description "a\t\n\r\u00a0b"|/monogram "🎮🎮🎮🎮"
fields|[]|{"a":1,"b":2,"c":3,"d":4,"e":5}
presentation field|/title "x"
must contain text|/tagline 1|/artwork/alternative_text null
control|/tagline "\n"|/monogram "\t"|/description "\u000b"|/description "\u007f"|/tagline "\u0085"
one to four|/monogram ""|/monogram "abcde"
descriptor|/artwork null|/artwork/more 1|/artwork/width 1.5|/artwork/format "bmp"|/artwork/height
128 pixels|/artwork/width 0|/artwork/height 129|/artwork/width -1
alternative text|/artwork/alternative_text ""
pixels are missing|/artwork/bmp_hex 7
encoding|/artwork/bmp_hex "abc"|/artwork/bmp_hex "AB"
128-pixel bitmap bound|/artwork/bmp_hex ""
exact uncompressed|/artwork/width 2|/artwork/height 1)",
      [](const std::string& damage) { GamePresentation::parse("N", damaged(document, damage)); });
}

TEST(Presentation, BitmapHasNoByteInItsHeaderThatIsNotChecked) {
  const auto raw = unhex(bitmap_hex, 256);
  std::string bitmap(raw.begin(), raw.end());
  const auto is_refused = [](const std::string& bytes, unsigned width, unsigned height) {
    return !code_of([&] { validate_presentation_bitmap(bytes, width, height); }).empty();
  };
  for (std::size_t at = 0; at < bitmap.size(); ++at) {
    std::string touched = bitmap;
    touched[at] ^= 1;
    EXPECT_EQ(is_refused(touched, 3, 2), at < 38 || (at >= 46 && at < 54)) << at;
  }
  EXPECT_TRUE(is_refused(bitmap.replace(2, 1, "O") + 'x', 3, 2));
  bitmap.resize(49206);
  bitmap.replace(2, 2, "\x36\xc0").replace(18, 1, "\x80").replace(22, 1, "\x80")[34] = 0;
  EXPECT_FALSE(is_refused(bitmap, 128, 128));
}

}  // namespace tavro
