#include <string_view>

#include "domain/error.h"
#include "domain/input.h"
#include "download/repository_change.h"
#include "handlers.h"

namespace tavro::program {
namespace {

constexpr unsigned long long max_root_bytes = 524288;
constexpr unsigned long long max_bundle_bytes = 4194304;

std::string without_slash(std::string origin) {
  if (origin.ends_with('/')) origin.pop_back();
  return origin;
}

}  // namespace

Answer configure_repository(Context& context) {
  RepositoryChoice choice;
  choice.origin = without_slash(context.option("--origin"));
  choice.root_bytes = read_file(path_from_utf8(context.option("--root")), max_root_bytes);
  const std::string bundle = context.option("--ca-bundle");
  if (!bundle.empty()) choice.ca_bundle = read_file(path_from_utf8(bundle), max_bundle_bytes);
  context.show("proving the repository", 0, 0);
  change_repository(context.root, choice);
  return {{{"origin", choice.origin}, {"own_certificates", !choice.ca_bundle.empty()}},
          "Everything comes from " + choice.origin + " from now on."};
}

}  // namespace tavro::program
