#include "domain/error.h"
#include "domain/input.h"
#include "platform/host/native_platform.h"
#include "publisher/commands.h"
#include "publisher/package.h"
#include "publisher/release.h"

namespace tavro {
namespace {

constexpr int slowest_level = 19;
constexpr unsigned most_threads = 256;

SnapshotIdentity identity_of(const Arguments& arguments) {
  SnapshotIdentity identity;
  identity.build_id = arguments.value("--build");
  identity.platform =
      arguments.has("--platform") ? arguments.value("--platform") : std::string(native_platform());
  identity.archive_target = arguments.value("--target");
  return identity;
}

}  // namespace

ReleaseRequest packing_request(const Arguments& arguments, ReleaseKind kind) {
  ReleaseRequest request;
  request.kind = kind;
  request.out = path_option(arguments, "--out");
  request.identity = identity_of(arguments);
  request.archive.level = static_cast<int>(
      arguments.number("--level", 1, slowest_level, static_cast<unsigned>(request.archive.level)));
  request.archive.threads =
      static_cast<unsigned>(arguments.number("--threads", 1, most_threads, 0));
  return request;
}

namespace {

ReleaseRequest request_of(const Arguments& arguments, ReleaseKind kind) {
  ReleaseRequest request = packing_request(arguments, kind);
  request.folder = path_option(arguments, "--folder");
  return request;
}

CommandResult make(const ReleaseRequest& request, std::string_view what,
                   const CommandContext& context) {
  const Release release = make_release(request, context.phase("Packing…"));
  return {"Packed " + std::string(what) + ' ' + release.build_id + " in " +
              path_utf8(release.manifest.parent_path()) + ".",
          {{"build_id", release.build_id},
           {"manifest", path_utf8(release.manifest)},
           {"archive", path_utf8(release.archive.file)}}};
}

CommandResult make_archive(const Arguments& arguments, const CommandContext& context) {
  ReleaseRequest request = request_of(arguments, ReleaseKind::snapshot);
  request.identity.executable = arguments.value("--executable");
  return make(request, "build", context);
}

/// "ROLE=PATH".
void add_helper(LauncherContract& contract, const std::string& text) {
  const std::size_t equals = text.find('=');
  require(equals != std::string::npos, "usage",
          [&] { return "A helper is given as ROLE=PATH: " + text; });
  const bool fresh =
      contract.helpers.emplace(text.substr(equals + 1), text.substr(0, equals)).second;
  require(fresh, "usage", [&] { return "Helper was given twice: " + text.substr(equals + 1); });
}

CommandResult make_launcher(const Arguments& arguments, const CommandContext& context) {
  ReleaseRequest request = request_of(arguments, ReleaseKind::launcher);
  request.identity.executable = arguments.value("--cli");
  request.contract.gui_executable = arguments.value("--gui");
  for (const std::string& helper : arguments.values("--helper"))
    add_helper(request.contract, helper);
  return make(request, "launcher", context);
}

CommandResult make_bootstrap(const Arguments& arguments, const CommandContext& context) {
  return make(request_of(arguments, ReleaseKind::bootstrap), "bootstrap", context);
}

/// Packs a release with `Make`, and publishes it at once.
template <CommandResult (*Make)(const Arguments&, const CommandContext&)>
CommandResult make_and_publish(const Arguments& arguments, const CommandContext& context) {
  Make(arguments, context);
  return publish_release(arguments, context, path_option(arguments, "--out"));
}

/// Options that only make sense together.
void require_together(const Arguments& arguments, std::initializer_list<std::string_view> options) {
  for (const std::string_view one : options)
    for (const std::string_view other : options)
      require(arguments.has(one) == arguments.has(other), "usage", [&] {
        return "Option " + std::string(arguments.has(one) ? one : other) + " needs " +
               std::string(arguments.has(one) ? other : one);
      });
}

std::optional<Brand> brand_of(const Arguments& arguments) {
  require_together(arguments, {"--brand-name", "--brand-id", "--brand-publisher"});
  for (const std::string option : {"--brand-icon", "--brand-theme"})
    require(!arguments.has(option) || arguments.has("--brand-name"), "usage",
            [&] { return "Option " + option + " needs --brand-name"; });
  if (!arguments.has("--brand-name")) return std::nullopt;
  return Brand{arguments.value("--brand-name"), arguments.value("--brand-id"),
               arguments.value("--brand-publisher"), arguments.has("--brand-icon")};
}

std::optional<FeaturedGame> featured_game_of(const Arguments& arguments) {
  require_together(arguments, {"--featured-id", "--featured-name"});
  if (!arguments.has("--featured-id")) return std::nullopt;
  return FeaturedGame{arguments.value("--featured-id"), arguments.value("--featured-name")};
}

CommandResult make_package(const Arguments& arguments, const CommandContext& context) {
  PackageRequest request;
  request.out = path_option(arguments, "--out");
  request.platform = native_platform();
  request.origin = arguments.value("--origin");
  request.root = path_option(arguments, "--root");
  request.bootstrap = path_option(arguments, "--bootstrap");
  request.launcher = path_option(arguments, "--launcher");
  request.brand = brand_of(arguments);
  request.icon = path_option(arguments, "--brand-icon");
  request.theme = path_option(arguments, "--brand-theme");
  request.ca_bundle = path_option(arguments, "--ca-bundle");
  request.featured_game = featured_game_of(arguments);
  const std::string seal = assemble_package(request, context.phase("Assembling…"));
  return {"Sealed the package in " + path_utf8(request.out) + " with " + seal + ".",
          {{"path", path_utf8(request.out)}, {"seal", seal}}};
}

}  // namespace

std::vector<OptionRule> packing_options(std::vector<OptionRule> own) {
  const std::vector<OptionRule> first = {
      {"--build", "ID", "The build's identifier", OptionUse::required},
      {"--out", "DIR", "The release folder to make: manifest and archive", OptionUse::required}};
  const std::vector<OptionRule> last = {
      {"--platform", "NAME",
       "linux-x86_64, macos-aarch64 or windows-x86_64; this one unless given"},
      {"--target", "PATH", "Name of the archive in the repository"},
      {"--level", "N", "Compression, 1 (fast) to 19 (small, unless given)"},
      {"--threads", "N", "Threads that compress; never changes the result"}};
  own.insert(own.begin(), first.begin(), first.end());
  own.insert(own.end(), last.begin(), last.end());
  return own;
}

namespace {

std::vector<OptionRule> folder_options(std::vector<OptionRule> own) {
  own = packing_options(std::move(own));
  own.insert(own.begin(), {"--folder", "DIR", "The files of the build", OptionUse::required});
  return own;
}

std::vector<OptionRule> launcher_options() {
  return folder_options(
      {{"--cli", "PATH", "The console entry point, below the folder", OptionUse::required},
       {"--gui", "PATH", "The windowed entry point", OptionUse::required},
       {"--helper", "ROLE=PATH",
        "Every other executable; ROLE is crash-handler, maintenance or maintenance-gui",
        OptionUse::repeated}});
}

}  // namespace

std::vector<PublishCommand> release_commands() {
  return {
      {"archive", "Pack any build into an archive and its snapshot manifest",
       folder_options({{"--executable", "PATH", "The build's executable, below the folder",
                        OptionUse::required}}),
       make_archive},
      {"launcher", "Pack a launcher release", launcher_options(), make_launcher},
      {"bootstrap", "Pack a bootstrap release", folder_options({}), make_bootstrap},
      {"release launcher", "Pack a launcher release and publish it",
       signing_options(launcher_options()), make_and_publish<make_launcher>},
      {"release bootstrap", "Pack a bootstrap release and publish it",
       signing_options(folder_options({})), make_and_publish<make_bootstrap>},
  };
}

std::vector<PublishCommand> package_commands() {
  return {
      {"package",
       "Assemble a sealed initial package and print its seal",
       {{"--out", "DIR", "The package folder to make", OptionUse::required},
        {"--origin", "URL", "Origin of the repository: https:// and a host", OptionUse::required},
        {"--root", "FILE", "Signed root metadata", OptionUse::required},
        {"--bootstrap", "DIR", "A bootstrap release", OptionUse::required},
        {"--launcher", "DIR", "A launcher release", OptionUse::required},
        {"--brand-name", "NAME", "Name of the client under a brand"},
        {"--brand-id", "ID", "The brand's identifier"},
        {"--brand-publisher", "NAME", "The brand's publisher"},
        {"--brand-icon", "FILE", "The brand's icon (.ico)"},
        {"--brand-theme", "DIR", "The brand's colours, fonts and pictures: see theme"},
        {"--ca-bundle", "FILE", "Certificates of a repository with a private CA (PEM)"},
        {"--featured-id", "ID", "The game that is offered first"},
        {"--featured-name", "NAME", "Its display name"}},
       make_package},
  };
}

}  // namespace tavro
