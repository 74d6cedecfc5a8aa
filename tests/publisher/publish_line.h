#pragma once

#include "platform/files/durable_files.h"
#include "publisher/command.h"
#include "support/testing.h"
#include "transport/transport.h"

namespace tavro {

struct Outcome {
  int status = 0;
  std::string out;
  std::string err;
};

/// Runs tavro-publish with the words between single spaces; "@" stands for the folder.
inline Outcome publish(const std::string& line, const fs::path& folder = {},
                       bool cancelled = false) {
  std::vector<std::string> arguments;
  std::istringstream words(line);
  for (std::string word; words >> word; arguments.push_back(word))
    if (const std::size_t at = word.find('@'); at != std::string::npos)
      word.replace(at, 1, folder.string() + '/');
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int status = run_publish(arguments, [=] { return cancelled; });
  return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

/// A server on the folder itself.
class FolderTransport : public Transport {
 public:
  explicit FolderTransport(fs::path folder) : folder_(std::move(folder)) {}
  TransportResponse get(std::string_view path, unsigned long long limit) override {
    if (!fs::exists(folder_ / path)) return {404, ""};
    return {200, read_file(folder_ / path, limit)};
  }
  void download(std::string_view path, const fs::path& file, unsigned long long length,
                const Progress&) override {
    atomic_private_create(file, read_file(folder_ / path, length));
  }

 private:
  fs::path folder_;
};

}  // namespace tavro
