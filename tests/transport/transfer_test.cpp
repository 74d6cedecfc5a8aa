#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>

#include "platform/allocated_file.h"
#include "support/failure.h"
#include "support/scripted_tls_server.h"
#include "support/temp_folder.h"
#include "transport/https.h"

namespace tavro {
namespace {

using namespace std::string_literals;

std::string head(const std::string& status, const std::string& fields = "") {
  return "HTTP/1.1 " + status + "\r\n" + fields + "\r\n";
}

std::string sized(const std::string& body, const std::string& status = "200 OK") {
  return head(status, "Content-Length: " + std::to_string(body.size()) + "\r\n") + body;
}

/// A server that always gives the same answer, and a client that trusts it.
struct Exchange {
  TempFolder folder;
  std::string answer = sized("content");
  ScriptedTlsServer server{folder.path(), [this](const std::string&) { return answer; }};
  std::shared_ptr<HttpsBudget> budget;

  HttpsTransport client() const { return {server.origin() + "/base", server.bundle(), 0, budget}; }
  std::string get_code(unsigned long long limit = 100) const {
    return code_of([&] { client().get("x", limit); });
  }
};

TEST(HttpsGet, AsksPlainlyAndAnswersEveryStatusButARedirect) {
  Exchange exchange;
  const TransportResponse found = exchange.client().get("a b/\xc3\xa9.json", 7);
  EXPECT_EQ(found.status, 200);
  EXPECT_EQ(found.body, "content");
  exchange.client().get_component("1.a/b.json", 7);
  const auto requests = exchange.server.requests();
  EXPECT_TRUE(requests.at(0).starts_with("GET /base/a%20b/%C3%A9.json HTTP/1.1\r\n"));
  EXPECT_NE(requests.at(0).find("\r\nUser-Agent: Tavro/0.1\r\n"), std::string::npos);
  EXPECT_TRUE(requests.at(1).starts_with("GET /base/1.a%2Fb.json HTTP/1.1\r\n"));
  exchange.answer = sized("gone", "404 Not Found");
  EXPECT_EQ(exchange.client().get("x", 7).status, 404);
  exchange.answer = head("302 Found", "Location: https://localhost/\r\nContent-Length: 0\r\n");
  EXPECT_EQ(exchange.get_code(), "redirect_rejected");
}

TEST(HttpsGet, BoundsNamesAndBytes) {
  Exchange exchange;
  EXPECT_EQ(exchange.get_code(6), "size_limit");
  exchange.answer = head("200 OK") + "content";
  EXPECT_EQ(exchange.get_code(6), "size_limit");
  EXPECT_EQ(exchange.get_code(7), "");
  const auto sent = exchange.server.requests().size();
  EXPECT_EQ(exchange.get_code(16777217), "size_limit");
  for (const std::string& name : {""s, "."s, ".."s, std::string(8193, 'n')})
    EXPECT_EQ(code_of([&] { exchange.client().get_component(name, 1); }), "size_limit");
  EXPECT_EQ(exchange.server.requests().size(), sent);
}

TEST(HttpsTrust, IsTheBundleAloneOrTheSystemsStore) {
  Exchange exchange;
  const auto get = [&](const ScriptedTlsServer& server, const std::filesystem::path& bundle) {
    return code_of([&] { HttpsTransport(server.origin(), bundle, 0, nullptr).get("x", 100); });
  };
  const auto answer = [](const std::string&) { return sized("content"); };
  const auto& folder = exchange.folder.path();
  const ScriptedTlsServer stranger(folder, answer);
  const ScriptedTlsServer renamed(folder, answer, {.host = "other.test"});
  const ScriptedTlsServer expired(folder, answer, {.not_before = -7200, .not_after = -3600});
  const ScriptedTlsServer early(folder, answer, {.not_before = 3600, .not_after = 7200});
  EXPECT_EQ(get(exchange.server, exchange.server.bundle()), "");
  EXPECT_EQ(get(exchange.server, {}), "network") << "the system does not know this certificate";
  EXPECT_EQ(get(stranger, exchange.server.bundle()), "network");
  for (const ScriptedTlsServer* server : {&renamed, &expired, &early}) {
    EXPECT_EQ(get(*server, server->bundle()), "network");
    EXPECT_TRUE(server->requests().empty());
  }
  std::ofstream(folder / "empty.pem").close();
  EXPECT_EQ(get(exchange.server, folder / "empty.pem"), "ca_bundle");
  EXPECT_EQ(get(exchange.server, folder / "absent.pem"), "file_read");
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
  EXPECT_EQ(code(0, 0), "discovery_timeout");
  int asked = 0;
  EXPECT_EQ(code(20, 0, [] { return true; }), "cancelled");
  EXPECT_EQ(code(20, 0, [&] { return ++asked > 1; }), "cancelled");
}

TEST(HttpsDownload, BringsAFileOrLeavesNone) {
  Exchange exchange;
  const auto place = exchange.folder.path() / "down" / "target";
  const auto code = [&](unsigned long long length) {
    std::filesystem::remove(place);
    return code_of([&] { exchange.client().download("x", place, length, {}); });
  };
  EXPECT_EQ(code(7), "");
  std::string text;
  std::getline(std::ifstream(place), text);
  EXPECT_EQ(text, "content");
  EXPECT_NE(exchange.server.requests().at(0).find("Accept-Encoding: identity"), std::string::npos);
  EXPECT_EQ(code(9), "") << "the caller proves the length";
  EXPECT_EQ(std::filesystem::file_size(place), 7u);
  for (const auto& [expected, answer] : {
           std::pair("length_mismatch", sized("contents")),
           std::pair("size_limit", head("200 OK") + "contents"),
           std::pair("http_status", sized("", "404 Not Found")),
           std::pair("redirect_rejected", sized("", "302 Found")),
           std::pair("network", head("200 OK", "Content-Length: 7\r\n") + "cont"),
           std::pair("download_headers", head("200 OK", "Content-Encoding: gzip\r\n") + "content"),
       }) {
    exchange.answer = answer;
    EXPECT_EQ(code(7), expected) << answer;
    EXPECT_FALSE(std::filesystem::exists(place));
  }
}

/// A file of ten bytes whose first four are at hand.
struct Resumption : Exchange {
  AllocatedFile file{folder.path() / "partial", 10, {}};
  std::string events;

  Resumption() { file.write("0123"); }
  std::string resume(const Progress& progress = {}) {
    return code_of([&] {
      client().download_into(
          "x", file, 4, progress, [&](std::string_view bytes) { events += bytes; },
          [&] { events += "restart "; });
    });
  }
  std::string content() {
    std::string text;
    file.read_prefix(file.written(), [&](std::string_view bytes) { text += bytes; }, {});
    return text;
  }
};

TEST(HttpsResumption, TakesTheRestOrStartsAgain) {
  Resumption rest;
  rest.answer =
      head("206 Partial Content", "Content-Range: bytes 4-9/10\r\nContent-Length: 6\r\n") +
      "456789";
  EXPECT_EQ(rest.resume(), "");
  EXPECT_NE(rest.server.requests().at(0).find("\r\nRange: bytes=4-9\r\n"), std::string::npos);
  EXPECT_EQ(rest.events + " " + rest.content(), "456789 0123456789");
  Resumption whole;
  whole.answer = sized("abcdefghij");
  EXPECT_EQ(whole.resume(), "");
  EXPECT_EQ(whole.events + " " + whole.content(), "restart abcdefghij abcdefghij");
}

TEST(HttpsResumption, NeverDisturbsWhatIsAtHand) {
  for (const auto& [expected, answer] : {
           std::pair("http_status", sized("", "416 Range Not Satisfiable")),
           std::pair("download_range",
                     head("206 Partial Content", "Content-Range: bytes 3-9/10\r\n") + "x456789"),
           std::pair("length_mismatch", sized("abcdefghijk")),
       }) {
    Resumption resumption;
    resumption.answer = answer;
    EXPECT_EQ(resumption.resume(), expected);
    EXPECT_EQ(resumption.events + resumption.content(), "0123");
  }
  Resumption cancelled;
  EXPECT_EQ(cancelled.resume([](auto, auto) { return false; }), "cancelled");
  Resumption finished;
  finished.file.write("456789");
  EXPECT_EQ(code_of([&] { finished.client().download_into("x", finished.file, 10, {}, {}, {}); }),
            "download_range");
  EXPECT_EQ(finished.resume(), "download_range") << "the cursor is not where the file ends";
  EXPECT_TRUE(finished.server.requests().empty());
}

TEST(HttpsUpload, SendsExactlyWhatWasFrozen) {
  Exchange exchange;
  exchange.answer = sized("{}", "201 Created");
  HttpsTransport client = exchange.client();
  EXPECT_EQ(client.post_json("ticket", {{"a", 1}}, {}).body, "{}");
  const std::string ticket = exchange.server.requests().at(0);
  EXPECT_TRUE(ticket.starts_with("POST /base/ticket ") && ticket.ends_with("\r\n\r\n{\"a\":1}"));
  EXPECT_NE(ticket.find("Content-Type: application/json\r\n"), std::string::npos);
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
  const std::string sent = exchange.server.requests().at(1);
  EXPECT_TRUE(sent.starts_with("POST /base/r ") && sent.ends_with("\r\n\r\nreport"));
  EXPECT_NE(sent.find("Authorization: Bearer " + token + "\r\n"), std::string::npos);
  EXPECT_EQ(code("report", 0, token), "size_limit");
  EXPECT_EQ(code("report", 104857601, token), "size_limit");
  EXPECT_EQ(code("report", 6, std::string(64, 'A')), "crash_ticket");
  for (const char* other : {"link", "absent", "."})
    EXPECT_EQ(code(other, 6, token), "crash_changed") << other;
  EXPECT_EQ(code("report", 5, token), "crash_changed");
  exchange.answer = head("302 Found");
  EXPECT_EQ(code("report", 6, token), "redirect_rejected");
}

}  // namespace
}  // namespace tavro
