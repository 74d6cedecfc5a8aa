#include "self_update/update_notice.h"

#include <exception>
#include <iostream>

namespace tavro {

void tell_about_update(const std::string& sentence) noexcept {
  try {
    std::cerr << "tavro: " + sentence + "\n" << std::flush;
  } catch (const std::exception&) {
    return;
  }
}

}  // namespace tavro
