#pragma once

namespace tavro {

class CleanupWork;

/// Takes from a launcher store what its downloads left: unfinished files with their receipts and
/// records, and finished ones that are explained by a receipt or by a stored descriptor. What has
/// no owner stays and is told of. False when the receipts cannot be explained: then all downloads
/// stay, and the descriptors that explain them must. Throws as `CleanupWork::consider` and `drop`,
/// and `std::filesystem::filesystem_error`.
bool clean_downloads(CleanupWork& work);

}  // namespace tavro
