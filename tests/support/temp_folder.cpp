#include "support/temp_folder.h"

#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace tavro {

namespace fs = std::filesystem;

TempFolder::TempFolder() {
  // Resolved, since the walks of the client refuse a link in the way.
  std::string name = fs::canonical(fs::temp_directory_path()) / "tavro-test-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  path_ = name;
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::permissions(path_, fs::perms::owner_all, ignored);
  for (fs::recursive_directory_iterator entry(path_, ignored), end; !ignored && entry != end;
       entry.increment(ignored)) {
    std::error_code denied;
    if (entry->symlink_status(denied).type() == fs::file_type::directory)
      fs::permissions(entry->path(), fs::perms::owner_all, denied);
  }
  fs::remove_all(path_, ignored);
}

bool bind_mount(const fs::path& source, const fs::path& target) {
  std::ifstream table("/proc/self/mountinfo");
  bool lists_root = false;
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string field;
    for (int count = 0; count < 5; ++count) fields >> field;
    lists_root = lists_root || field == "/";
  }
  return lists_root && ::mount(source.c_str(), target.c_str(), "", MS_BIND, nullptr) == 0;
}

}  // namespace tavro
