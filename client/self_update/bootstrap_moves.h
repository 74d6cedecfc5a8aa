#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "documents/manifest.h"
#include "installation/bootstrap_paths.h"

namespace tavro {

/// The files of a bootstrap update on their way into the installed tree, and back.
///
/// A file that is replaced gets a second name first, its own with ".old"; then the new one takes
/// its place in one rename. So a name of the installed tree is never without a file while one goes
/// for another, and nothing of the old tree is gone before the update is committed. The entry point
/// comes after all that it may need, and only then what the update no longer holds is set aside,
/// unless it is in the way of a new file: so neither entry point is left without a file that its
/// release alone has. The way back is the same in reverse.
///
/// A run can be cut off anywhere among the moves, even while it takes them back, and the list of
/// what it did ends with it. The next run finds out from the disk what had been done, and counts it
/// among its own moves: what it takes back is all of the update, whoever moved it. It goes by this:
///
/// - A staged file is gone, or shares its place with the installed one: it was moved. If a file
///   ".old" stands beside it, that is what it replaced and what must return, unless only the
///   installed file is as the old manifest says. Otherwise, if the installed file has the update's
///   digest and not the one in the old manifest, it is new and must go.
/// - A file of the old manifest is missing and has a ".old": it was set aside and must return.
/// - Where a file can have only one name, or the disk is too full for another, two names are
///   exchanged in one step and the other one moves on in a second: a staged name that holds the old
///   file, or a ".old" that holds the staged one, is between the two, and the second step follows.
/// - An update whose descriptor cannot be read is known by nothing: then a ".old" returns that is
///   proved to be a file of the old manifest in whose place something else stands.
///
/// Without a readable old manifest no file is taken for new. What fits none of this stays as it is.
class BootstrapMoves {
 public:
  using Inventory = std::map<std::string, PackageFile>;

  /// What an undo is for: an update that waits keeps every staged file, and one that is given up
  /// brings every old file back, with or without them.
  enum class Undo { for_later, for_good };

  /// What becomes of an exchange that was cut off, and of links in the staged tree. An exchange
  /// that is left counts as no move yet.
  enum class Exchanges { completed, left };

  /// Finds what earlier runs have moved, and completes an exchange that was cut off: `file_write`
  /// when it cannot. `update` is nothing for a descriptor that cannot be read,
  /// `working` for a working bootstrap without a manifest. The paths must outlive the object.
  BootstrapMoves(const BootstrapPaths& paths, const std::optional<SnapshotManifest>& update,
                 const std::optional<SnapshotManifest>& working, Exchanges exchanges);

  /// Whether anything of the update is in the installed tree.
  bool begun() const noexcept { return !moves_.empty(); }

  /// A link in the staged tree that a file would come through, or nothing.
  std::filesystem::path staged_link() const;

  /// Moves what is still staged, and sets aside what the update no longer holds. Throws
  /// `file_write`, `file_remove` or what `private_directory` throws; the moves so far are kept.
  void put_in_place();

  /// Takes all moves back, the last one first, and passes over each that fails. Only an update that
  /// waits stays moved in as far as its entry point needs it, when that cannot go back or would
  /// miss a file of its own there. True when nothing of the update is left in the installed tree.
  bool undo(Undo undo) noexcept;

  /// Makes the names of both inventories durable. Throws `file_sync`.
  void synchronize() const;

 private:
  /// One move that has been done. A name that does not matter is empty: the staged file's when one
  /// was only set aside, the replaced file's when nothing stood there.
  struct Move {
    std::filesystem::path staged;
    std::filesystem::path target;
    std::filesystem::path aside;
  };

  /// No file may move from where a link leads: it goes, so that what is behind it counts as
  /// missing.
  void remove_staged_links() const;
  Move places(const std::string& path) const;
  /// Whether a ".old" beside a missing file can be that file, and not one left from an update
  /// before: such a one is a file of the old manifest, or a folder that made way for the file.
  bool may_return(const std::string& path, const std::filesystem::path& aside) const;
  /// The move of this file by an earlier run.
  std::optional<Move> earlier_move(const std::string& path) const;
  std::vector<Move> earlier_moves() const;
  void complete_exchanges() const;
  void set_aside(const std::string& path);
  void move_in(const std::string& path);
  /// Puts the staged file where the old one is, which keeps its second name.
  static void replace(const Move& move);
  /// Gives the file in place its staged name again. `restored` when the old file stands in its
  /// place since.
  static void restage(const Move& move, bool& restored);
  static void take_back(const Move& move, Undo undo);

  const BootstrapPaths& paths_;
  Inventory update_;
  Inventory working_;
  bool knows_working_;
  /// Where the entry point of the update goes.
  std::filesystem::path entry_;
  /// All paths in the order of their moves.
  std::vector<std::string> order_;
  std::vector<Move> moves_;
};

/// Whether an ordinary file with this length and digest stands at the path; what cannot be read
/// does not.
bool holds_file(const std::filesystem::path& path, const PackageFile& declared) noexcept;

}  // namespace tavro
