// The updates of a data folder, as a launcher makes them, for bench/compare.py to time from
// outside; and the look through a store of downloads beside a bare reading of the same files.

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "domain/crypto.h"
#include "domain/input.h"
#include "download/repository_client.h"
#include "in_turn.h"
#include "launcher/launcher_download.h"
#include "launcher/launcher_store.h"
#include "platform/files/durable_files.h"
#include "platform/storage/storage_volume.h"
#include "transport/https.h"
#include "tuf/tuf.h"

namespace {

using namespace tavro;
namespace fs = std::filesystem;

constexpr int full_store = 32;
constexpr std::size_t document_bytes = 16384;

json stage(const fs::path& root, bool optional) {
  const auto budget = std::make_shared<HttpsBudget>();
  budget->deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  budget->limit = 1 << 20;
  RepositoryClient repository(root, optional ? budget : nullptr);
  return LauncherStore(root).stage(repository.tuf(), {}, {}, optional);
}

/// One unfinished download, as a crash leaves it.
void leave_download(const fs::path& store, int number) {
  const std::string nonce = random_id();
  const std::string target = "release-" + std::to_string(number) + ".tar.zst";
  const std::string temporary = target + "." + nonce + ".partial";
  const fs::path partial = store / "downloads" / temporary;
  atomic_create(partial, std::string(100, 'x'));
  fs::permissions(partial, fs::perms(0600));
  std::array<unsigned long long, 2> node{};
  {
    struct stat status {};
    must(::stat(partial.c_str(), &status) == 0, "partial file");
    node = {status.st_dev, status.st_ino};
  }
  const json authorization = {{"length", 1000}, {"hashes", {{"sha256", digest(target, "sha256")}}}};
  const json reference = {{"manifest_sha256", digest(nonce, "sha256")}, {"build_id", "1.0.0"}};
  const json receipt = {{"schema_version", 1},    {"kind", "tavro-launcher-download"},
                        {"nonce", nonce},         {"target", target},
                        {"temporary", temporary}, {"phase", "prepared"},
                        {"reference", reference}, {"authorization", authorization}};
  const json record = {
      {"schema_version", 1},
      {"kind", "tavro-target-resume"},
      {"target", target},
      {"temporary", temporary},
      {"authorization", authorization},
      {"identity", json::array({node[0], node[1]})},
      {"received", 100},
      {"prefix_sha256", digest(std::string(100, 'x'), "sha256")},
      {"scope_sha256", digest(launcher_download_resume_scope(target, reference), "sha256")}};
  atomic_create(store / "download-intents" / (nonce + ".json"), receipt.dump());
  atomic_create(store / "downloads" / (temporary + ".resume.json"), record.dump());
}

void read_barely(const fs::path& store) {
  for (const char* folder : {"downloads", "download-intents"})
    for (const auto& entry : fs::directory_iterator(store / folder)) {
      if (entry.path().extension() != ".json") continue;
      std::ifstream file(entry.path());
      must(json::parse(file).is_object(), "document");
    }
}

json scan(const fs::path& store) {
  for (const char* folder : {"downloads", "download-intents"}) private_directory(store / folder);
  for (int number = 0; number < full_store; ++number) leave_download(store, number);
  return in_turn(
      50,
      [&] {
        return timed(
            [&] { must(launcher_download_receipts(store).size() == full_store, "all receipts"); });
      },
      [&] { return timed([&] { read_barely(store); }); });
}

}  // namespace

int main(int argc, char** argv) try {
  initialize_client_runtime();
  const std::vector<std::string> words(argv + 1, argv + argc);
  must(words.size() == 2, "usage: tavro-measure-update stage|check|scan FOLDER");
  const bool scans = words[0] == "scan";
  std::cout << (scans ? scan(words[1]) : stage(words[1], words[0] == "check")) << "\n";
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
