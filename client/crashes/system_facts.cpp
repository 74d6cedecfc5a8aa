#include "crashes/system_facts.h"

#include <sys/utsname.h>
#include <unistd.h>

#include "domain/error.h"
#include "domain/json_fields.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

constexpr std::size_t most_text = 128;

std::string short_text(const char* text, const Redaction& redaction) {
  return redaction.apply(text).substr(0, most_text);
}

std::uint64_t counted(int name) {
  const long count = ::sysconf(name);
  return count > 0 ? static_cast<std::uint64_t>(count) : 0;
}

std::string read_text(const json& value, const char* key) {
  const std::string& text = text_member(value, key);
  require(text.size() <= most_text, "invalid_state", "A fact of the report is too long");
  return text;
}

}  // namespace

SystemFacts SystemFacts::of_this_machine(const Redaction& redaction) {
  SystemFacts facts;
  facts.platform = native_platform();
  struct utsname names {};
  if (::uname(&names) == 0) {
    facts.system = short_text(names.sysname, redaction);
    facts.release = short_text(names.release, redaction);
    facts.machine = short_text(names.machine, redaction);
  }
  facts.processors = counted(_SC_NPROCESSORS_ONLN);
  facts.memory_bytes = counted(_SC_PHYS_PAGES) * counted(_SC_PAGESIZE);
  return facts;
}

SystemFacts SystemFacts::parse(const json& value) {
  SystemFacts facts;
  facts.platform = read_text(value, "platform");
  facts.system = read_text(value, "system");
  facts.release = read_text(value, "release");
  facts.machine = read_text(value, "machine");
  facts.processors = value.at("processors").get<std::uint64_t>();
  facts.memory_bytes = value.at("memory_bytes").get<std::uint64_t>();
  return facts;
}

json SystemFacts::to_json() const {
  return {{"platform", platform}, {"system", system},         {"release", release},
          {"machine", machine},   {"processors", processors}, {"memory_bytes", memory_bytes}};
}

}  // namespace tavro
