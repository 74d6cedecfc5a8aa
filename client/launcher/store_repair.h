#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavro {

/// Mends what keeps updates and starts from a store whose selected version is sound: something else
/// in the place of one of its folders, links, special files and unportable names, downloads whose
/// receipts cannot be explained, descriptors that are not what their name says, and versions that
/// their descriptor does not prove. It sets them aside, and the record no longer names what is not
/// whole: the next update brings it anew. The active version, without one the candidate, is not
/// looked at.
///
/// Answers what was done, one sentence part an entry. To be called where nothing runs from the
/// finished installation. Throws what `LauncherStore` and `set_aside_from_store` throw; the next
/// call goes on.
std::vector<std::string> mend_launcher_store(const std::filesystem::path& root);

}  // namespace tavro
