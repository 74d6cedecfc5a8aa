// A client at work in a process of its own, to be killed and measured. Refreshes and, with a
// TARGET, downloads it; STOP ends the download once that many bytes are there, as a user would.

#include <iostream>
#include <string>
#include <vector>

#include "domain/error.h"
#include "domain/input.h"
#include "transport/https.h"
#include "tuf/client_limits.h"
#include "tuf/tuf.h"

namespace {

using namespace tavro;

void fetch(const std::vector<std::string>& words) {
  require(words.size() >= 4, "usage", "tavro-fetch ORIGIN CA-BUNDLE ROOT HOME [TARGET [STOP]]");
  const std::filesystem::path home = words[3];
  if (!std::filesystem::exists(home / "trust" / "root.json"))
    TufClient::initialize(home / "trust", read_file(words[2], client_limits.root_bytes));
  HttpsTransport metadata(words[0] + "/tuf/metadata", words[1], 0, nullptr);
  HttpsTransport targets(words[0] + "/tuf/targets", words[1], 0, nullptr);
  TufClient client(home / "trust", metadata, targets, client_limits,
                   std::chrono::system_clock::now);
  if (words.size() == 4) return client.refresh();
  const unsigned long long stop = words.size() > 5 ? std::stoull(words[5]) : -1ull;
  client.download(words[4], home / "files",
                  [=](unsigned long long done, auto) { return done < stop; }, {},
                  {.resume_scope = "fetch", .admission = {}});
}

}  // namespace

int main(int argc, char** argv) try { fetch({argv + 1, argv + argc}); } catch (const Error& error) {
  std::cerr << error.code << ": " << error.what() << "\n";
  return 1;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 2;
}
