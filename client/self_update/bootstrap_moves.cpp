#include "self_update/bootstrap_moves.h"

#include <fcntl.h>

#include <algorithm>
#include <exception>
#include <set>
#include <system_error>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/relative_path.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/files/running_files.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

bool is_directory_itself(const fs::path& path) noexcept {
  std::error_code ignored;
  return fs::is_directory(fs::symlink_status(path, ignored));
}

bool is_file_itself(const fs::path& path) noexcept {
  std::error_code ignored;
  return fs::is_regular_file(fs::symlink_status(path, ignored));
}

bool same_file(const fs::path& left, const fs::path& right) {
  const auto one = posix_files::node_at(left);
  const auto other = posix_files::node_at(right);
  return one && other && posix_files::same_node(*one, *other);
}

/// The first link on the way from `root`, itself included, to a file in it; empty without one.
fs::path link_on_way(const fs::path& root, const fs::path& file) {
  fs::path walked = root;
  const auto is_link = [&] {
    const auto node = posix_files::node_at(walked);
    return node && S_ISLNK(node->st_mode);
  };
  for (const auto& name : file) {
    if (is_link()) return walked;
    walked /= name;
  }
  return is_link() ? walked : fs::path();
}

bool give_name(const fs::path& file, const fs::path& name) {
  return retried([&] { return system_calls().link(file.c_str(), name.c_str()); }) == 0;
}

/// Whether the inventory has the path, with the content of the file.
bool lists(const BootstrapMoves::Inventory& inventory, const std::string& path,
           const fs::path& file) {
  const auto entry = inventory.find(path);
  return entry != inventory.end() && holds_file(file, entry->second);
}

/// The names that an inventory takes, without case, as a volume may compare them.
class TakenNames {
 public:
  explicit TakenNames(const BootstrapMoves::Inventory& inventory) {
    for (const auto& [path, file] : inventory) {
      std::string name = case_folded(path);
      files_.insert(name);
      while (to_parent(name)) folders_.insert(name);
    }
  }

  /// Whether the path must make way: it is a file or folder there, or lies where a file is to be.
  bool take(const std::string& path) const {
    std::string name = case_folded(path);
    if (folders_.contains(name)) return true;
    do {
      if (files_.contains(name)) return true;
    } while (to_parent(name));
    return false;
  }

 private:
  static bool to_parent(std::string& name) {
    const auto end = name.rfind('/');
    if (end != name.npos) name.resize(end);
    return end != name.npos;
  }

  std::set<std::string> files_;
  std::set<std::string> folders_;
};

/// Gives what is about to be replaced its second name; false where it can have only one.
bool keep_aside(const fs::path& target, const fs::path& aside) {
  if (same_file(target, aside)) return true;
  // The staged file is here still, so that this name is left from an earlier update.
  native_files::remove_or_trash(aside, {});
  return give_name(target, aside);
}

bool exchange(const fs::path& left, const fs::path& right) {
  return retried([&] {
           return host::exchange_names(AT_FDCWD, left.c_str(), AT_FDCWD, right.c_str());
         }) == 0;
}

}  // namespace

bool holds_file(const fs::path& path, const PackageFile& declared) noexcept {
  try {
    return is_file_itself(path) && fs::file_size(path) == declared.length &&
           digest_file(path, "sha256") == declared.sha256;
  } catch (const std::exception&) {
    return false;
  }
}

BootstrapMoves::BootstrapMoves(const BootstrapPaths& paths,
                               const std::optional<SnapshotManifest>& update,
                               const std::optional<SnapshotManifest>& working, Exchanges exchanges)
    : paths_(paths),
      update_(update ? update->files : Inventory()),
      working_(working ? working->files : Inventory()),
      knows_working_(working.has_value()) {
  const TakenNames taken(update_);
  std::vector<std::string> unneeded;
  for (const auto& [path, file] : working_)
    if (!update_.contains(path)) (taken.take(path) ? order_ : unneeded).push_back(path);
  for (const auto& [path, file] : update_)
    if (path != update->executable) order_.push_back(path);
  if (update) {
    order_.push_back(update->executable);
    entry_ = places(update->executable).target;
  }
  // Only now: until the new entry point is in place, the old one may need them.
  order_.insert(order_.end(), unneeded.begin(), unneeded.end());
  // Nor may one move to where a link of the installed tree leads.
  std::erase_if(order_, [&](const fs::path& path) {
    return !link_on_way(paths_.installed, path.parent_path()).empty();
  });
  if (exchanges == Exchanges::completed) {
    remove_staged_links();
    complete_exchanges();
  }
  moves_ = earlier_moves();
}

fs::path BootstrapMoves::staged_link() const {
  for (const auto& [path, file] : update_)
    if (auto link = link_on_way(paths_.update, path); !link.empty()) return link;
  return {};
}

void BootstrapMoves::remove_staged_links() const {
  for (const auto& [path, file] : update_)
    if (const auto link = link_on_way(paths_.update, path); !link.empty())
      native_files::remove_or_trash(link, {});
}

BootstrapMoves::Move BootstrapMoves::places(const std::string& path) const {
  return {paths_.update / path, paths_.installed / path,
          paths_.installed / (path + replaced_extension)};
}

bool BootstrapMoves::may_return(const std::string& path, const fs::path& aside) const {
  return !knows_working_ || working_.contains(path) || is_directory_itself(aside);
}

std::optional<BootstrapMoves::Move> BootstrapMoves::earlier_move(const std::string& path) const {
  const Move move = places(path);
  const bool has_aside = stands(move.aside);
  if (!is_file_itself(move.target)) {
    if (!has_aside || !may_return(path, move.aside)) return std::nullopt;
    return Move{{}, move.target, move.aside};
  }
  const bool moved = !stands(move.staged) || same_file(move.staged, move.target);
  if (!moved) return std::nullopt;
  const bool target_is_old = lists(working_, path, move.target);
  if (has_aside) {
    const bool aside_is_old = lists(working_, path, move.aside);
    const bool replaced =
        update_.contains(path) ? aside_is_old || !target_is_old : aside_is_old && !target_is_old;
    return replaced ? std::optional(move) : std::nullopt;
  }
  const bool is_new = knows_working_ && !target_is_old && lists(update_, path, move.target);
  return is_new ? std::optional(Move{move.staged, move.target, {}}) : std::nullopt;
}

void BootstrapMoves::complete_exchanges() const {
  for (const auto& path : order_) {
    const Move move = places(path);
    if (!update_.contains(path) || !working_.contains(path) || !is_file_itself(move.target))
      continue;
    const auto is_new = [&](const fs::path& place) {
      return lists(update_, path, place) && !lists(working_, path, place);
    };
    const auto is_old = [&](const fs::path& place) {
      return lists(working_, path, place) && !lists(update_, path, place);
    };
    if (!stands(move.staged) && is_old(move.target) && is_new(move.aside))
      native_files::rename_replace(move.aside, move.staged);
    else if (is_old(move.staged) && is_new(move.target))
      native_files::rename_replace(move.staged, move.aside);
  }
}

std::vector<BootstrapMoves::Move> BootstrapMoves::earlier_moves() const {
  std::vector<Move> moves;
  for (const auto& path : order_)
    if (const auto move = earlier_move(path)) moves.push_back(*move);
  return moves;
}

void BootstrapMoves::set_aside(const std::string& path) {
  const Move move = places(path);
  // A folder here belongs to the update, whose files have moved in before.
  if (!stands(move.target) || is_directory_itself(move.target)) return;
  native_files::rename_replace(move.target, move.aside);
  moves_.push_back({{}, move.target, move.aside});
}

void BootstrapMoves::move_in(const std::string& path) {
  Move move = places(path);
  if (!stands(move.staged)) return;
  if (same_file(move.staged, move.target)) {
    // It stands in both places since an earlier run took back half of the move. A rename of one
    // name to the other would do nothing.
    native_files::remove_or_trash(move.staged, {});
    return;
  }
  private_directory(move.target.parent_path());
  if (stands(move.target)) {
    replace(move);
  } else {
    if (!may_return(path, move.aside)) native_files::remove_or_trash(move.aside, {});
    native_files::rename_replace(move.staged, move.target);
  }
  if (!stands(move.aside)) move.aside.clear();
  moves_.push_back(move);
}

void BootstrapMoves::put_in_place() {
  for (const auto& path : order_) update_.contains(path) ? move_in(path) : set_aside(path);
}

void BootstrapMoves::replace(const Move& move) {
  if (keep_aside(move.target, move.aside))
    return native_files::rename_replace(move.staged, move.target);
  if (is_file_itself(move.target) && exchange(move.staged, move.target))
    return native_files::rename_replace(move.staged, move.aside);
  // A folder that makes way for a file, or a file system that knows neither.
  native_files::rename_replace(move.target, move.aside);
  native_files::rename_replace(move.staged, move.target);
}

void BootstrapMoves::restage(const Move& move, bool& restored) {
  private_directory(move.staged.parent_path());
  if (same_file(move.target, move.staged) || give_name(move.target, move.staged)) return;
  const bool replaced_file = is_file_itself(move.aside);
  restored = replaced_file && exchange(move.target, move.aside);
  require(restored || !replaced_file, "file_write",
          [&] { return "Cannot move " + path_utf8(move.target) + " back"; });
  native_files::rename_replace(restored ? move.aside : move.target, move.staged);
}

void BootstrapMoves::take_back(const Move& move, Undo undo) {
  bool restored = false;
  try {
    if (!move.staged.empty()) restage(move, restored);
  } catch (const std::exception&) {
    if (undo == Undo::for_later) throw;
    // What is given up needs no staged copy.
  }
  if (restored) return;
  if (move.aside.empty()) {
    native_files::remove_or_trash(move.target, {});
    return;
  }
  // A folder for a file, or a file for a folder; of folders only an empty one can go.
  if (is_directory_itself(move.target) != is_directory_itself(move.aside))
    native_files::remove_or_trash(move.target, {});
  native_files::rename_replace(move.aside, move.target);
}

bool BootstrapMoves::undo(Undo undo) noexcept {
  // A file may show itself as moved only once what had taken its folder's place is back.
  for (int round = 0; round < 2 && !moves_.empty(); ++round) {
    bool stuck = false;
    bool entry_stays = std::any_of(moves_.begin(), moves_.end(),
                                   [&](const Move& move) { return move.target == entry_; });
    for (auto move = moves_.rbegin(); move != moves_.rend() && !stuck; ++move) {
      try {
        take_back(*move, undo);
        if (move->target == entry_) entry_stays = false;
      } catch (const std::exception&) {
        // What does not return is found below. A new entry point that is to stay keeps its files,
        // and so is the tree as a run that was cut off leaves it.
        stuck = undo == Undo::for_later && entry_stays;
      }
    }
    moves_ = earlier_moves();
    if (stuck) break;
  }
  return moves_.empty();
}

void BootstrapMoves::synchronize() const {
  std::set<fs::path> folders;
  for (const auto& path : order_)
    for (fs::path folder = fs::path(path).parent_path(); folders.insert(folder).second;)
      folder = folder.parent_path();
  for (const auto& folder : folders)
    if (is_directory_itself(paths_.installed / folder)) sync_directory(paths_.installed / folder);
}

}  // namespace tavro
