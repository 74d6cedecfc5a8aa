// Times the check of a theme beside reading its files with bare calls. Prints one JSON document;
// bench/compare.py makes the table.

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <memory>

#include "documents/theme_definition.h"
#include "in_turn.h"

namespace {

using namespace tavro;
namespace fs = std::filesystem;

constexpr int checks_a_round = 50;

/// As whoever only wants the bytes writes it.
void read_bare(const fs::path& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  must(file >= 0 && ::fstat(file, &status) == 0, "open");
  const auto size = static_cast<std::size_t>(status.st_size);
  const std::unique_ptr<char[]> bytes(new char[size]);
  must(::read(file, bytes.get(), size) == status.st_size, "read");
  ::close(file);
}

}  // namespace

int main(int argc, char** argv) try {
  must(argc == 3, "usage: tavro-measure-theme ROUNDS FOLDER");
  const fs::path folder = argv[2];
  const auto ours = [&] {
    for (int i = 0; i < checks_a_round; ++i) must(load_theme(folder).has_value(), "theme");
  };
  const auto bare = [&] {
    for (int i = 0; i < checks_a_round; ++i)
      for (const auto& entry : fs::directory_iterator(folder)) read_bare(entry.path());
  };
  std::cout << in_turn(
                   std::stoi(argv[1]), [&] { return timed(ours); }, [&] { return timed(bare); })
            << "\n";
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
