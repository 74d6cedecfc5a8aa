#pragma once

#include <cstdlib>

#include "support/snapshot_archive.h"
#include "support/testing.h"

namespace tavro {

/// The definition of a theme that keeps every rule.
inline json theme_definition() {
  return json::parse(R"({"schema_version": 1, "kind": "tavro-theme",
      "colors": {"background": "#14181f", "panel": "#1d232e", "raised": "#28303e",
          "well": "#14181F", "border": "#546073", "button": "#303744", "text": "#f0f3f7",
          "muted": "#aab5c4", "accent": "#2563c9", "accent_hover": "#2a68cf",
          "accent_text": "#ffffff", "danger": "#c4314b", "danger_hover": "#c4314b",
          "danger_text": "#ffffff", "warning": "#f0b429", "success": "#3fb37f",
          "focus": "#ffd24a", "disabled": "#303744", "disabled_text": "#7d8796",
          "paper": "#0d1117", "ink": "#f0f3f7", "ink_muted": "#aab5c4"},
      "corners": "square", "bevel": true,
      "frame": {"outline": "#000000", "trim": "#010203", "gap": "#040506", "rivet": "#070809"},
      "text_sizes": {"title": 48, "small": 10},
      "fonts": {"regular": "Cantarell-Regular.otf", "title": "DejaVuSans-Bold.ttf"},
      "images": {"icon": {"file": "icon.bmp"}, "banner": {"file": "Banner.BMP", "pixel_art": true}},
      "notices": ["licence.txt"]})");
}

/// A theme that keeps every rule, in a new folder, and its definition. The pictures are made by
/// ImageMagick, the fonts are those of Debian.
inline json make_theme(const fs::path& folder) {
  const json definition = theme_definition();
  write_tree({{"theme.json", definition.dump()}, {"licence.txt", "Fonts: see their authors."}},
             folder);
  EXPECT_EQ(
      std::system(("cd '" + folder.string() +
                   "' && convert -size 256x256 gradient:red-blue -type TrueColor BMP3:icon.bmp"
                   " && convert -size 333x20 plasma: -type TrueColor BMP3:Banner.BMP"
                   " && cp /usr/share/fonts/opentype/cantarell/Cantarell-Regular.otf"
                   " /usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf .")
                      .c_str()),
      0);
  return definition;
}

}  // namespace tavro
