#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// What a system knows of volumes and of the places on them; the rules stand in `path_identity`.
namespace tavro::host {

/// When two names in one folder are one name.
enum class NameRules {
  /// Only byte for byte.
  exact,
  /// When they are canonically equivalent.
  composed,
  /// When they are so without regard to case.
  folded,
  /// And without regard to dots at their end.
  folded_dotless,
};

/// The mount through which a descriptor was reached.
struct Mount {
  /// Whether it shows a local file system whose rules are known.
  bool accepted = false;
  /// Tells it from every other mount for as long as it stands.
  std::string id;
  /// Where it stands.
  std::string path;
  /// What it shows, as a path on the volume: "/" for the whole of it.
  std::string root = "/";
  /// The rules in the folders above `root`.
  NameRules rules_above = NameRules::exact;
};

/// The questions to the system; each takes an open descriptor.
struct VolumeCalls {
  /// What `Mount::accepted` asks for, as words of a sentence.
  std::string_view accepted;
  std::function<std::optional<Mount>(int)> mount;
  /// The volume's own part of a key, with the form's prefix: equal for all mounts of one volume and
  /// different for two volumes. Empty when it cannot be told.
  std::function<std::string(int)> identity;
  /// The path of the open object, without links of any kind; empty when it cannot be told.
  std::function<std::string(int)> physical;
  /// The rules of the names in an open folder.
  std::function<NameRules(int)> rules;
  /// One text for all names that these rules hold for one. Nothing, with `errno` set, for a name
  /// that the system cannot compare: `EILSEQ` when it is no valid text.
  std::function<std::optional<std::string>(std::string_view, NameRules)> name_key;
};

/// The running system's answers.
///
/// On Linux the identity is the UUID that the file system keeps in its superblock (ext4, xfs,
/// btrfs, f2fs, overlay where it has one), which outlives reboots and renamed devices. It is asked
/// from the kernel, and where the kernel cannot tell it, from the links in /dev/disk/by-uuid, which
/// also give vfat and exfat their serial numbers. tmpfs has a UUID for as long as it is mounted.
/// What has none (an overlay without one, a kernel or container that hides it) is known by what
/// `statfs` derives for ext4, else by its device number, which is unique while it is mounted and
/// may change with the next mount: keys then still compare rightly with each other, but a key from
/// before a reboot may not be met again, so that a menu entry is made under a new name. Two volumes
/// with one UUID, such as a block-wise copy, cannot be told apart.
///
/// Names compare by the folder: folded in an ext4, f2fs or tmpfs folder with that attribute, and
/// everywhere on vfat and exfat, whose short aliases ("PROGRA~1") count as names of their own;
/// exact everywhere else. A bind mount of a folder below a folding one shows no attributes of what
/// lies above it: those names compare exactly.
const VolumeCalls& volume_calls();

}  // namespace tavro::host
