#include "transport/https.h"

#include <fcntl.h>

#include "platform/storage/allocated_file.h"
#include "support/answers.h"
#include "support/scripted_tls_server.h"

namespace tavro::https_test {

using namespace std::string_literals;
using Rows = std::vector<std::pair<std::string, std::string>>;

TEST(HttpsTransport, RefusesAnythingButAPlainHttpsUrl) {
  expect_answers(R"(https_required: Tavro service URLs must use HTTPS||http://a.test
invalid_url: Invalid service URL|https://a b/|https://a.test:port/
invalid_url: URL must contain a hostname|https:///path
credentials, query, or fragment|https://user@a.test|https://@a.test|https://a.test/?
credentials, query, or fragment|https://a.test?q|https://a.test/#)",
                 [](const std::string& url) { HttpsTransport(url, {}, 0, nullptr); });
  EXPECT_EQ(code_of([&] { HttpsTransport("https://a.test\0/x"s, {}, 0, nullptr); }), "invalid_url");
  EXPECT_EQ(failure_of([&] { HttpsTransport("https://a.test", {}, 1073741825, nullptr); }),
            "download_limit: Download limit exceeds 1 GiB/s");
}

/// A server that always gives the same answer, and a client that trusts it.
struct Exchange {
  TempFolder folder;
  ScriptedTlsServer server{folder.path()};
  std::shared_ptr<HttpsBudget> budget;

  Exchange() { say("200 OK|Content-Length: 7||content"); }
  /// Behind "HTTP/1.1 ", with "|" for each end of a line.
  static std::string lines(const std::string& answer) {
    std::string text = "HTTP/1.1 ";
    for (const char byte : answer) text += byte == '|' ? "\r\n" : std::string(1, byte);
    return text;
  }
  void say(const std::string& answer, bool stall = false) { server.say(lines(answer), stall); }
  HttpsTransport client() const { return {server.origin() + "/base", server.bundle(), 0, budget}; }
  std::string get_code(unsigned long long limit = 7) const {
    return code_of([&] { client().get("x", limit); });
  }
};

TEST(HttpsGet, AsksPlainlyAndBoundsNamesAndBytes) {
  Exchange exchange;
  EXPECT_EQ(exchange.client().get("a b/\xc3\xa9.json", 7).body, "content");
  exchange.client().get_component("1.a/b.json", 7);
  const auto requests = exchange.server.requests();
  EXPECT_TRUE(requests.at(0).starts_with("GET /base/a%20b/%C3%A9.json HTTP/1.1\r\n"));
  EXPECT_NE(requests.at(0).find("\r\nUser-Agent: Tavro/0.1\r\n"), std::string::npos);
  EXPECT_TRUE(requests.at(1).starts_with("GET /base/1.a%2Fb.json HTTP/1.1\r\n"));
  EXPECT_EQ(exchange.get_code(16777217), "size_limit");
  EXPECT_EQ(code_of([&] { exchange.client().get("a/../b", 7); }), "unsafe_path");
  for (const std::string& name : {""s, "."s, ".."s, std::string(8193, 'n')})
    EXPECT_EQ(code_of([&] { exchange.client().get_component(name, 1); }), "size_limit");
  for (const auto& [code, answer] : Rows{{"", "404 Not Found|Content-Length: 7||content"},
                                         {"size_limit", "200 OK||contents"},
                                         {"redirect_rejected", "302 Found|Content-Length: 0||"}}) {
    exchange.say(answer);
    EXPECT_EQ(exchange.get_code(), code) << answer;
  }
}

TEST(HttpsTrust, IsTheBundleAloneForThisHostAndNow) {
  Exchange exchange;
  const ScriptedTlsServer renamed(exchange.folder.path(), "DNS:other.test");
  const auto get = [&](const ScriptedTlsServer& server, const std::filesystem::path& bundle) {
    return code_of([&] { HttpsTransport(server.origin(), bundle, 0, nullptr).get("x", 100); });
  };
  EXPECT_EQ(get(exchange.server, exchange.server.bundle()), "");
  EXPECT_EQ(get(exchange.server, {}), "network") << "the system does not know this certificate";
  EXPECT_EQ(get(exchange.server, renamed.bundle()), "network");
  EXPECT_EQ(get(renamed, renamed.bundle()), "network") << "it names another host";
  for (const char* names : {"", "email:a@localhost"}) {
    const ScriptedTlsServer common(exchange.folder.path(), names);
    EXPECT_EQ(get(common, common.bundle()), "network") << "a common name is no name";
  }
  for (const long until : {-60L, 7260L}) {
    const ScriptedTlsServer untimely(exchange.folder.path(), "DNS:localhost", until);
    EXPECT_EQ(get(untimely, untimely.bundle()), "network") << "it is good until " << until;
  }
  try {
    HttpsTransport(renamed.origin(), renamed.bundle(), 0, nullptr).get("x", 100);
  } catch (const Error& error) {
    const std::string host = renamed.origin().substr(8);
    EXPECT_NE(error.next_commands.at(0).find("date and time, and that " + host), host.npos);
  }
  std::ofstream(exchange.folder.path() / "empty.pem").close();
  EXPECT_EQ(get(exchange.server, exchange.folder.path() / "empty.pem"), "ca_bundle");
}

TEST(HttpsBudget, EndsACheckBeforeOrInTheTransfer) {
  Exchange exchange;
  const auto code = [&](int ahead, unsigned long long used, std::function<bool()> cancel = {}) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(ahead);
    exchange.budget = std::make_shared<HttpsBudget>(HttpsBudget{deadline, 7, used, cancel});
    return exchange.get_code();
  };
  EXPECT_EQ(code(20, 0), "");
  EXPECT_EQ(exchange.budget->used, 7u);
  EXPECT_EQ(code(20, 1), "discovery_budget") << "in the transfer";
  EXPECT_EQ(code(20, 8), "discovery_budget") << "before it";
  EXPECT_EQ(code(31, 0), "discovery_timeout");
  int asked = 0;
  EXPECT_EQ(code(20, 0, [&] { return ++asked > 1; }), "cancelled");
  exchange.say("200 OK|Content-Length: 7||cont", true);
  EXPECT_EQ(code(1, 0), "discovery_timeout") << "a server that stalls";
}

TEST(HttpsTransport, GivesUpOnAServerThatStalls) {
  Exchange exchange;
  exchange.say("200 OK|Content-Length: 7||cont", true);
  const auto file = exchange.folder.path() / "down" / "target";
  EXPECT_EQ(failure_of([&] { exchange.client().download("x", file, 7, {}); }),
            "network: Timeout was reached");
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(HttpsDownload, BringsAFileOrLeavesNone) {
  Exchange exchange;
  const auto place = exchange.folder.path() / "down" / "target";
  const std::string chunked = "|Transfer-Encoding: chunked|";
  for (const auto& [code, answer] :
       Rows{{"", "200 OK|Content-Length: 4||cont"},
            {"size_limit", "200 OK||contents"},
            {"", "100 Continue||HTTP/1.1 200 OK|Content-Length: 7||content"},
            {"", "200 OK" + chunked + "|7|content|0|X: trailer||"},
            {"download_headers", "200 OK" + chunked + "|7|content|0|Content-Length: 7||"},
            {"redirect_rejected", "302 F|Location: https://localhost/||"},
            {"network", "200 OK|Content-Length: 7||cont"}}) {
    exchange.say(answer);
    EXPECT_EQ(code_of([&] { exchange.client().download("x", place, 7, {}); }), code) << answer;
    const bool brought = std::filesystem::exists(place);
    EXPECT_EQ(brought, code.empty()) << answer;
    EXPECT_TRUE(!brought || answer.find("|" + read_file(place, 7)) != std::string::npos);
    std::filesystem::remove(place);
  }
  EXPECT_NE(exchange.server.requests().at(0).find("Accept-Encoding: identity"), std::string::npos);
}

TEST(HttpsDownload, TellsTheFirstFailureAndKeepsItsConnectionFromChildren) {
  Exchange exchange;
  AllocatedFile file(exchange.folder.path() / "partial", 7, {});
  bool failed = false;
  std::set<int> flags;
  const auto watch = [&](auto, auto) {
    for (int fd = 3; fd < 64; ++fd) {
      sockaddr_in peer{};
      socklen_t size = sizeof peer;
      if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && peer.sin_port != 0)
        flags.insert(::fcntl(fd, F_GETFD));
    }
    return !failed || (fail("later", ""), true);
  };
  const auto break_off = [&](auto) { failed = true, fail("first", ""); };
  EXPECT_EQ(code_of([&] { exchange.client().download_into("x", file, 0, watch, break_off, {}); }),
            "first");
  EXPECT_EQ(flags, std::set<int>{FD_CLOEXEC});
}

TEST(HttpsResumption, TakesTheRestOrStartsAgainAndDisturbsNothing) {
  Exchange exchange;
  const Progress none, stop = [](auto, auto) { return false; };
  // Of a file of ten bytes whose first ones are at hand: what happened, and what it holds then.
  const auto resume = [&](const char* held, unsigned long long offset, const Progress& progress) {
    std::filesystem::remove(exchange.folder.path() / "partial");
    AllocatedFile file(exchange.folder.path() / "partial", 10, {});
    file.write(held);
    std::string events;
    const auto take = [&](std::string_view bytes) { events += bytes; };
    const auto again = [&] { events += "restart "; };
    events +=
        code_of([&] { exchange.client().download_into("x", file, offset, progress, take, again); });
    events += ' ';
    file.read_prefix(file.written(), take, {});
    return events;
  };
  for (const auto& [outcome, answer] :
       Rows{{"456789 0123456789", "206 P|Content-Range: bytes 4-9/10||456789"},
            {"restart abcdefghij abcdefghij", "200 OK||abcdefghij"},
            {"http_status 0123", "503 Later||"}}) {
    exchange.say(answer);
    EXPECT_EQ(resume("0123", 4, none), outcome) << answer;
    EXPECT_NE(exchange.server.requests().back().find("Range: bytes=4-9\r\n"), std::string::npos);
  }
  EXPECT_EQ(resume("0123", 4, stop), "cancelled 0123");
  EXPECT_EQ(resume("0123", 3, none), "download_range 0123");
  // A server that never gives the rest is asked for the whole, once; what is held waits for it.
  for (const std::string refusal :
       {"416 Range Not Satisfiable||", "206 P|Content-Range: bytes 3-9/10||x456789"}) {
    exchange.server.say_to_ranges(Exchange::lines(refusal));
    for (const auto& [outcome, whole] :
         Rows{{"restart abcdefghij abcdefghij", "200 OK||abcdefghij"},
              {"http_status 0123", "503 Later||"}}) {
      exchange.say(whole);
      const std::size_t before = exchange.server.requests().size();
      EXPECT_EQ(resume("0123", 4, none), outcome) << refusal;
      EXPECT_EQ(exchange.server.requests().size(), before + 2);
    }
  }
}

TEST(HttpsUpload, SendsExactlyWhatWasFrozen) {
  Exchange exchange;
  exchange.say("201 Created|Content-Length: 2||{}");
  HttpsTransport client = exchange.client();
  EXPECT_EQ(client.post_json("ticket", {{"a", 1}}, {}).body, "{}");
  EXPECT_EQ(code_of([&] { client.post_json("x", std::string(4095, 'x'), {}); }), "size_limit");
  const auto report = exchange.folder.path() / "report";
  std::ofstream(report) << "report";
  std::filesystem::create_symlink(report, exchange.folder.path() / "link");
  const std::string token(64, '0');
  const auto code = [&](const char* name, unsigned long long size, const std::string& bearer) {
    return code_of(
        [&] { client.upload_report("r", exchange.folder.path() / name, size, bearer, {}); });
  };
  EXPECT_EQ(code("report", 6, token), "");
  const auto sent = exchange.server.requests();
  EXPECT_TRUE(sent[0].starts_with("POST /base/ticket ") && sent[0].ends_with("\r\n\r\n{\"a\":1}"));
  EXPECT_NE(sent[0].find("Content-Type: application/json\r\n"), std::string::npos);
  EXPECT_TRUE(sent[1].starts_with("POST /base/r ") && sent[1].ends_with("\r\n\r\nreport"));
  EXPECT_NE(sent[1].find("Authorization: Bearer " + token + "\r\n"), std::string::npos);
  EXPECT_EQ(code("report", 104857601, token), "size_limit");
  EXPECT_EQ(code("report", 6, std::string(64, 'A')), "crash_ticket");
  EXPECT_EQ(code("report", 5, token), "crash_changed");
  EXPECT_EQ(code("link", 6, token), "crash_changed");
}

}  // namespace tavro::https_test
