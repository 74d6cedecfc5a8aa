#include "app/brand.h"

#include "domain/product_name.h"
#include "support/testing.h"

namespace tavro {
namespace {

using namespace std::string_literals;

TEST(Brand, NameIsAFolderNameOnEverySystem) {
  for (const auto& name : {"COM0"s, "COM10"s, "Two Words"s, "\xc3\xa9"s, std::string(64, 'x')})
    EXPECT_EQ(code_of([&] { validate_brand_name(name); }), "") << name;
  for (const auto& name :
       {""s, std::string(65, 'x'), " a"s, "a "s, "a."s, "\x1f"s, "a\x7f"s, "a/b"s, "a\\b"s, "a:b"s,
        "a\"b"s, "a\0b"s, "Con.txt"s, "LPT9"s, "aux.log"s})
    EXPECT_EQ(code_of([&] { validate_brand_name(name); }), "invalid_native_package") << name;
}

const json valid = {{"name", "Nova"}, {"id", "nova"}, {"publisher", "Nova Ltd"}, {"icon", true}};

TEST(Brand, ComesBackAsItWasWrittenOrIsRefused) {
  EXPECT_EQ(brand_json(parse_brand(valid)), valid);
  const std::vector<std::tuple<std::string, json, std::string>> rows = {
      {"icon", "yes", "Brand has unknown or missing fields"},
      {"name", 7, "Brand needs a name"},
      {"id", "", "Brand id must be 1 to 80 bytes of plain text"},
      {"publisher", "a\nb", "Brand publisher must be 1 to 128 bytes of plain text"},
  };
  for (const auto& [key, damage, message] : rows) {
    auto value = valid;
    value[key] = damage;
    EXPECT_EQ(failure_of([&] { parse_brand(value); }), "invalid_native_package: " + message);
  }
}

TEST(Brand, InstalledOneNamesTheProcessUnlessItsRecordIsDamaged) {
  const TempFolder folder;
  const auto native = folder.path() / "native";
  std::filesystem::create_directory(native);
  std::ofstream(native / "brand.ico") << "icon";
  const auto record = json{{"brand", valid}}.dump();
  for (const auto& text : {""s, "[1]"s, "{}"s, "{\"brand\":{\"name\":\"Nova\"}}"s, record}) {
    std::ofstream(native / "installation.json") << text;
    use_installed_brand(folder.path());
    EXPECT_EQ(product_name(), text == record ? "Nova" : "Tavro") << text;
  }
  EXPECT_EQ(product_icon(), native / "brand.ico");
  set_product_name("Tavro");
  set_product_icon({});
}

}  // namespace
}  // namespace tavro
