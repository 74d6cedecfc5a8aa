#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/btrfs.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/input.h"
#include "domain/unique_fd.h"
#include "platform/host/host_volume.h"
#include "platform/host/system_calls.h"

namespace tavro::host {
namespace {

constexpr std::size_t uuid_bytes = 16;
constexpr std::size_t fdinfo_bytes = 16384;
constexpr std::size_t mount_table_bytes = 16777216;
constexpr int max_uuid_links = 4096;
constexpr char uuid_links[] = "/dev/disk/by-uuid";

/// The kernel's answer about a superblock's UUID; newer than the headers that some build with.
struct SuperblockUuid {
  unsigned char length;
  std::array<unsigned char, uuid_bytes> value;
};
constexpr unsigned long get_superblock_uuid = _IOR(0x15, 0, SuperblockUuid);

/// A file of the kernel's own, whose size cannot be asked. Empty when it cannot be read within the
/// bound.
std::string kernel_file(const std::string& path, std::size_t max_bytes) {
  const UniqueFd file(retried([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  std::string text;
  std::array<char, 16384> block;
  while (file) {
    const ssize_t count = read_some(file.get(), block.data(), block.size());
    if (count == 0) return text;
    if (count < 0 || text.size() + static_cast<std::size_t>(count) > max_bytes) break;
    text.append(block.data(), static_cast<std::size_t>(count));
  }
  return {};
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const auto end = std::min(text.find(separator), text.size());
    if (end > 0) parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

/// The table writes white space and backslashes as three octal digits behind a backslash.
std::string unescaped(std::string_view field) {
  std::string text;
  for (std::size_t at = 0; at < field.size(); ++at) {
    unsigned value = 0;
    const char* const digits = field.data() + at + 1;
    if (field[at] == '\\' && at + 3 < field.size() &&
        std::from_chars(digits, digits + 3, value, 8).ptr == digits + 3) {
      text += static_cast<char>(value);
      at += 3;
    } else {
      text += field[at];
    }
  }
  return text;
}

/// One line of the mount table.
struct TableLine {
  std::string id;
  std::string device;
  std::string root;
  std::string path;
  std::string type;
  std::string options;
};

std::optional<TableLine> parse_line(std::string_view line) {
  // "36 35 98:0 /root /path options [tags...] - type source options"
  const auto fields = split(line, ' ');
  const auto dash = std::find(fields.begin(), fields.end(), "-");
  if (dash - fields.begin() < 6 || fields.end() - dash < 4) return std::nullopt;
  return TableLine{std::string(fields[0]), std::string(fields[2]), unescaped(fields[3]),
                   unescaped(fields[4]),   std::string(dash[1]),   std::string(dash[3])};
}

std::string mount_id(int descriptor) {
  const auto info = kernel_file("/proc/self/fdinfo/" + std::to_string(descriptor), fdinfo_bytes);
  constexpr std::string_view label = "mnt_id:";
  for (const auto line : split(info, '\n'))
    if (line.starts_with(label)) {
      const auto begin = line.find_first_not_of(" \t", label.size());
      return begin == line.npos ? "" : std::string(line.substr(begin));
    }
  return {};
}

/// The types whose rules are the same however they are mounted, by what `statfs` calls them.
std::string_view type_of(int descriptor) {
  constexpr std::array<std::pair<long, std::string_view>, 9> types{{
      {EXT4_SUPER_MAGIC, "ext4"},
      {XFS_SUPER_MAGIC, "xfs"},
      {BTRFS_SUPER_MAGIC, "btrfs"},
      {F2FS_SUPER_MAGIC, "f2fs"},
      {0xca451a4e, "bcachefs"},
      {OVERLAYFS_SUPER_MAGIC, "overlay"},
      {TMPFS_MAGIC, "tmpfs"},
      {MSDOS_SUPER_MAGIC, "vfat"},
      {0x2011BAB0, "exfat"},
  }};
  struct statfs status {};
  if (::fstatfs(descriptor, &status) != 0) return {};
  const auto* const found = std::find_if(types.begin(), types.end(), [&](const auto& type) {
    return type.first == static_cast<long>(status.f_type);
  });
  return found == types.end() ? std::string_view() : found->second;
}

std::string device_text(const struct stat& node) {
  return std::to_string(major(node.st_dev)) + ":" + std::to_string(minor(node.st_dev));
}

/// In a root entered by `chroot` the table leaves out the mount that holds this root, and it alone.
/// Where the root lies on its volume is not to be seen; its inode tells it from other roots.
std::optional<TableLine> unlisted_root(int descriptor, const std::string& id) {
  const UniqueFd root(
      retried([] { return ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_PATH); }));
  struct stat node {};
  if (!root || mount_id(root.get()) != id || ::fstat(root.get(), &node) != 0) return std::nullopt;
  const std::string place = "/root:" + std::to_string(node.st_ino);
  return TableLine{id, device_text(node), place, "/", std::string(type_of(descriptor)), ""};
}

std::optional<TableLine> table_line(int descriptor) {
  const std::string id = mount_id(descriptor);
  if (id.empty()) return std::nullopt;
  const std::string table = kernel_file("/proc/self/mountinfo", mount_table_bytes);
  for (const auto text : split(table, '\n'))
    if (text.starts_with(id + " ")) return parse_line(text);
  return unlisted_root(descriptor, id);
}

bool folds_everywhere(std::string_view type) {
  return type == "vfat" || type == "msdos" || type == "exfat";
}

/// Local file systems whose rules for names are known.
bool is_known(const TableLine& line) {
  constexpr std::array<std::string_view, 9> exact_unless_marked{
      "ext2", "ext3", "ext4", "xfs", "btrfs", "f2fs", "bcachefs", "overlay", "tmpfs"};
  if (folds_everywhere(line.type)) return true;
  if (line.type == "zfs") {
    const auto options = split(line.options, ',');
    return std::find(options.begin(), options.end(), "casesensitive") != options.end();
  }
  return std::find(exact_unless_marked.begin(), exact_unless_marked.end(), line.type) !=
         exact_unless_marked.end();
}

std::optional<Mount> mount(int descriptor) {
  const auto line = table_line(descriptor);
  if (!line) return std::nullopt;
  Mount found;
  found.accepted = is_known(*line);
  found.id = line->id + " " + line->device;
  found.path = line->path;
  found.root = line->root;
  // A bind mount of a folder that is gone shows no place on the volume; "/" behind the mark keeps
  // it apart from a folder that is really called so.
  constexpr std::string_view gone = "//deleted";
  if (line->root.ends_with(gone)) found.accepted = false;
  if (folds_everywhere(line->type)) found.rules_above = NameRules::folded_dotless;
  return found;
}

std::string uuid_text(std::span<const unsigned char> uuid) {
  const bool unset = std::all_of(uuid.begin(), uuid.end(), [](auto byte) { return byte == 0; });
  return unset ? "" : hex(uuid);
}

std::string kernel_uuid(int descriptor) {
  SuperblockUuid answer{};
  if (::ioctl(descriptor, get_superblock_uuid, &answer) == 0 && answer.length == uuid_bytes)
    return uuid_text(answer.value);
  struct statfs status {};
  btrfs_ioctl_fs_info_args btrfs{};
  if (::fstatfs(descriptor, &status) == 0 && status.f_type == BTRFS_SUPER_MAGIC &&
      ::ioctl(descriptor, BTRFS_IOC_FS_INFO, &btrfs) == 0)
    return uuid_text(btrfs.fsid);
  return {};
}

/// The UUID in the spelling of the kernel's own answer, so that both name a volume alike.
std::string canonical_uuid(std::string_view name) {
  std::string text;
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    if (std::isalnum(byte) != 0) text += static_cast<char>(std::tolower(byte));
  }
  return text;
}

std::string linked_uuid(const std::string& device) {
  const std::unique_ptr<DIR, Deleter<::closedir>> links(::opendir(uuid_links));
  for (int count = 0; links && count < max_uuid_links; ++count) {
    const dirent* const entry = ::readdir(links.get());
    if (entry == nullptr) break;
    struct stat node {};
    if (::fstatat(::dirfd(links.get()), entry->d_name, &node, 0) != 0 || !S_ISBLK(node.st_mode))
      continue;
    if (device == std::to_string(major(node.st_rdev)) + ":" + std::to_string(minor(node.st_rdev)))
      return canonical_uuid(entry->d_name);
  }
  return {};
}

/// ext4 derives this number from its UUID; elsewhere it may be the device or no volume's own.
std::string derived_number(int descriptor) {
  struct statfs status {};
  if (::fstatfs(descriptor, &status) != 0 || status.f_type != EXT4_SUPER_MAGIC) return {};
  std::array<unsigned char, sizeof status.f_fsid> bytes;
  std::memcpy(bytes.data(), &status.f_fsid, bytes.size());
  return uuid_text(bytes);
}

std::string identity(int descriptor) {
  constexpr char prefix[] = "linux-v1/";
  const auto line = table_line(descriptor);
  if (!line) return {};
  std::string uuid = kernel_uuid(descriptor);
  if (uuid.empty()) uuid = linked_uuid(line->device);
  if (!uuid.empty()) return prefix + ("u" + uuid);
  const std::string derived = derived_number(descriptor);
  return prefix + (derived.empty() ? "d" + line->device : "f" + derived);
}

std::string physical(int descriptor) {
  std::array<char, PATH_MAX> path;
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
  // A path that fills the room may have been cut.
  const bool whole = size > 0 && static_cast<std::size_t>(size) < path.size();
  return whole ? std::string(path.data(), static_cast<std::size_t>(size)) : "";
}

NameRules rules(int directory) {
  constexpr long exfat_magic = 0x2011BAB0;
  struct statfs status {};
  if (::fstatfs(directory, &status) == 0 &&
      (status.f_type == MSDOS_SUPER_MAGIC || status.f_type == exfat_magic))
    return NameRules::folded_dotless;
  int flags = 0;
  const bool folds =
      ::ioctl(directory, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_CASEFOLD_FL) != 0;
  return folds ? NameRules::folded : NameRules::exact;
}

std::optional<std::string> name_key(std::string_view name, NameRules rules) {
  if (rules == NameRules::exact) return std::string(name);
  if (rules == NameRules::folded_dotless) name = name.substr(0, name.find_last_not_of('.') + 1);
  int options = UTF8PROC_STABLE | UTF8PROC_DECOMPOSE;
  // The kernel's own form: decomposed, folded, and without what cannot be seen.
  if (rules != NameRules::composed) options |= UTF8PROC_CASEFOLD | UTF8PROC_IGNORE;
  utf8proc_uint8_t* mapped = nullptr;
  const auto size = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                                 static_cast<utf8proc_ssize_t>(name.size()), &mapped,
                                 static_cast<utf8proc_option_t>(options));
  const std::unique_ptr<utf8proc_uint8_t, Deleter<std::free>> owner(mapped);
  if (size >= 0) return std::string(mapped, mapped + size);
  if (size == UTF8PROC_ERROR_NOMEM) {
    errno = ENOMEM;
    return std::nullopt;
  }
  // A folding folder takes what is no text for nothing but itself.
  return std::string(name);
}

}  // namespace

const VolumeCalls& volume_calls() {
  static const VolumeCalls calls{
      "a local volume of a known file system", mount, identity, physical, rules, name_key};
  return calls;
}

}  // namespace tavro::host
