#include "documents/presentation.h"

#include "documents/documents.h"

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
  const json summary = GamePresentation::parse("N", document).summary();
  EXPECT_EQ(summary.at("artwork"), damaged(document, "/artwork/bmp_hex").at("artwork"));
}

TEST(Presentation, RefusesWhatItsClosedRulesDoNotName) {
  expect_answers(
      R"(|null|{}|/tagline "<200>"|/description "<4096>"|/description "\t\n\r\u00a0"
|/monogram "🎮🎮🎮🎮"
presentation fields|[]|{"a":1,"b":2,"c":3,"d":4,"e":5}
Unknown|/artwork null|/artwork/more 1|/artwork/width 3.5|/artwork/height 2.5|/artwork/format "bmp"
Unknown|/title "x"|/artwork/height
text|/tagline 1|/tagline "<201>"|/description "<4097>"|/monogram "<17>"|/artwork/alternative_text ""
control|/tagline "\n"|/monogram "\t"|/description "\u000b"|/description "\u007f"|/tagline "\u0085"
one to four|/monogram ""|/monogram "<5>"
dimensions|/artwork/width 0|/artwork/height 129|/artwork/width -1
artwork|/artwork/bmp_hex 7|/artwork/bmp_hex ""|/artwork/bmp_hex "abc"|/artwork/bmp_hex "AB"
artwork|/artwork/width 2)",
      [](const std::string& damage) { GamePresentation::parse("N", damaged(document, damage)); });
}

TEST(Presentation, BitmapHasNoByteInItsHeaderThatIsNotChecked) {
  const auto raw = unhex(bitmap_hex, 256);
  const std::string bitmap(raw.begin(), raw.end());
  for (std::size_t at = 0; at < bitmap.size(); ++at) {
    std::string touched = bitmap;
    touched[at] ^= 1;
    EXPECT_EQ(code_of([&] { validate_presentation_bitmap(touched, 3, 2); }).empty(),
              (at >= 38 && at < 46) || at >= 54)
        << at;
  }
}

}  // namespace tavro
