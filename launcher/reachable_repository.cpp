#include "reachable_repository.h"

#include "domain/error.h"

namespace tavro::program {

TufClient* reachable_repository(Context& context) {
  try {
    return &context.tuf();
  } catch (const Error& error) {
    if (error.code != "busy" && error.code != "not_installed") throw;
    return nullptr;
  }
}

}  // namespace tavro::program
