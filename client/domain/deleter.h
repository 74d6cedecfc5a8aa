#pragma once

namespace tavro {

/// Frees a library's handle: `using EvpKey = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;`
template <auto Free>
struct Deleter {
  void operator()(auto* handle) const noexcept { Free(handle); }
};

}  // namespace tavro
