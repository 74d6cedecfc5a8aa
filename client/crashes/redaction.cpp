#include "crashes/redaction.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "domain/input.h"
#include "domain/relative_path.h"
#include "transport/https.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using Match = Redaction::Match;
using Secret = Redaction::Secret;

constexpr char user_mark[] = "<user>";
constexpr char machine_mark[] = "<machine>";
constexpr std::size_t most_path = 8192;

bool is_word_byte(char byte) {
  const char folded = case_folded(byte);
  return (folded >= 'a' && folded <= 'z') || (byte >= '0' && byte <= '9');
}

bool stands_alone(std::string_view text, std::size_t at, std::size_t size) {
  const bool before = at > 0 && is_word_byte(text[at - 1]);
  const bool behind = at + size < text.size() && is_word_byte(text[at + size]);
  return !before && !behind;
}

/// `text` comes with its folded form, in which words are looked for.
std::string without(const std::string& text, const Secret& secret) {
  const bool word = secret.match == Match::as_word;
  const std::string folded = word ? case_folded(text) : std::string();
  const std::string& searched = word ? folded : text;
  const std::string needle = word ? case_folded(secret.text) : secret.text;
  std::string result;
  std::size_t done = 0;
  for (std::size_t at = searched.find(needle); at != std::string::npos;
       at = searched.find(needle, at)) {
    if (word && !stands_alone(text, at, needle.size())) {
      ++at;
      continue;
    }
    result.append(text, done, at - done).append(secret.replacement);
    at += needle.size();
    done = at;
  }
  return result.append(text, done);
}

/// How many of the first bytes may be the rest of this secret.
std::size_t rest_of(std::string_view text, const Secret& secret) {
  for (std::size_t size = std::min(text.size(), secret.text.size() - 1); size > 0; --size) {
    const std::string_view rest = std::string_view(secret.text).substr(secret.text.size() - size);
    if (case_folded(text.substr(0, size)) == case_folded(rest)) return size;
  }
  return 0;
}

void add_path(std::vector<Secret>& secrets, const fs::path& folder, const char* mark) {
  std::string text = path_utf8(folder);
  while (text.size() > 1 && text.ends_with('/')) text.pop_back();
  if (text.size() < 2) return;
  secrets.push_back({text, mark});
  secrets.push_back({quote_url(text, true), mark});
}

/// Under the name it was given, and under the one that the system tells.
void add_folder(std::vector<Secret>& secrets, const fs::path& folder, const char* mark) {
  add_path(secrets, folder, mark);
  std::error_code unknown;
  const fs::path real = fs::canonical(folder, unknown);
  if (!unknown) add_path(secrets, real, mark);
}

void add_home(std::vector<Secret>& secrets, const std::string& home) {
  add_folder(secrets, home, "~");
  // Often the user's name in another form.
  secrets.push_back({path_utf8(fs::path(home).filename()), user_mark, Match::as_word});
}

void add_account(std::vector<Secret>& secrets) {
  std::array<char, 16384> buffer{};
  struct passwd account {};
  struct passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &account, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr)
    return;
  add_home(secrets, account.pw_dir);
  secrets.push_back({account.pw_name, user_mark, Match::as_word});
  const std::string_view remark = account.pw_gecos == nullptr ? "" : account.pw_gecos;
  secrets.push_back({std::string(remark.substr(0, remark.find(','))), user_mark, Match::as_word});
}

void add_machine(std::vector<Secret>& secrets) {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return;
  const std::string full = name.data();
  if (full == "localhost") return;
  secrets.push_back({full, machine_mark, Match::as_word});
  secrets.push_back({full.substr(0, full.find('.')), machine_mark, Match::as_word});
}

}  // namespace

Redaction::Redaction(std::vector<Secret> secrets) : secrets_(std::move(secrets)) {
  std::erase_if(secrets_,
                [](const Secret& secret) { return secret.text.empty() || secret.text == "/"; });
  std::stable_sort(secrets_.begin(), secrets_.end(), [](const Secret& left, const Secret& right) {
    return left.text.size() > right.text.size();
  });
}

Redaction Redaction::of_this_user(const fs::path& data_root) {
  std::vector<Secret> secrets;
  add_folder(secrets, data_root, "<data>");
  const std::string home = process_environment("HOME", most_path);
  if (!home.empty()) add_home(secrets, home);
  add_account(secrets);
  add_machine(secrets);
  return Redaction(std::move(secrets));
}

std::string Redaction::apply(std::string_view text, bool is_cut) const {
  std::string result(text);
  for (const Secret& secret : secrets_) result = without(result, secret);
  if (!is_cut) return result;
  std::size_t rest = 0;
  for (const Secret& secret : secrets_) rest = std::max(rest, rest_of(result, secret));
  return result.substr(rest);
}

}  // namespace tavro
