#include "platform/storage/allocated_file.h"

#include "support/fail_nth_call.h"
#include "support/snapshot_archive.h"

namespace tavro::allocated_file_test {

class AllocatedFiles : public ::testing::Test {
 protected:
  std::string content() const { return tree_content(folder.path())["file"]; }

  TempFolder folder;
  const fs::path path = folder.path() / "file";
};

TEST_F(AllocatedFiles, TakeTheirSpaceFirstAndEndAtWhatWasWritten) {
  AllocatedFile file(path, 200000, {});
  EXPECT_EQ(file.size(), file.reservation().allocated ? 200000U : 0U);
  file.write(std::string(200000, 'x'));
  EXPECT_EQ(code_of([&] { file.write("y"); }), "size_limit");
  file.restart();
  file.write("new");
  EXPECT_EQ(code_of([&] { file.finish(true); }), "length_mismatch");
  file.set_executable(true);
  file.finish(false);
  EXPECT_EQ(content(), "new");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0700));
  EXPECT_EQ(code_of([&] { AllocatedFile(path, 1, {}); }), "unsafe_path") << "exclusive";
}

TEST_F(AllocatedFiles, DisappearUnlessTheyAreKept) {
  const auto refuse = [&](const FileReservation& record) {
    EXPECT_TRUE(!record.allocated && fs::file_size(path) == 0) << "recorded before space is taken";
    fail("state", "no record");
  };
  EXPECT_EQ(code_of([&] { AllocatedFile(path, 9, refuse); }), "state");
  EXPECT_FALSE(fs::exists(path));
  AllocatedFile(path, 9, {}).preserve();
  AllocatedFile(AllocatedFile::inspect_file(path), 0).discard();
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(AllocatedFiles, RefuseAPrefixThatTheyDoNotHold) {
  const auto record = AllocatedFile(path, 100000, {}).retain_reservation();
  AllocatedFile(record).write(std::string(70000, 'a'));
  AllocatedFile file(record, 70000);
  EXPECT_EQ(code_of([&] { file.read_prefix(70001, [](auto) {}, {}); }), "allocation_changed");
}

TEST_F(AllocatedFiles, RefuseEveryStepOnceTheyChangedAndLeaveTheStranger) {
  const std::function<void(AllocatedFile&)> steps[] = {
      &AllocatedFile::restart,
      &AllocatedFile::preserve,
      &AllocatedFile::discard,
      [](auto& file) { file.read_prefix(0, [](auto) {}, {}); },
      [](auto& file) { AllocatedFile again(file.reservation()); },
      [](auto& file) { file.finish(false); }};
  const fs::path aside = folder.path() / "aside";
  for (const auto& step : steps) {
    {
      AllocatedFile file(path, 4, {});
      fs::rename(path, aside);
      AllocatedFile(path, 4, {}).preserve();
      EXPECT_EQ(code_of([&] { step(file); }), "allocation_changed");
    }
    EXPECT_TRUE(fs::remove(path));
  }
  AllocatedFile file(path, 4, {});
  fs::create_hard_link(path, folder.path() / "second");
  EXPECT_EQ(code_of([&] { file.finish(false); }), "unsafe_path");
}

TEST_F(AllocatedFiles, AreCompleteOrGoneWhicheverCallFails) {
  const std::string bytes(150000, 'x');
  const auto again = [&] { fs::remove(path); };
  const auto work = [&] {
    AllocatedFile file(path, bytes.size(), {});
    file.write(bytes);
    file.set_executable(true);
    file.finish(true);
  };
  const std::pair<Fault, int> faults[] = {{Fault::fail, ENOSPC}, {Fault::shorten, EINTR}};
  for (const auto& [fault, error] : faults) {
    const auto check = [&, error = error](const Stop& stop) {
      EXPECT_EQ(stop.code.empty(), error == EINTR || stop.call.empty());
      // Until its identity is known an empty file is not proved to be ours, and stays.
      EXPECT_TRUE(content() == (stop.code.empty() ? bytes : ""));
    };
    EXPECT_GE(strike_each_call(fault, error, again, work, check), 9);
  }
  again();
  const FailNthCall full(1, ENOSPC, Fault::fail, "fallocate");
  EXPECT_EQ(code_of(work), "insufficient_space");
}

}  // namespace tavro::allocated_file_test
