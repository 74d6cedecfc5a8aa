#include "documents/bitmap.h"
#include "documents/documents.h"
#include "documents/theme_definition.h"
#include "support/theme_folder.h"

namespace tavro::theme_test {

class ThemeFolder : public testing::Test {
 protected:
  Theme parse(const json& changed) const {
    return parse_theme(changed, [&](const std::string& name) { return home / name; });
  }

  TempFolder temp;
  const fs::path home = temp.path() / "theme";
  const json definition = make_theme(home);
};

TEST_F(ThemeFolder, IsReadWithWhatItLeavesOut) {
  const Theme read = parse(definition);
  EXPECT_EQ(read.hover, read.raised);
  EXPECT_EQ(read.button, rgb(0x303744));
  EXPECT_EQ(read.frame->rivet, (Rgb{7, 8, 9}));
  EXPECT_TRUE(read.square && read.bevel && read.banner->pixel_art && !read.icon->pixel_art);
  EXPECT_EQ(read.title_size * read.heading_size * read.body_size * read.small_size,
            48 * 20 * 16 * 10);
  EXPECT_EQ(read.regular_font, home / "Cantarell-Regular.otf");
  EXPECT_EQ(read.bold_font, "");
  EXPECT_EQ(read.banner->width + read.banner->height + read.icon->width, 333U + 20 + 256);
  EXPECT_EQ(theme_files(definition).back(), "licence.txt");
}

/// Each row damages what the rows before it left, and hides their failures: the last rule comes
/// first.
TEST_F(ThemeFolder, IsRefusedByItsFirstBrokenRule) {
  json changed = definition;
  each_cell(R"(3:1 against the background or panel|/colors/focus "#6a6a6a"|/colors/focus "#14181f"
text on button|/colors/button "#f0f3f7"
ink_muted on paper|/colors/ink_muted "#0d1117"
ink on paper|/colors/ink "#0D1117"
danger_text on danger_hover|/colors/danger_hover "#d6425c"
danger_text on danger|/colors/danger "#d6425c"
accent_text on accent_hover|/colors/accent_hover "#3474de"
accent_text on accent|/colors/accent "#3474de"
success on background|/colors/success "#14181f"
warning on panel|/colors/warning "#1d232e"
muted on panel|/colors/panel "#4a4a4a"
muted on background|/colors/muted "#14181f"
text on hover|/colors/hover "#f0f3f7"
text on raised|/colors/raised "#f0f3f7"
text on panel|/colors/panel "#f0f3f7"
text on background|/colors/background "#f0f3f7"
plain file: gone.txt|/notices/0 "gone.txt"
pixel_art|/images/banner/pixel_art 1
plain file: gone.bmp|/images/icon/file "gone.bmp"
plain file: gone.ttf|/fonts/bold "gone.ttf"
text sizes|/text_sizes/small "x"|/text_sizes/body 9|/text_sizes/title 49|/text_sizes/title -1
text_sizes must be|/text_sizes 1
Theme colours|/frame/gap "#12345"
frame needs the colour rivet|/frame/rivet
frame must be|/frame 1
bevel|/bevel 1
corners|/corners "Square"|/corners null
Theme colours|/colors/button "#12345g"|/colors/hover "12345678"|/colors/ink_muted 1|/colors/text "#123"
needs the colour panel|/colors/panel
colors must be|/colors 1
definition is malformed|/colors|/fonts/o "o.OTF"|/notices ["1.txt","2.txt","3.txt","4.txt","5.txt","6.txt"]
at most 12 distinct|/notices/6 "7.txt"
at most 12 distinct|/notices ["1.txt","1.txt"]
extension: a.bmp|/notices/0 "a.bmp"
list of files|/notices {}
extension: a.png|/images/other {"file":"a.png"}
image needs|/images/icon {}
images must be|/images/banner 1|/images 1
theme.json|/fonts/bold "theme.json"
names are|/fonts/bold ".ttf"|/fonts/bold ""|/fonts/bold "a/b.ttf"|/fonts/bold "ä.ttf"|/fonts/bold "<101>"
named by text|/fonts/bold 1
fonts must be|/fonts []
Unsupported|/kind "x"|/kind
malformed|/kind 1
Unsupported|/schema_version 2|/schema_version
malformed|/schema_version "1"
definition must be|[])",
            [&](const std::string& words, const std::string& damage) {
              changed = damaged(changed, damage);
              expect_words(words, damage, [&] { parse(changed); });
            });
  EXPECT_NEAR(contrast(rgb(0), rgb(0xffffff)), 21, 1e-9);
  EXPECT_NEAR(contrast(rgb(0x3474de), rgb(0xffffff)), 4.469, 1e-3);
}

TEST_F(ThemeFolder, RefusesFilesOfOtherFormsWhoeverMadeThem) {
  const std::string images = "must be uncompressed 24-bit", size = "larger than 256×256 pixels";
  const std::vector<std::array<std::string, 3>> rows = {
      {"", "icon.bmp", "convert -size 1x256 xc:red -type TrueColor BMP3:-"},
      {"", "Banner.BMP", "convert -size 2048x1024 xc:red -type TrueColor BMP3:-"},
      {size, "icon.bmp", "convert -size 257x1 xc:red -type TrueColor BMP3:-"},
      {"2048×1024", "Banner.BMP", "convert -size 1x1025 xc:red -type TrueColor BMP3:-"},
      {images, "icon.bmp", "convert -size 9x9 plasma: -type TrueColor BMP:-"},
      {images, "icon.bmp", "convert -size 9x9 xc:red -type Palette BMP3:-"},
      {images, "icon.bmp", "head -c 196661 icon.bmp"},
      {images, "Banner.BMP", "cat Banner.BMP licence.txt"},
      {"size_limit", "icon.bmp", "cat icon.bmp licence.txt"},
      {"BMP files", "icon.bmp", "head -c 53 icon.bmp"},
      {"BMP files", "icon.bmp", "convert icon.bmp PNG:-"},
      {"TrueType", "DejaVuSans-Bold.ttf", "printf '\\0\\1\\0'"},
      {"TrueType", "DejaVuSans-Bold.ttf", "gzip -c DejaVuSans-Bold.ttf"},
      {"", "DejaVuSans-Bold.ttf", "printf true; head -c 4194300 /dev/zero"},
      {"size_limit", "DejaVuSans-Bold.ttf", "printf true; head -c 4194301 /dev/zero"},
      {"", "licence.txt", "head -c 262144 /dev/zero"},
      {"size_limit", "licence.txt", "head -c 262145 /dev/zero"},
      {"plain file: icon.bmp", "icon.bmp", "rm icon.bmp; ln -s Banner.BMP icon.bmp"}};
  fs::copy(home, temp.path() / "intact");
  for (const auto& [words, name, command] : rows) {
    const std::string made = "cd '" + home.string() + "' && ( " + command + " ) >made && ( [ -L " +
                             name + " ] || mv made " + name + " )";
    ASSERT_EQ(std::system(made.c_str()), 0) << command;
    expect_words(words, command, [&] { parse(definition); });
    fs::remove(home / name);
    fs::copy(temp.path() / "intact" / name, home / name);
  }
  const std::string intact = read_file(home / "icon.bmp", 1 << 20);
  for (std::size_t at = 0; at < kBitmapHeaderBytes; ++at) {
    std::string touched = intact;
    touched[at] ^= 1;
    write_bytes(home / "icon.bmp", touched);
    const bool free = (at >= 6 && at < 10) || (at >= 34 && at < 46) || at >= 50;
    EXPECT_EQ(code_of([&] { parse(definition); }), free ? "" : "invalid_theme") << at;
  }
}

TEST_F(ThemeFolder, IsLoadedOrIsNone) {
  EXPECT_EQ(load_theme(home)->icon->path, home / "icon.bmp");
  write_bytes(home / "theme.json", damaged(definition, "/colors/ink \"#0d1117\"").dump());
  EXPECT_FALSE(load_theme(home) || load_theme(home / "none"));
  write_bytes(home / "other.json", definition.dump());
  fs::remove(home / "theme.json");
  fs::create_symlink("other.json", home / "theme.json");
  EXPECT_FALSE(load_theme(home));
}

}  // namespace tavro::theme_test
