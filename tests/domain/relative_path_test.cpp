#include "domain/relative_path.h"

#include "domain/documents.h"
#include "domain/identifier.h"

namespace tavro {
namespace {

TEST(RelativePath, HoldsOrdinaryComponentsInEitherMode) {
  const std::string with_nul("a\0b", 3), too_long(4097, 'a'), long_name(256, 'a');
  std::string longest = "a";
  while (longest.size() < 4096) longest = std::string(255, 'a') + "/" + longest;
  longest = longest.substr(longest.size() - 4096);
  const Answers answers = {
      {"", {longest, "a/b.txt", "é/ü", "conf/com10", "lpt0/.nul"}},
      {"must be a safe relative path", {"", "/a", "a\\b", with_nul, too_long}},
      {"unsafe component", {too_long.substr(1), long_name, "a//b", "a/./b", "a/../b", "a:b"}},
      {"Trailing path separator", {"a/"}}};
  for (const bool portable : {false, true})
    expect_answers(answers,
                   [&](const std::string& path) { validate_relative_path(path, portable); });
}

TEST(RelativePath, RefusesInPortableModeWhatSomePlatformCannotStore) {
  const Answers answers = {
      {"not portable across supported platforms", {"a.", "x/a ", "a?b", "a\x1f"}},
      {"reserved platform name", {"con", "Con.txt", "LPT1", "com9.tar.gz", "x/nul/y"}}};
  expect_answers(answers, [](const std::string& path) {
    EXPECT_NO_THROW(validate_relative_path(path, false)) << path;
    validate_relative_path(path, true);
  });
}

TEST(Identifier, IsAFolderNameOfLowerCaseLettersDigitsDotsAndHyphens) {
  const std::string longest(80, 'z');
  const Answers answers = {{"", {"a", "0.9-b", longest}},
                           {"invalid_identity", {"", longest + "z", ".", "..", "A", "a_b", "a/b"}},
                           {"unsafe_path", {"a.", "com1.x"}}};
  expect_answers(answers, [](const std::string& id) { validate_identifier(id); });
}

}  // namespace
}  // namespace tavro
