#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tavro {

/// Hands this process over to another image. `executable` and `directory`, the new working
/// directory, are absolute and no links. `arguments` come after the executable's own name: at most
/// 64, each of 4096 bytes, of 32768 together. The environment is the inherited one, less the names
/// of the dynamic loader (LD_..., DYLD_...), with `environment` on top of it; those names pass when
/// they stand there. Of descriptors only the standard streams pass on, and never the interrupt
/// channel of a parent.
///
/// Returns only by throwing, with the process and its working directory as they were:
/// `process_start`, `argument_limit`, `argument_encoding`, or `process_control` for an environment
/// that names the interrupt channel. The working directory of the whole process changes meanwhile,
/// so no other thread may depend on it. What is buffered for output is the caller's to flush.
[[noreturn]] void replace_process(const std::filesystem::path& executable,
                                  const std::vector<std::string>& arguments,
                                  const std::filesystem::path& directory,
                                  const std::map<std::string, std::string>& environment);

/// The same with the inherited environment whole: the names of the dynamic loader pass too.
[[noreturn]] void exec_process(const std::filesystem::path& executable,
                               const std::vector<std::string>& arguments,
                               const std::filesystem::path& directory,
                               const std::map<std::string, std::string>& environment);

/// Shows a directory, absolute and no link, to the user through the desktop, and returns when the
/// opener has finished; it gets no descriptors but the standard streams, and nothing of it reaches
/// standard output. Throws `location_unavailable` before
/// anything is started, else `desktop_unavailable`.
void open_directory(const std::filesystem::path& path);

}  // namespace tavro
