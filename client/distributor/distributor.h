#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "documents/agreements.h"
#include "documents/crash_service.h"
#include "documents/notices.h"
#include "documents/service_status.h"

namespace tavro {

class TufClient;

/// What was known of a document at a time.
template <typename Document>
struct Told {
  /// Nothing when the distributor published none.
  std::optional<Document> document{};
  /// Seconds since 1970.
  std::uint64_t fetched = 0;
  /// It was not asked for just now.
  bool is_cached = false;

  /// Seconds; 0 for a clock that was put back since.
  std::uint64_t age(std::uint64_t now) const { return now > fetched ? now - fetched : 0; }
};

/// What the distributor of a data folder tells its players. Each document is a signed target of the
/// repository, and optional. The last one that was fetched is kept below `service`, for those who
/// ask without the network; it was proved when it came, and lies in a private folder.
///
/// `Document` is one of `Notices`, `ServiceStatus`, `Agreements` and `CrashService`.
class Distributor {
 public:
  /// Touches nothing. Throws `unsafe_path` and `native_install_incomplete`.
  explicit Distributor(const std::filesystem::path& data_root);

  /// What the repository says now. After a failure what was kept stays. Throws `busy` while another
  /// process of this folder asks, `size_limit` before a byte is taken, and the codes of
  /// `Document::parse` and of the client.
  template <typename Document>
  Told<Document> fetch(TufClient& tuf) const;

  /// What was fetched last; nothing when nothing ever was. Throws the codes of `Document::parse`,
  /// and `invalid_state` for a damaged file, which the next `fetch` replaces.
  template <typename Document>
  std::optional<Told<Document>> cached() const;

  /// `fetch` with a client that reaches its repository, `cached` without one (null) and when the
  /// network fails; nothing when there is neither. What was signed wrongly is an error all the
  /// same.
  template <typename Document>
  std::optional<Told<Document>> known(TufClient* tuf) const;

  /// The text of an agreement, proved by its digest. It is kept too, so that a client without the
  /// network (null) can show it again. Throws `agreement_text_missing` when it is not at hand,
  /// `content_mismatch`, `invalid_service_document` for control characters, and as `fetch`.
  std::string text_of(const Agreement& agreement, TufClient* tuf) const;

 private:
  std::optional<std::string> fetch_bytes(const std::string& target, std::size_t most,
                                         TufClient& tuf) const;

  std::filesystem::path folder_;
};

/// Seconds since 1970.
std::uint64_t distributor_clock();

/// Whether the failure says that the network or the server did not answer, and nothing of what they
/// answered.
bool is_out_of_reach(const std::string& code);

}  // namespace tavro
