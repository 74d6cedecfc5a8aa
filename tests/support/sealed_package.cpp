#include "support/sealed_package.h"

#include "package/package_descriptor.h"
#include "platform/host/native_platform.h"
#include "publisher/archive.h"
#include "publisher/descriptors.h"
#include "publisher/package.h"
#include "publisher/root_metadata.h"
#include "publisher/source_tree.h"
#include "support/snapshot_archive.h"

namespace tavro {
namespace {

void put_image(const fs::path& tree, const std::string& path, const fs::path& image) {
  write_tree({{path, "#!/bin/sh\necho " + path + "\n", 0755}}, tree);
  // Copied, since a program that a sanitizer instruments is as large as it likes.
  if (!image.empty()) fs::copy_file(image, tree / path, fs::copy_options::overwrite_existing);
}

/// Half of it is noise, so that a compressed file is neither tiny nor as large as the plain one.
std::string bulk(std::size_t bytes, unsigned long long seed) {
  std::string text(bytes, 'x');
  for (std::size_t i = 0; i < bytes; i += 2) {
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    text[i] = static_cast<char>(seed >> 56);
  }
  return text;
}

void put_bulk(const fs::path& tree, std::size_t files, std::size_t bytes) {
  for (std::size_t i = 0; i < files; ++i)
    write_tree({{"share/part-" + std::to_string(i / 100) + "/file-" + std::to_string(i) + ".bin",
                 bulk(bytes, i + 1)}},
               tree);
}

/// A release folder, without the reading back that the publisher adds.
void release(const fs::path& tree, const fs::path& folder, SnapshotIdentity identity,
             const std::string& name, const LauncherContract* launcher) {
  fs::create_directories(folder);
  identity.archive_target = name + ".tar.zst";
  const SourceTree source(tree);
  const ArchiveFigures figures =
      write_archive(source, folder / identity.archive_target, {1, 1}, {});
  const json snapshot = snapshot_document(source, identity, figures);
  const json document =
      launcher != nullptr ? launcher_document(snapshot, *launcher) : bootstrap_document(snapshot);
  write_bytes(folder / (name + ".manifest.json"), document.dump());
}

/// Where a descriptor keeps the entry of a resource.
json& resource_entry(json& descriptor, std::string_view resource) {
  if (resource == "icon") return descriptor.at("brand").at("icon");
  if (resource == "theme") return descriptor.at("brand").at("theme").at("definition");
  if (resource.starts_with("theme-"))
    return descriptor.at("brand").at("theme").at("files").at(std::string(resource.substr(6)));
  return descriptor.at(std::string(resource));
}

}  // namespace

std::string sample_icon() { return std::string("\0\0\1\0\1\0", 6).append(16, '\0'); }

SealedPackage::SealedPackage(const fs::path& where, const SealedPackageOptions& options)
    : folder(where / "package"), key_(SigningKey::generate(KeyType::ed25519)) {
  const fs::path releases = where / "releases", bootstrap_tree = releases / "bootstrap-tree",
                 launcher_tree = releases / "launcher-tree";
  const std::string platform(native_platform());
  put_image(bootstrap_tree, "bin/tavro-bootstrap", options.bootstrap_image);
  put_bulk(bootstrap_tree, options.bootstrap_files, options.file_bytes);
  put_image(launcher_tree, "bin/launcher", options.launcher_image);
  put_image(launcher_tree, "bin/launcher-gui", options.launcher_gui_image);
  put_image(launcher_tree, "bin/launcher-maintenance", options.maintenance_image);
  put_bulk(launcher_tree, options.launcher_files, options.file_bytes);

  release(bootstrap_tree, releases / "bootstrap", {"1.0.0", platform, "bin/tavro-bootstrap", {}},
          "bootstrap", nullptr);
  LauncherContract contract{"bin/launcher-gui", {{"bin/launcher-maintenance", "maintenance"}}};
  if (!options.maintenance_window_image.empty()) {
    put_image(launcher_tree, "bin/launcher-maintenance-gui", options.maintenance_window_image);
    contract.helpers["bin/launcher-maintenance-gui"] = "maintenance-gui";
  }
  release(launcher_tree, releases / "launcher",
          {options.launcher_build, platform, "bin/launcher", {}}, "launcher", &contract);

  PackageRequest request;
  request.platform = platform;
  request.origin = "https://repository.example";
  request.root = releases / "root.json";
  request.bootstrap = releases / "bootstrap";
  request.launcher = releases / "launcher";
  request.brand = options.brand;
  request.theme = options.theme;
  request.featured_game = options.featured_game;
  write_bytes(request.root, signed_root(options.root_expires));
  const auto file = [&](const char* name, const std::string& bytes) {
    if (bytes.empty()) return fs::path();
    write_bytes(releases / name, bytes);
    return releases / name;
  };
  request.icon = file("brand.ico", options.icon);
  request.ca_bundle = file("ca-bundle.pem", options.ca_bundle);
  const PackagePlan plan = plan_package(request);
  fs::create_directories(folder);
  for (const auto& [name, bytes] : plan.documents) write_bytes(folder / name, bytes);
  for (const auto& [name, source] : plan.archives) fs::rename(source, folder / name);
  seal = plan.seal;
  fs::remove_all(releases);
}

fs::path SealedPackage::path(std::string_view resource) const {
  if (resource == "descriptor") return folder / package_descriptor_name;
  if (resource == "bootstrap_archive") return folder / "bootstrap.tar.zst";
  if (resource == "launcher_archive") return folder / "launcher.tar.zst";
  json document = descriptor();
  return folder / resource_entry(document, resource).at("path").get<std::string>();
}

json SealedPackage::descriptor() const {
  return json::parse(read_file(path("descriptor"), 1 << 20));
}

void SealedPackage::edit_descriptor(const std::function<void(json&)>& change) {
  json document = descriptor();
  change(document);
  const std::string bytes = document.dump();
  write_bytes(path("descriptor"), bytes);
  seal = digest(bytes, "sha256");
}

void SealedPackage::replace_resource(std::string_view resource, std::string_view bytes) {
  write_bytes(path(resource), bytes);
  edit_descriptor([&](json& document) {
    json& entry = resource_entry(document, resource);
    entry["sha256"] = digest(bytes, "sha256");
    entry["length"] = bytes.size();
  });
}

std::string SealedPackage::signed_root(const std::string& expires) const {
  RootRequest request;
  request.expires = expires;
  for (auto* role : {&request.root, &request.targets, &request.snapshot, &request.timestamp})
    role->records = {key_.record()};
  return sign_metadata(root_body(request), {&key_}).dump();
}

}  // namespace tavro
