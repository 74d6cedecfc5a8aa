#include "publisher/package.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <memory>

#include "documents/theme_definition.h"
#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/unique_fd.h"
#include "package/package_descriptor.h"
#include "platform/archives/snapshot.h"
#include "platform/host/native_platform.h"
#include "publisher/assembly.h"
#include "publisher/output.h"
#include "publisher/release.h"

namespace tavro {
namespace {

constexpr const char* ca_bundle_name = "ca-bundle.pem";

class Planner {
 public:
  /// Puts a small file into the package and returns its entry in the descriptor.
  json document(const std::string& name, std::string bytes) {
    take(name);
    json resource = {{"path", name}, {"sha256", digest(bytes, "sha256")}, {"length", bytes.size()}};
    plan_.documents[name] = std::move(bytes);
    return resource;
  }

  /// A release brings its manifest and its archive; the manifest is the entry.
  json release(const Release& release) {
    const std::string archive = path_utf8(release.archive.file.filename());
    take(archive);
    plan_.archives[archive] = release.archive.file;
    return document(path_utf8(release.manifest.filename()), release.manifest_bytes);
  }

  PackagePlan seal(const json& descriptor) {
    std::string bytes = document_text(descriptor);
    plan_.seal = digest(bytes, "sha256");
    plan_.documents.emplace(package_descriptor_name, std::move(bytes));
    return std::move(plan_);
  }

 private:
  void take(const std::string& name) const {
    check_resource_name(name);
    require(!plan_.documents.contains(name) && !plan_.archives.contains(name), "invalid_package",
            [&] { return "Two files of the package would be called " + name; });
  }

  PackagePlan plan_;
};

/// What a client could not use would only show on the machines of users, and what it must not have
/// would be out of hand.
void require_certificates(const std::string& bytes, const std::filesystem::path& path) {
  require(bytes.find("PRIVATE KEY-----") == std::string::npos, "invalid_package", [&] {
    return "A CA bundle holds certificates alone, and here is a private key: " + path_utf8(path);
  });
  const std::unique_ptr<BIO, Deleter<BIO_free_all>> bio(
      BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  const std::unique_ptr<X509, Deleter<X509_free>> certificate(
      bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  require(certificate != nullptr, "invalid_package",
          [&] { return "There is no certificate in PEM in the CA bundle " + path_utf8(path); });
}

json optional_file(Planner& planner, const std::string& name, const std::filesystem::path& path) {
  if (path.empty()) return nullptr;
  return planner.document(name, read_file(path, package_attachment_bytes));
}

json theme_entry(Planner& planner, const std::filesystem::path& folder) {
  std::string definition = read_file(folder / kThemeDefinition, kThemeDefinitionBytes);
  json files = json::object();
  for (const std::string& name : theme_files(parse_json(definition, kThemeDefinitionBytes)))
    files[name] = planner.document(std::string(package_theme_prefix) + name,
                                   read_file(folder / name, kThemeFontBytes));
  return {{"definition", planner.document(std::string(kThemeDefinition), std::move(definition))},
          {"files", std::move(files)}};
}

json brand_entry(Planner& planner, const PackageRequest& request) {
  json brand = {{"name", request.brand->name},
                {"id", request.brand->id},
                {"publisher", request.brand->publisher},
                {"icon", optional_file(planner, "brand.ico", request.icon)}};
  if (!request.theme.empty()) brand["theme"] = theme_entry(planner, request.theme);
  return brand;
}

void copy_archive(const std::filesystem::path& from, const std::filesystem::path& to,
                  const std::function<void(std::size_t)>& copied) {
  const UniqueFd source(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  require(static_cast<bool>(source), "file_read",
          [&] { return "Cannot open file: " + path_utf8(from); });
  OutputFile target(to);
  std::array<char, kStreamBlock> block;
  while (true) {
    const ssize_t count = read_some(source.get(), block.data(), block.size());
    require(count >= 0, "file_read", [&] { return "Cannot read file: " + path_utf8(from); });
    if (count == 0) break;
    target.write({block.data(), static_cast<std::size_t>(count)});
    copied(static_cast<std::size_t>(count));
  }
  target.finish();
}

void copy_archives(const PackagePlan& plan, const std::filesystem::path& folder,
                   const Progress& progress) {
  unsigned long long total = 0;
  unsigned long long done = 0;
  for (const auto& [name, source] : plan.archives) total += std::filesystem::file_size(source);
  for (const auto& [name, source] : plan.archives)
    copy_archive(source, folder / name, [&](std::size_t bytes) {
      done += bytes;
      report(progress, done, total);
    });
}

}  // namespace

PackagePlan plan_package(const PackageRequest& request) {
  Planner planner;
  json descriptor = {
      {"schema_version", 1},
      {"kind", "tavro-initial-package"},
      {"platform", request.platform},
      {"origin", request.origin},
      {"root", planner.document("root.json", read_file(request.root, package_document_bytes))},
      {"bootstrap_manifest",
       planner.release(read_release(ReleaseKind::bootstrap, request.bootstrap))},
      {"launcher_manifest", planner.release(read_release(ReleaseKind::launcher, request.launcher))},
      {"ca_bundle", optional_file(planner, ca_bundle_name, request.ca_bundle)},
  };
  if (request.featured_game)
    descriptor["featured_game"] = {{"id", request.featured_game->id},
                                   {"name", request.featured_game->name}};
  if (request.brand) descriptor["brand"] = brand_entry(planner, request);
  return planner.seal(descriptor);
}

std::string assemble_package(const PackageRequest& request, const Progress& progress) {
  const PackagePlan plan = plan_package(request);
  const auto bundle = plan.documents.find(ca_bundle_name);
  if (bundle != plan.documents.end()) require_certificates(bundle->second, request.ca_bundle);
  Assembly assembly(request.out, initial_package_guard);
  copy_archives(plan, assembly.folder(), progress);
  for (const auto& [name, bytes] : plan.documents) create_document(assembly.folder() / name, bytes);
  assembly.publish([&](const std::filesystem::path& folder) {
    read_native_package(folder, plan.seal, progress);
    package_theme(folder, plan.seal);
  });
  return plan.seal;
}

}  // namespace tavro
