#include "domain/relative_path.h"

#include <algorithm>
#include <array>
#include <string>

#include "domain/error.h"

namespace tavro {
namespace {

constexpr std::size_t kMaxPath = 4096;
constexpr std::size_t kMaxComponent = 255;

bool is_portable(std::string_view component) {
  constexpr std::string_view kRefused = "<>\"|?*";
  return component.back() != ' ' && component.back() != '.' &&
         std::none_of(component.begin(), component.end(), [&](char byte) {
           return static_cast<unsigned char>(byte) < 0x20 ||
                  kRefused.find(byte) != std::string_view::npos;
         });
}

void validate_component(std::string_view component, bool portable) {
  require(!component.empty() && component != "." && component != ".." &&
              component.size() <= kMaxComponent && component.find(':') == std::string_view::npos,
          "unsafe_path", "Path contains an unsafe component");
  if (!portable) return;
  require(is_portable(component), "unsafe_path", "Path is not portable across supported platforms");
  require(!is_reserved_name(component), "unsafe_path", "Path uses a reserved platform name");
}

}  // namespace

bool is_reserved_name(std::string_view component) {
  constexpr std::array<std::string_view, 4> kDevices = {"con", "prn", "aux", "nul"};
  const std::string stem = case_folded(component.substr(0, component.find('.')));
  if (std::find(kDevices.begin(), kDevices.end(), stem) != kDevices.end()) return true;
  return stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt")) &&
         stem[3] >= '1' && stem[3] <= '9';
}

void validate_relative_path(std::string_view path, bool portable) {
  constexpr std::string_view kNeverInPath("\\\0", 2);
  require(!path.empty() && path.size() <= kMaxPath && path.front() != '/' &&
              path.find_first_of(kNeverInPath) == std::string_view::npos,
          "unsafe_path", "Path must be a safe relative path");
  while (true) {
    const std::size_t end = path.find('/');
    validate_component(path.substr(0, end), portable);
    if (end == std::string_view::npos) return;
    path.remove_prefix(end + 1);
    require(!path.empty(), "unsafe_path", "Trailing path separator is not allowed");
  }
}

std::string case_folded(std::string_view path) {
  std::string folded(path);
  std::transform(folded.begin(), folded.end(), folded.begin(),
                 [](char byte) { return case_folded(byte); });
  return folded;
}

}  // namespace tavro
