#include "command_table.h"

#include "completion.h"
#include "support/testing.h"

namespace tavro::program_test {

using namespace program;

TEST(CommandTable, DoesWhatTheGrammarReads) {
  std::vector<std::vector<std::string>> read, done;
  for (const CliCommand& command : cli_commands()) read.push_back(command.words);
  for (const Command& command : command_table()) done.push_back(command.words);
  EXPECT_EQ(read.size(), 46);
  EXPECT_THAT(done, testing::UnorderedElementsAreArray(read));
}

std::string name_of(const CliCommand& command) {
  return command.words[0] + (command.words.size() == 2 ? " " + command.words[1] : "");
}

TEST(ManualPage, NamesEveryCommandAndEveryOption) {
  std::string page = read_file(fs::path(MANUAL_PAGE), 1 << 20);
  for (std::size_t at; (at = page.find("\\-")) != page.npos;) page.erase(at, 1);
  for (const CliCommand& command : cli_commands()) {
    const std::string name = name_of(command);
    std::size_t at = page.find("\n.B " + name + "\n");
    if (at == page.npos) at = page.find("\n\\fB" + name + "\\fR");
    ASSERT_NE(at, page.npos) << name;
    // Forms of one command stand below each other.
    const std::string forms = page.substr(at, 400);
    for (const auto& options : {command.flags, command.options})
      for (const std::string& option : options)
        EXPECT_NE(forms.find(option + "\\fR"), forms.npos) << name << option;
  }
}

TEST(Completion, OffersInBashWhatTheGrammarTakes) {
  const TempFolder folder;
  std::ofstream(folder.path() / "script") << completion_script("bash");
  const auto offered = [&](const std::string& line) {
    const std::string out = (folder.path() / "out").string();
    const std::string command = "bash -c 'source " + (folder.path() / "script").string() +
                                "; COMP_WORDS=(" + line +
                                " \"\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tavro;"
                                " echo \"${COMPREPLY[@]}\"' >" +
                                out;
    EXPECT_EQ(std::system(command.c_str()), 0) << line;
    return " " + read_file(out, 1 << 20);
  };
  for (const CliCommand& command : cli_commands()) {
    EXPECT_THAT(offered("tavro --json"), testing::HasSubstr(" " + command.words[0] + " "));
    const std::string words = offered("tavro --data-dir /x " + name_of(command));
    for (const auto& options : {command.flags, command.options})
      for (const std::string& option : options)
        EXPECT_THAT(words, testing::HasSubstr(" " + option + " ")) << name_of(command);
  }
  EXPECT_THAT(offered("tavro open space"), testing::HasSubstr(" content saves state "));
}

}  // namespace tavro::program_test
