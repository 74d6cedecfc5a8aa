#include "command_table.h"

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

}  // namespace tavro::program_test
