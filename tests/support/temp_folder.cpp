#include "support/temp_folder.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
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

}  // namespace tavro
