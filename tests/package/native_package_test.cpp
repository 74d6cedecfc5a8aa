#include "package/native_package.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <array>
#include <fstream>

#include "domain/input.h"
#include "package/package_descriptor.h"
#include "support/failure.h"
#include "support/sealed_package.h"
#include "support/temp_folder.h"
#include "support/theme_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using testing::ContainsRegex, testing::StartsWith;

SealedPackageOptions full_options(const fs::path& where) {
  SealedPackageOptions options;
  options.theme = where / "theme";
  make_theme(options.theme);
  options.root_expires = "9999-12-31T23:59:59Z";
  options.brand = Brand{"Nova", "nova", "Nova Ltd", true};
  options.icon = sample_icon();
  options.ca_bundle = "certificates";
  options.featured_game = FeaturedGame{"first-game", "First Game"};
  return options;
}

class SealedFolder : public testing::Test {
 protected:
  std::string failure(const fs::path& path) {
    return failure_of([&] { read_native_package(path, package.seal); });
  }
  std::string failure() { return failure(package.folder); }

  TempFolder folder;
  SealedPackage package{folder.path(), full_options(folder.path())};
};

TEST(SealedTheme, ThatBreaksARuleRefusesThePackage) {
  const TempFolder folder;
  SealedPackageOptions options = full_options(folder.path());
  json definition = theme_definition();
  definition["colors"]["text"] = definition["colors"]["background"];
  write_tree({{"theme.json", definition.dump()}}, options.theme);
  const SealedPackage package{folder.path(), options};
  EXPECT_THAT(failure_of([&] { read_native_package(package.folder, package.seal); }),
              StartsWith("invalid_theme: Theme contrast is below 4.5:1 for text on background"));
}

TEST_F(SealedFolder, NeedsTheSealOfItsDescriptor) {
  const auto seal = std::exchange(package.seal, std::string(64, 'a'));
  EXPECT_THAT(failure(), StartsWith("native_install_trust: This package is not the one"));
  for (const auto& other : {std::string(), seal.substr(1), "A" + seal.substr(1), seal + "0"}) {
    package.seal = other;
    EXPECT_THAT(failure("nowhere"), StartsWith("native_install_trust: This installer has no"));
  }
}

TEST_F(SealedFolder, RefusesEveryFileThatIsNotAsSealed) {
  const auto aside = folder.path() / "aside";
  for (const auto* name :
       {"root", "bootstrap_manifest", "launcher_manifest", "ca_bundle", "icon", "theme",
        "theme-icon.bmp", "bootstrap_archive", "launcher_archive", "descriptor"}) {
    const auto path = package.path(name);
    const auto bytes = read_file(path, 1 << 20);
    auto flipped = bytes;
    flipped[flipped.size() / 2] ^= 1;
    for (const auto& changed : {flipped, bytes.substr(1), bytes + "x", bytes}) {
      std::ofstream(path, std::ios::binary) << changed;
      EXPECT_THAT(failure(), ContainsRegex(changed == bytes ? "^$" : "_mismatch:|_trust:"));
    }
    fs::rename(path, aside);
    EXPECT_NE(failure(), "") << name;
    fs::create_symlink(aside, path);
    EXPECT_NE(failure(), "") << name;
    fs::rename(aside, path);
  }
}

TEST_F(SealedFolder, HoldsExactlyItsFiles) {
  const auto link = folder.path() / "link";
  fs::create_directory_symlink(package.folder, link);
  for (const auto& path : {link, link / "", package.path("root"), fs::path()})
    EXPECT_EQ(failure(path), "invalid_native_package: Choose an initial package directory");
  fs::create_directory(package.folder / "stray");
  fs::remove(package.path("launcher_archive"));
  EXPECT_THAT(failure(),
              testing::EndsWith(": Initial package contains an unexpected entry: stray"));
  fs::remove(package.folder / "stray");
  EXPECT_EQ(failure(), "invalid_native_package: Initial package is missing a resource");
}

TEST_F(SealedFolder, RefusesADescriptorByItsFirstBrokenRule) {
  const auto intact = package.descriptor();
  const std::string wrong = "invalid_native_package: ";
  const auto fields = wrong + "Initial package record has unknown";
  const std::string size = "size_limit: Initial package resource exceeds its size limit";
  // A null value takes the member away.
  const std::vector<std::tuple<std::string, json, std::string>> rows = {
      {"/more", 1, fields},
      {"/ca_bundle", {}, fields},
      {"/schema_version", 2, "unsupported_schema: Unsupported initial package schema"},
      {"/platform", "windows-x86_64", "launcher_incompatible: This package is for another"},
      {"/origin", "https://repository.example/", "invalid_origin: The package origin must be"},
      {"/root/length", -1, wrong + "Resource length must be an unsigned integer"},
      {"/root/sha256", std::string(64, 'A'), wrong + "Resource hash must be a lowercase"},
      {"/root/length", 0U, size},
      {"/brand/icon/length", 1048577U, size},
      {"/root/path", ".hidden", wrong + "Initial package resources need distinct flat"},
      {"/ca_bundle", intact["root"], wrong + "Initial package resources overlap"},
      {"/featured_game/name", std::string(81, 'x'), wrong + "Featured game name must be 1 to 80"},
      {"/brand/icon", {}, wrong + "Brand has unknown or missing fields"},
      {"/brand/theme/files/licence.txt", {}, wrong + "Brand theme files differ from its"},
      {"/brand/theme/files/icon.bmp/path", "icon.bmp", wrong + "Brand theme files are stored as"},
      {"/brand/theme/files/icon.bmp/length", 4194305U, size},
      {"/brand/theme/definition/path", "theme",
       wrong + "Brand theme definition must be theme.json"},
      {"/brand/theme/definition/length", 65537U, size},
      {"/brand/theme/files", json::array(), wrong + "Brand theme files must be an object"},
      {"/brand/theme/more", 1, fields},
  };
  fs::copy_file(package.path("root"), package.folder / ".hidden");
  for (const auto& [at, value, expected] : rows) {
    const json::json_pointer pointer(at);
    auto damaged = intact;
    damaged[pointer] = value;
    if (value.is_null()) damaged[pointer.parent_pointer()].erase(pointer.back());
    package.edit_descriptor([&](json& document) { document = damaged; });
    EXPECT_THAT(failure(), StartsWith(expected)) << at;
  }
}

TEST_F(SealedFolder, RefusesSealedResourcesThatCannotServe) {
  auto forged = json::parse(package.signed_root("2099-01-01T00:00:00Z"));
  forged["signed"]["version"] = 2;
  auto foreign = json::parse(read_file(package.path("launcher_manifest"), 524288));
  foreign["platform"] = "windows-x86_64";
  // The bootstrap alone would still fit.
  auto vast = json::parse(read_file(package.path("bootstrap_manifest"), 524288));
  auto& grown = vast["files"][0]["length"];
  grown = grown.get<unsigned>() + 1073741824U - vast["expanded_length"].get<unsigned>();
  vast["expanded_length"] = 1073741824U;
  // What is proved later comes first: each failure hides the one before it.
  const std::vector<std::array<std::string, 3>> rows = {
      {"bootstrap_manifest", vast.dump(), "size_limit: Initial package payload is too large"},
      {"launcher_manifest", foreign.dump(), "launcher_incompatible: Package images are for"},
      {"root", package.signed_root("2020-01-01T00:00:00Z"), "expired_metadata: The initial"},
      {"root", forged.dump(), "signature_threshold: "},
      {"root", "{\"signed\":{}}", "invalid_native_package: Initial package metadata is malformed"},
      {"icon", sample_icon().substr(0, 21), "invalid_native_package: The brand icon is not an"},
  };
  for (const auto& [resource, bytes, expected] : rows) {
    package.replace_resource(resource, bytes);
    EXPECT_THAT(failure(), StartsWith(expected));
  }
}

TEST_F(SealedFolder, ThemeIsBoundedTogetherAndProvedForAFrontEnd) {
  ThemeResources theme{{"big", {}, 0}, {}};
  write_bytes(package.folder / "big", std::string(4194304, 'x'));
  theme.files.assign(4, {"", {"big", digest_file(package.folder / "big", "sha256"), 4194304}});
  theme.files.push_back({"", {"big", {}, 1}});
  const std::string fonts = R"({"fonts": {"a": "a.ttf"}})";
  write_bytes(package.folder / "definition", fonts);
  theme.definition = {"definition", digest(fonts, "sha256"), fonts.size()};
  EXPECT_EQ(code_of([&] { read_sealed_theme(package.folder, theme); }), "size_limit");
  theme.files.pop_back();
  EXPECT_EQ(code_of([&] { read_sealed_theme(package.folder, theme); }), "invalid_native_package");

  EXPECT_EQ(package_theme(package.folder, package.seal)->icon->path,
            package.path("theme-icon.bmp"));
  package.replace_resource("theme-icon.bmp", "BM");
  EXPECT_EQ(code_of([&] { package_theme(package.folder, package.seal); }), "invalid_theme");
  EXPECT_FAILURE(package_theme(package.folder, ""),
                 "native_install_trust: This installer has no package seal");
}

TEST_F(SealedFolder, IsReadWholeOrForItsBrandAlone) {
  const auto read = read_native_package(package.folder / "", package.seal);
  EXPECT_EQ(read.root, package.folder);
  EXPECT_EQ(read.ca_bundle + read.brand_icon, "certificates" + sample_icon());
  EXPECT_EQ(read.theme->files.size(), 5U);
  fs::remove(package.path("root"));
  EXPECT_EQ(package_brand(package.folder, package.seal)->publisher, "Nova Ltd");
  EXPECT_EQ(package_featured_game(package.folder, package.seal)->name, "First Game");
  EXPECT_EQ(package_brand_icon(package.folder, package.seal), package.path("icon"));
  std::ofstream(package.path("icon")) << "other";
  EXPECT_EQ(code_of([&] { package_brand_icon(package.folder, package.seal); }), "content_mismatch");
}

}  // namespace
}  // namespace tavro
