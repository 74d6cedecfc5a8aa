// Times operations of the core beside the bare system calls that do the same, in turn, in one
// process. Prints one JSON document; bench/compare.py makes the table.

#include <fcntl.h>
#include <malloc.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "documents/manifest.h"
#include "domain/crypto.h"
#include "domain/input.h"
#include "domain/json.h"
#include "domain/unique_fd.h"
#include "in_turn.h"
#include "platform/archives/snapshot.h"
#include "platform/files/durable_files.h"

namespace {

using namespace tavro;

/// What a careful program writes by hand for a document that a crash must not tear.
void bare_document(const std::string& folder, const std::string& name, const std::string& bytes) {
  const std::string path = folder + "/" + name, temporary = path + ".tmp";
  UniqueFd file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  must(bool(file), "bare open");
  must(write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
       "bare write");
  must(fsync(file.get()) == 0, "bare fsync");
  file.reset();
  must(rename(temporary.c_str(), path.c_str()) == 0, "bare rename");
  UniqueFd parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  must(parent && fsync(parent.get()) == 0, "bare folder sync");
}

json atomic_document(const std::string& folder, int rounds) {
  must(mkdir(folder.c_str(), 0700) == 0, "new folder");
  const std::string bytes(700, 'x');
  return in_turn(
      rounds, [&] { return timed([&] { atomic_write(folder + "/ours.json", bytes); }); },
      [&] { return timed([&] { bare_document(folder, "bare.json", bytes); }); });
}

void run(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const auto& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  must(child >= 0, "fork");
  if (child == 0) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, 1);
    dup2(null, 2);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  int status = 0;
  must(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0,
       "command");
}

long memory_kib(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word)
    if (word == name) {
      long kib = 0;
      status >> kib;
      return kib;
    }
  return 0;
}

std::string manifest_text(std::size_t files) {
  json list = json::array();
  const std::string hash(64, 'a');
  unsigned long long total = 0;
  for (std::size_t i = 0; i < files; ++i) {
    const std::string path =
        i == 0 ? "bin/run"
               : "data/folder-" + std::to_string(i / 100) + "/file-" + std::to_string(i) + ".bin";
    list.push_back({{"path", path}, {"length", i}, {"mode", i == 0 ? 493 : 420}, {"sha256", hash}});
    total += i;
  }
  const json document = {
      {"schema_version", 1},
      {"build_id", "bench-1"},
      {"platform", "linux-x86_64"},
      {"executable", "bin/run"},
      {"archive",
       {{"format", "tar.zst-v1"}, {"target", "bench.tar.zst"}, {"length", 1}, {"sha256", hash}}},
      {"files", list},
      {"expanded_length", total}};
  return document.dump();
}

/// Time and memory of reading one manifest, beyond its text.
json manifest(std::size_t files) {
  const std::string text = manifest_text(files);
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts anew
  const long before = memory_kib("VmRSS:");
  std::vector<double> times;
  for (int round = 0; round < 5; ++round)
    times.push_back(timed([&] {
      const auto parsed = SnapshotManifest::parse(parse_json(text, text.size()));
      must(parsed.files.size() == files, "manifest");
    }));
  return {{"files", files},
          {"bytes", text.size()},
          {"ms", median({times.begin() + 1, times.end()})},
          {"peak_kib_above_text", memory_kib("VmHWM:") - before}};
}

/// status of an installed folder beside the start of an empty program.
json commands(int rounds, const std::vector<std::string>& ours,
              const std::vector<std::string>& bare) {
  return in_turn(
      rounds, [&] { return timed([&] { run(ours); }); }, [&] { return timed([&] { run(bare); }); });
}

void verify(const std::string& manifest_file, const std::string& tree) {
  const std::string text = read_file(manifest_file, 16u << 20);
  json document = parse_json(text, text.size());
  if (document.contains("snapshot")) document = document["snapshot"];
  verify_snapshot_tree(SnapshotManifest::parse(document), tree, nullptr);
}

int measure(const std::vector<std::string>& words) {
  must(!words.empty(),
       "usage: tavro-measure atomic-document FOLDER ROUNDS | manifest FILES | verify MANIFEST TREE "
       "| commands ROUNDS COMMAND... -- COMMAND...");
  const auto number = [&](std::size_t at) { return std::stoi(words.at(at)); };
  if (words[0] == "atomic-document") {
    std::cout << atomic_document(words.at(1), number(2)) << "\n";
  } else if (words[0] == "manifest") {
    std::cout << manifest(static_cast<std::size_t>(number(1))) << "\n";
  } else if (words[0] == "verify") {
    verify(words.at(1), words.at(2));
  } else if (words[0] == "commands") {
    const auto border = std::find(words.begin(), words.end(), "--");
    must(border != words.end(), "two commands, -- between them");
    std::cout << commands(number(1), {words.begin() + 2, border}, {border + 1, words.end()})
              << "\n";
  } else {
    must(false, "unknown measurement");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  return measure({argv + 1, argv + argc});
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
