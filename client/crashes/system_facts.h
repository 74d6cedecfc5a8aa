#pragma once

#include <cstdint>
#include <string>

#include "crashes/redaction.h"
#include "domain/json.h"

namespace tavro {

/// What may help to understand a crash and names neither the player nor the machine. Texts have at
/// most 128 bytes.
struct SystemFacts {
  /// As repositories name it.
  std::string platform;
  /// The kernel's name and release, and the kind of machine.
  std::string system;
  std::string release;
  std::string machine;
  /// 0 where they are not known.
  std::uint64_t processors = 0;
  std::uint64_t memory_bytes = 0;

  static SystemFacts of_this_machine(const Redaction& redaction);

  /// Throws `invalid_state`, or the exceptions of the JSON library.
  static SystemFacts parse(const json& value);
  json to_json() const;

  bool operator==(const SystemFacts&) const = default;
};

}  // namespace tavro
