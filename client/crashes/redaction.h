#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// Takes out of a text what tells who and where a player is.
class Redaction {
 public:
  enum class Match {
    /// Wherever it stands, exactly.
    anywhere,
    /// Not inside a longer row of letters and digits; `A` to `Z` count as `a` to `z`.
    as_word,
  };
  struct Secret {
    std::string text;
    std::string replacement;
    Match match = Match::anywhere;
  };

  /// Empty secrets, and a path that is only a separator, count for nothing. Longer ones go first.
  explicit Redaction(std::vector<Secret> secrets);

  /// That of this user: home folders, also as a URL writes them, and the data folder; the user's
  /// names, and that of the machine.
  static Redaction of_this_user(const std::filesystem::path& data_root);

  /// `is_cut` says that the text is the end of a longer one: what its first bytes may be the rest
  /// of goes too. The text need not be UTF-8.
  std::string apply(std::string_view text, bool is_cut = false) const;

 private:
  std::vector<Secret> secrets_;
};

}  // namespace tavro
