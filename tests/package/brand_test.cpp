#include "package/brand.h"

#include "documents/documents.h"
#include "domain/product_name.h"
#include "installation/installed_brand.h"

namespace tavro::brand_test {

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
  expect_answers(R"(Brand has unknown or missing fields|/icon "yes"|/more 1|/publisher
Brand needs a name|/name 7
Brand id must be 1 to 80 bytes of plain text|/id ""|/id "<81>"
Brand publisher must be 1 to 128 bytes of plain text|/publisher "a\nb"|/publisher "<129>")",
                 [](const std::string& damage) { parse_brand(damaged(valid, damage)); });
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

}  // namespace tavro::brand_test
