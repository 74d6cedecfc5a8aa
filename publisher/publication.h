#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "domain/progress.h"
#include "domain/unique_fd.h"

namespace tavro {

class OutputFile;

/// The folder of a repository that a server shows, and what clients look for in it.
inline constexpr std::string_view served_folder = "public";
inline constexpr std::string_view metadata_folder = "tuf/metadata";
inline constexpr std::string_view targets_folder = "tuf/targets";

/// Whether a name below the served folder is that of a root in the chain.
bool is_root_name(std::string_view name);

/// What is served is for everybody, whatever the umask of the publisher: a server that may not
/// read the next root answers as if there were none. In force for the whole process while it lives.
class ServedModes {
 public:
  ServedModes();
  ServedModes(ServedModes&&) = delete;
  ~ServedModes();

 private:
  mode_t before_;
};

/// Claims a repository for one publisher until the descriptor closes. Throws `busy` while another
/// one has it, `invalid_repository` when there is no such folder.
UniqueFd lock_repository(const std::filesystem::path& repository);

/// A change of the served folder that clients see in one step: all of it or nothing, whenever the
/// publisher or the machine stops. The files are made in a folder beside the served one. When at
/// most one of them shows (a next root, or a name that is served already, such as the timestamp),
/// they move into the served folder, that one last. Otherwise a whole new folder, which shares the
/// unchanged files and has the modes of the old folders, is exchanged with the served one.
class Publication {
 public:
  /// Removes what a publisher that crashed left in the repository, which the caller has locked.
  explicit Publication(std::filesystem::path repository);
  Publication(Publication&&) = delete;
  ~Publication();

  /// A file of the change by its name below the served folder. Throws as `OutputFile` does.
  void put(const std::string& name, std::string_view bytes);

  /// Copies a target and returns its description, `length` and `hashes`, of what was copied.
  /// `name_of` tells its name by its SHA-256; of two contents with one name the later counts.
  /// Throws `file_read` or `cancelled`, and as `put`.
  json put_target(const std::filesystem::path& source,
                  const std::function<std::string(const std::string& sha256)>& name_of,
                  const Progress& progress);

  /// The same for a target that is made here, without a file of its own.
  json put_target(std::string_view bytes,
                  const std::function<std::string(const std::string& sha256)>& name_of);

  /// The content that will stand under this name once the change shows. Throws as `read_file`.
  std::string read(const std::string& name, unsigned long long max_bytes) const;

  /// Makes the change durable and shows it. After a failure of the very last sync it may show
  /// already: read the repository again. Throws `file_write`, `file_sync`, `insufficient_space`;
  /// `target_conflict` when a file that is served no longer by right is in the way of a folder, or
  /// the other way round.
  void commit();

 private:
  json take(OutputFile& file, const std::string& sha256,
            const std::function<std::string(const std::string& sha256)>& name_of);
  bool shows(const std::string& name) const;
  void move_in(const std::string& last);
  void exchange();

  ServedModes modes_;
  std::filesystem::path repository_;
  std::filesystem::path served_;
  std::filesystem::path staging_;
  std::set<std::string> names_;
  /// The staging folder is the one that was served, and the exchange may not be durable.
  bool in_doubt_ = false;
};

/// Removes the metadata and targets that `keep` refuses, and the folders that hold nothing then;
/// returns the number of files. Whatever else is served stays.
std::size_t remove_served(const std::filesystem::path& repository,
                          const std::function<bool(std::string_view name)>& keep);

}  // namespace tavro
