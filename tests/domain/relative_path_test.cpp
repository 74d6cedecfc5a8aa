#include "domain/relative_path.h"

#include "documents/documents.h"
#include "domain/identifier.h"

namespace tavro {

TEST(RelativePath, HoldsOrdinaryComponentsInEitherMode) {
  const std::string name(255, 'a');
  std::string longest(16, 'a');
  while (longest.size() < 4096) longest += '/' + name.substr(1);
  const std::string table = "|a/b.txt|é/ü|conf/com10|lpt0/.nul|" + name + '|' + longest +
                            "\nTrailing path separator|a/\nunsafe component|a//b|a/./b|a:b|../b|a" +
                            name + "\nmust be a safe relative path||/a|a\\b|a" + longest + "|a" +
                            '\0';
  for (const bool portable : {false, true})
    expect_answers(table, [&](const std::string& path) { validate_relative_path(path, portable); });
}

TEST(RelativePath, RefusesInPortableModeWhatSomePlatformCannotStore) {
  const auto portable = [](const std::string& path) {
    EXPECT_NO_THROW(validate_relative_path(path, false)) << path;
    validate_relative_path(path, true);
  };
  expect_answers("not portable across supported platforms|a.|x/a |a?b|a\x1f", portable);
  expect_answers("reserved platform name|con|Con.txt|LPT1|com9.tar.gz|x/nul/y", portable);
}

TEST(Identifier, IsAFolderNameOfLowerCaseLettersDigitsDotsAndHyphens) {
  const std::string longest(80, 'z');
  expect_answers("|a|0.9-b|" + longest +
                     "\nunsafe_path|a.|com1.x\ninvalid_identity||.|..|A|a_b|a/b|z" + longest,
                 validate_identifier);
}

}  // namespace tavro
