// Times what a client does with a repository's metadata beside the bare libraries, in one process.
// Prints one JSON document; bench/compare.py makes the table.

#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <vector>

#include "domain/crypto.h"
#include "domain/deleter.h"
#include "domain/error.h"
#include "support/signed_repository.h"
#include "tuf/client_limits.h"
#include "tuf/threshold.h"
#include "tuf/tuf.h"

namespace {

using namespace tavro;

double cpu_ms() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

template <typename Work>
double median_ms(int rounds, Work&& work) {
  std::vector<double> times;
  for (int round = 0; round <= rounds; ++round) {
    const double start = cpu_ms();
    work(round);
    if (round > 0) times.push_back(cpu_ms() - start);  // the first one only warms the machine
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

void must(bool condition, const char* what) { require(condition, "measure", what); }

/// The target that is looked for is listed by the last of the delegated roles, and all select it.
SignedRepository make_repository(std::size_t roles, std::size_t bytes) {
  SignedRepository repository;
  for (std::size_t i = 0; repository.targets.dump().size() < bytes; ++i)
    for (std::size_t k = 0; k < 100; ++k)
      repository.add_target(repository.targets, "data/file-" + std::to_string(i * 100 + k), "x");
  for (std::size_t i = 0; i < roles; ++i)
    repository.delegate(repository.targets, "role-" + std::to_string(i), {{"paths", {"x/*"}}});
  repository.add_target(repository.delegated.at("role-" + std::to_string(roles - 1)), "x/a", "x");
  repository.publish_update();
  return repository;
}

/// One document as the bare libraries take it.
struct Signed {
  std::string bytes, message;
  std::vector<unsigned char> signature;
  std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>> key;
};

std::vector<Signed> documents(const SignedRepository& repository,
                              const std::vector<std::string>& names) {
  std::vector<Signed> all;
  for (const std::string& name : names) {
    const auto file = repository.files.find(name);
    if (file == repository.files.end()) continue;
    const json document = json::parse(file->second.body);
    const std::string role = name.substr(name.find('.') == 1 ? 2 : 0);
    const auto signer = repository.signers.at(role.substr(0, role.rfind('.'))).at(0);
    const json record = SignedRepository::key(signer).record();
    const auto raw = unhex(record["keyval"]["public"].get<std::string>(), 64);
    Signed bare{file->second.body, canonical_json(document["signed"]),
                unhex(document["signatures"][0]["sig"].get<std::string>(), 128), nullptr};
    bare.key.reset(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw.data(), raw.size()));
    must(bare.key != nullptr, "Ed25519 keys");
    all.push_back(std::move(bare));
  }
  return all;
}

void take_barely(const Signed& document) {
  const json parsed = json::parse(document.bytes);
  unsigned char hash[EVP_MAX_MD_SIZE];
  must(parsed.is_object() && EVP_Digest(document.bytes.data(), document.bytes.size(), hash, nullptr,
                                        EVP_sha256(), nullptr) == 1,
       "parse and hash");
  const std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
  const auto* message = reinterpret_cast<const unsigned char*>(document.message.data());
  must(EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, document.key.get()) == 1 &&
           EVP_DigestVerify(context.get(), document.signature.data(), document.signature.size(),
                            message, document.message.size()) == 1,
       "signature");
}

/// A refresh and look-up through all roles: at first, when every document is stored durably, and
/// from stored ones.
json metadata(const std::filesystem::path& folder, std::size_t roles, std::size_t bytes) {
  SignedRepository repository = make_repository(roles, bytes);
  const auto look_up = [&](const std::filesystem::path& trust) {
    TufClient tuf(trust, repository, repository, client_limits, std::chrono::system_clock::now);
    must(tuf.target("x/a").at("length") == 1, "look-up");
  };
  const double first = median_ms(9, [&](int round) {
    repository.requests.clear();
    const auto trust = folder / std::to_string(round);
    TufClient::initialize(trust, repository.root_bytes());
    look_up(trust);
  });
  const auto taken = documents(repository, repository.requests);
  must(taken.size() == roles + 3, "every document once");
  const double again = median_ms(9, [&](int) { look_up(folder / "0"); });
  const double bare = median_ms(9, [&](int) { std::ranges::for_each(taken, take_barely); });
  std::size_t total = 0;
  for (const Signed& document : taken) total += document.bytes.size();
  return {{"roles", roles},
          {"bytes", total},
          {"first_ms", first},
          {"again_ms", again},
          {"bare_ms", bare},
          {"first_ratio", first / bare},
          {"again_ratio", again / bare}};
}

/// The longest pattern and path that are taken, for each kind of element; the slowest counts.
json pattern() {
  const std::string path(4096, 'a');
  std::string stars, classes = "[" + std::string(4094, 'b') + "]", ranges;
  while (stars.size() < 4096) stars += "*a";
  while (ranges.size() + 6 <= 4096) ranges += "[!b-c]";
  double slowest = 0;
  for (const std::string& text :
       {std::string(4096, '*'), stars, std::string(4096, '?'), classes, ranges})
    slowest = std::max(slowest, median_ms(9, [&](int) { path_pattern_matches(text, path); }));
  return {{"ms", slowest}};
}

int measure(const std::vector<std::string>& words) {
  must(!words.empty(), "usage: tavro-measure-repository metadata FOLDER ROLES BYTES | pattern");
  std::cout << (words[0] == "pattern"
                    ? pattern()
                    : metadata(words.at(1), std::stoul(words.at(2)), std::stoul(words.at(3))))
            << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  initialize_client_runtime();
  return measure({argv + 1, argv + argc});
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
