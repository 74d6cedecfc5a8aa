#include "platform/allocated_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>

#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/snapshot_archive.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

std::string content_of(const fs::path& path) {
  return tree_content(path.parent_path())[path.filename()];
}

class AllocatedFiles : public ::testing::Test {
 protected:
  /// Puts another file of the same size in the place of the one that is open.
  void replace() {
    fs::rename(path, folder.path() / "moved");
    write_bytes(path, std::string(fs::file_size(folder.path() / "moved"), 's'));
    fs::permissions(path, fs::perms(0600));
  }

  TempFolder folder;
  const fs::path path = folder.path() / "file";
};

TEST_F(AllocatedFiles, TakeTheirSpaceFirstAndEndAtWhatWasWritten) {
  AllocatedFile file(path, 200000, {});
  EXPECT_EQ(file.size(), file.reservation().allocated ? 200000U : 0U);
  EXPECT_GE(file.allocated_bytes(), file.size());
  const std::string bytes(150000, 'x');
  file.write(bytes);
  EXPECT_EQ(failure_of([&] { file.finish(true); }),
            "length_mismatch: File data is shorter than its authenticated length");
  file.finish(false);
  EXPECT_EQ(content_of(path), bytes);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
}

TEST_F(AllocatedFiles, RefuseOneByteTooManyAndWriteNothingOfIt) {
  AllocatedFile file(path, 5, {});
  EXPECT_EQ(failure_of([&] { file.write("123456"); }),
            "size_limit: Write exceeds the authenticated file length");
  EXPECT_EQ(file.written(), 0U);
  file.write("12345");
  EXPECT_EQ(code_of([&] { file.write("6"); }), "size_limit");
  file.set_executable(true);
  file.finish(true);
  EXPECT_EQ(content_of(path), "12345");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0700));
}

TEST_F(AllocatedFiles, MayBeEmpty) {
  AllocatedFile file(path, 0, {});
  EXPECT_TRUE(file.reservation().allocated);
  file.finish(true);
  EXPECT_EQ(fs::file_size(path), 0U);
}

TEST_F(AllocatedFiles, AreRefusedWhereSomethingElseStands) {
  EXPECT_EQ(code_of([&] { AllocatedFile(path, 1ULL << 63, {}); }), "size_limit");
  write_bytes(path, "old");
  EXPECT_EQ(code_of([&] { AllocatedFile(path, 1, {}); }), "unsafe_path");
  EXPECT_EQ(content_of(path), "old");
  EXPECT_EQ(failure_of([&] { AllocatedFile(folder.path() / "missing/file", 1, {}); }),
            "unsafe_path: Allocation requires an ordinary parent directory");
  fs::create_directory_symlink(".", folder.path() / "link");
  EXPECT_EQ(code_of([&] { AllocatedFile(folder.path() / "link/file2", 1, {}); }), "unsafe_path");
}

TEST_F(AllocatedFiles, AreRecordedBeforeTheyTakeSpaceAndGoWhenThatFails) {
  EXPECT_THROW(AllocatedFile(path, 100000,
                             [&](const FileReservation& record) {
                               EXPECT_EQ(record.path, path);
                               EXPECT_FALSE(record.allocated);
                               EXPECT_EQ(fs::file_size(path), 0U);
                               throw std::runtime_error("no record");
                             }),
               std::runtime_error);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(failure_of([&] { AllocatedFile(path, 9, [&](const auto&) { replace(); }); }),
            "allocation_changed: New allocation changed while recording ownership");
  EXPECT_TRUE(fs::exists(path)) << "the stranger stays";
}

TEST_F(AllocatedFiles, DisappearUnlessTheyAreKept) {
  { AllocatedFile file(path, 10, {}); }
  EXPECT_FALSE(fs::exists(path));
  {
    AllocatedFile file(path, 10, {});
    file.preserve();
  }
  EXPECT_TRUE(fs::exists(path));
  { AllocatedFile reopened(AllocatedFile::inspect_file(path), 0); }
  EXPECT_TRUE(fs::exists(path)) << "a reopened file stays";
  AllocatedFile(AllocatedFile::inspect_file(path), 0).discard();
  EXPECT_FALSE(fs::exists(path));
  {
    AllocatedFile file(path, 10, {});
    AllocatedFile moved(std::move(file));
    replace();
  }
  EXPECT_TRUE(fs::exists(path)) << "a stranger is never removed";
}

TEST_F(AllocatedFiles, AreHandedOverUntouched) {
  const auto record = AllocatedFile(path, 9, {}).retain_reservation();
  AllocatedFile::verify_identity(record);
  {
    AllocatedFile file(record);
    file.write("123");
    EXPECT_EQ(code_of([&] { file.retain_reservation(); }), "allocation_changed");
  }
  replace();
  const std::string refused =
      "allocation_changed: Prepared file was replaced or changed; reserved content was preserved";
  EXPECT_EQ(failure_of([&] { AllocatedFile{record}; }), refused);
  EXPECT_EQ(failure_of([&] { AllocatedFile(record, 3); }), refused);
  EXPECT_EQ(failure_of([&] { AllocatedFile::verify_identity(record); }),
            "allocation_changed: Prepared allocation identity changed");
  EXPECT_EQ(content_of(path), std::string(fs::file_size(path), 's'));
}

TEST_F(AllocatedFiles, GoOnFromARecordedPrefix) {
  FileReservation record;
  {
    AllocatedFile file(path, 100000, {});
    file.write(std::string(70000, 'a'));
    file.finish(false);
    record = AllocatedFile::inspect_file(path);
    record.size = 100000;
  }
  AllocatedFile file(record, 70000);
  std::string prefix;
  std::vector<unsigned long long> told;
  file.read_prefix(
      70000, [&](auto bytes) { prefix += bytes; },
      [&](auto done, auto total) {
        EXPECT_EQ(total, 70000U);
        told.push_back(done);
        return true;
      });
  EXPECT_EQ(prefix, std::string(70000, 'a'));
  EXPECT_EQ(told, (std::vector<unsigned long long>{0, 65536, 70000}));
  EXPECT_EQ(failure_of([&] { file.read_prefix(70001, [](auto) {}, {}); }),
            "allocation_changed: Recorded prefix changed");
  EXPECT_EQ(failure_of([&] {
              file.read_prefix(
                  1, [](auto) {}, [](auto, auto) { return false; });
            }),
            "cancelled: Partial verification cancelled");
  file.reserve_remaining();
  file.write(std::string(30000, 'b'));
  file.synchronize();
  file.finish(true);
  EXPECT_EQ(content_of(path), std::string(70000, 'a') + std::string(30000, 'b'));
}

TEST_F(AllocatedFiles, StartAgainOverStaleBytes) {
  AllocatedFile file(path, 100, {});
  file.write(std::string(100, 'a'));
  file.restart();
  EXPECT_EQ(file.written(), 0U);
  file.write("new");
  file.finish(false);
  EXPECT_EQ(content_of(path), "new");
}

TEST_F(AllocatedFiles, RefuseEveryStepOnceTheirPathNamesAStranger) {
  const std::function<void(AllocatedFile&)> steps[] = {
      [](auto& file) { file.restart(); },
      [](auto& file) { file.preserve(); },
      [](auto& file) { file.discard(); },
      [](auto& file) { file.synchronize(); },
      [](auto& file) { file.reserve_remaining(); },
      [](auto& file) { file.set_executable(true); },
      [](auto& file) { file.retain_reservation(); },
      [](auto& file) { file.read_prefix(0, [](auto) {}, {}); },
      [](auto& file) { file.finish(false); }};
  for (const auto& step : steps) {
    {
      AllocatedFile file(path, 4, {});
      replace();
      EXPECT_EQ(code_of([&] { step(file); }), "allocation_changed");
    }
    EXPECT_EQ(content_of(path), std::string(fs::file_size(path), 's'));
    fs::remove(path);
  }
}

TEST_F(AllocatedFiles, MustStayPrivateAndSingle) {
  AllocatedFile file(path, 4, {});
  fs::permissions(path, fs::perms(0640));
  EXPECT_EQ(code_of([&] { file.size(); }), "permissions");
  fs::permissions(path, fs::perms(0600));
  fs::create_hard_link(path, folder.path() / "second");
  EXPECT_EQ(failure_of([&] { file.finish(false); }),
            "unsafe_path: Allocation requires an ordinary single-link file");
}

TEST_F(AllocatedFiles, ThatGrewAreNotTheRecordedOnes) {
  auto record = AllocatedFile(path, 4, {}).retain_reservation();
  write_bytes(path, "12345");
  EXPECT_EQ(failure_of([&] { AllocatedFile::verify_identity(record); }),
            "allocation_changed: Owned partial file identity or bounds changed");
  fs::remove(path);
  EXPECT_EQ(code_of([&] { AllocatedFile::verify_identity(record); }), "unsafe_path");
}

void write_whole_file(const fs::path& path, std::string_view bytes) {
  AllocatedFile file(path, bytes.size(), [](const auto&) {});
  file.write(bytes);
  file.set_executable(true);
  file.finish(true);
}

TEST_F(AllocatedFiles, AreCompleteOrGoneWhicheverCallFails) {
  const std::string bytes(150000, 'x');
  for (const int error : {EIO, ENOSPC}) {
    const int struck = strike_each_call(
        Fault::fail, error, [&] { fs::remove(path); }, [&] { write_whole_file(path, bytes); },
        [&](const Stop& stop) {
          SCOPED_TRACE(stop.call);
          const bool complete = stop.code.empty();
          // Until its identity is known an empty file is not proved to be ours, and stays.
          EXPECT_TRUE(complete ? content_of(path) == bytes
                               : !fs::exists(path) || fs::file_size(path) == 0);
          const bool takes_space =
              stop.call == "write" || stop.call == "fallocate" || stop.call == "ftruncate";
          EXPECT_TRUE(error != ENOSPC || !takes_space || stop.code == "insufficient_space");
        });
    EXPECT_GE(struck, 8);
  }
}

TEST_F(AllocatedFiles, SurviveShortWrites) {
  const std::string bytes(150000, 'x');
  strike_each_call(
      Fault::shorten, EIO, [&] { fs::remove(path); }, [&] { write_whole_file(path, bytes); },
      [&](const Stop& stop) {
        EXPECT_EQ(stop.code, "") << stop.call;
        EXPECT_EQ(content_of(path), bytes);
      });
}

TEST_F(AllocatedFiles, GoOnWithoutAReservationWhereTheFileSystemHasNone) {
  {
    const FailNthCall none(1, ENOTSUP, Fault::fail, "fallocate");
    AllocatedFile file(path, 5, {});
    ASSERT_TRUE(none.fired());
    EXPECT_EQ(file.size(), 0U);
    const auto record = file.retain_reservation();
    EXPECT_FALSE(record.allocated);
    AllocatedFile reopened(record);
    reopened.write("12345");
    reopened.finish(true);
  }
  EXPECT_EQ(content_of(path), "12345");
  const FailNthCall broken(1, EPERM, Fault::fail, "fallocate");
  EXPECT_EQ(code_of([&] { AllocatedFile(folder.path() / "other", 5, {}); }), "space_reservation");
}

TEST_F(AllocatedFiles, AreDiscardedOrStillThere) {
  const int struck = strike_each_call(
      Fault::fail, EIO, [&] { write_bytes(path, "12345"), fs::permissions(path, fs::perms(0600)); },
      [&] { AllocatedFile(AllocatedFile::inspect_file(path), 5).discard(); },
      [&](const Stop& stop) { EXPECT_TRUE(!stop.code.empty() || !fs::exists(path)) << stop.call; });
  EXPECT_GE(struck, 2);
}

}  // namespace
}  // namespace tavro
