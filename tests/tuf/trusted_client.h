#pragma once

#include "platform/storage/allocated_file.h"
#include "support/signed_repository.h"
#include "support/testing.h"
#include "transport/download_response.h"
#include "tuf/tuf.h"

namespace tavro {

inline constexpr const char* kNow = "2030-01-01T00:00:00Z";

/// A trust folder with the repository's first root, and a client over it at will.
struct TrustedClient {
  SignedRepository repository;
  TempFolder folder;
  std::filesystem::path trust = folder.path() / "trust";
  TufLimits limits{65536, 16384, 65536, 8, 8};
  TufTime now = parse_tuf_time(kNow);
  std::optional<TufClient> client;

  TrustedClient() { TufClient::initialize(trust, repository.root_bytes()); }

  /// Opens the folder anew, as the next process would.
  TufClient& reopen() { return reopen(repository); }
  TufClient& reopen(Transport& targets) {
    client.reset();
    repository.requests.clear();
    return client.emplace(trust, repository, targets, limits, [this] { return now; });
  }
  std::string refresh_code() {
    return code_of([&] { reopen().refresh(); });
  }

  /// What the folder holds, by file name.
  std::map<std::string, std::string> stored() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(trust))
      files[entry.path().filename()] = read_file(entry.path(), 1048576);
    files.erase(".lock");
    return files;
  }
};

/// A server of targets that answers as it is told to.
struct TargetServer : Transport {
  std::string content;
  bool ranges = true;      ///< whether it honours a range
  std::size_t sends = -1;  ///< bytes of the body before it ends
  std::function<void(std::size_t sent)> meanwhile = [](std::size_t) {};
  std::vector<unsigned long long> offsets;  ///< one a request

  TransportResponse get(std::string_view, unsigned long long) override { return {404, ""}; }
  bool supports_resumption() const override { return true; }
  void download(std::string_view, const std::filesystem::path& to, unsigned long long size,
                const Progress&) override {
    AllocatedFile file(to, size, {});
    file.write(content);
    meanwhile(content.size());
    file.finish(false);
  }
  void download_into(std::string_view, AllocatedFile& file, unsigned long long offset,
                     const Progress& progress,
                     const std::function<void(std::string_view)>& on_bytes,
                     const std::function<void()>& on_restart) override {
    offsets.push_back(offset);
    const auto size = file.reservation().size;
    DownloadResponseHeaders headers(size, offset, true);
    const bool partial = offset != 0 && ranges;
    headers.line(partial ? "HTTP/1.1 206\n" : "HTTP/1.1 200\n");
    if (partial)
      headers.line("content-range: bytes " + std::to_string(offset) + '-' +
                   std::to_string(size - 1) + '/' + std::to_string(size) + '\n');
    headers.line("\n");
    if (!partial && offset != 0) file.restart(), on_restart();
    const std::size_t end = std::min(content.size(), sends);
    for (std::size_t at = headers.start(); at < end; at += kStreamBlock) {
      const std::string_view block(content.data() + at, std::min(kStreamBlock, end - at));
      headers.body(block.size());
      file.write(block);
      on_bytes(block);
      require(!progress || progress(at, size), "cancelled", "");
      meanwhile(at + block.size());
    }
    if (end < content.size()) fail("network", "cut");
    headers.finish();
  }
};

}  // namespace tavro
