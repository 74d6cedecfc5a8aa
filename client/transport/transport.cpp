#include "transport/transport.h"

#include "domain/error.h"

namespace tavro {

TransportResponse Transport::get_component(std::string_view component, unsigned long long limit) {
  return get(component, limit);
}

bool Transport::supports_resumption() const { return false; }

void Transport::download_into(std::string_view, AllocatedFile&, unsigned long long, const Progress&,
                              const std::function<void(std::string_view)>&,
                              const std::function<void()>&) {
  fail("download_resume_unsupported", "This transport cannot resume target downloads");
}

}  // namespace tavro
