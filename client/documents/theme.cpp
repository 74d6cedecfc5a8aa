#include "documents/theme.h"

#include <utility>

namespace tavro {
namespace {

Theme& current_theme() {
  static Theme current;
  return current;
}

}  // namespace

const Theme& theme() { return current_theme(); }

void set_theme(Theme theme) { current_theme() = std::move(theme); }

}  // namespace tavro
