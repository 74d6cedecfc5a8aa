#include "transport/download_response.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/failure.h"

namespace tavro {
namespace {

using namespace std::string_literals;

/// Feeds a head, whose lines are separated by "|", and its empty line; then body sizes.
struct Response {
  DownloadResponseHeaders headers;

  Response(unsigned long long expected, unsigned long long offset, bool exact = true)
      : headers(expected, offset, exact) {}

  std::string feed(const std::string& head, const std::vector<unsigned long long>& body = {}) {
    return failure_of([&] {
      for (std::size_t from = 0, to = 0; to != std::string::npos; from = to + 1) {
        to = head.find('|', from);
        headers.line(head.substr(from, to - from) + "\r\n");
      }
      headers.line("\r\n");
      for (const auto size : body) headers.body(size);
      if (!body.empty()) headers.finish();
    });
  }
};

TEST(DownloadResponse, AdmitsFullAndPartialResponses) {
  for (const char* head :
       {"HTTP/1.1 200", "HTTP/1.0 200 OK|X: \xff\t~|content-length: 1000",
        "HTTP/2 200 |Content-Encoding: Identity|TRANSFER-encoding:\tChunked \t",
        "HTTP/1.1 103 Hint|Content-Length: 1|Content-Length2: 1||HTTP/3 200 OK"}) {
    Response full(1000, 100);
    EXPECT_EQ(full.feed(head, {999, 1}), "") << head;
    EXPECT_EQ(full.headers.start(), 0u);
  }
  Response partial(1000, 100);
  EXPECT_EQ(partial.feed("HTTP/1.1 206 P|Content-Range:  BYTES 100-999/1000 ", {900}), "");
  EXPECT_EQ(partial.headers.start(), 100u);
  EXPECT_EQ(Response(900, 0, false).feed("HTTP/1.1 200|Content-Length: 500", {500}), "");
}

TEST(DownloadResponse, RefusesOtherHeads) {
  using Heads = std::vector<std::string>;
  const auto expect = [](const std::string& failure, const Heads& heads) {
    for (const std::string& head : heads) {
      const std::string answer = Response(1000, 100).feed(head);
      EXPECT_TRUE(answer.starts_with(failure)) << head << " gave " << answer;
    }
  };
  expect("download_headers: Download headers precede", {"Content-Length: 1"});
  expect("download_headers: Invalid download status line",
         {"HTTP/0.9 200", "HTTP/1.1 20", "HTTP/1.1 2000", "HTTP/1.1"});
  expect("download_headers: Invalid download status", {"HTTP/1.1 600", "HTTP/1.1 099"});
  expect("download_headers: Download protocol upgrades", {"HTTP/1.1 101"});
  expect("redirect_rejected", {"HTTP/1.1 301", "HTTP/1.1 304"});
  expect("http_status: Download failed with status 204", {"HTTP/1.1 204"});
  expect("download_headers: Download header contains control bytes",
         {"HTTP/1.1 200|A: \x7f", "HTTP/1.1 200|A: b\rc"});
  expect("download_headers: Invalid or excessive", {"HTTP/1.1 200|A: b| c"});
  expect("download_headers: Invalid download field",
         {"HTTP/1.1 200|A b", "HTTP/1.1 200|: b", "HTTP/1.1 200|A : b"});
  expect("download_headers: Duplicate or late",
         {"HTTP/1.1 200|Content-Length: 1000|content-length: 1000",
          "HTTP/1.1 200||Content-Type: text/plain"});
  expect("download_headers: Invalid download length or range",
         {"HTTP/1.1 2x0", "HTTP/1.1 200|Content-Length: +1",
          "HTTP/1.1 200|Content-Length:", "HTTP/1.1 200|Content-Length: 18446744073709551616",
          "HTTP/1.1 206|Content-Range: bytes 100-999/*"});
  expect("length_mismatch: Server length differs", {"HTTP/1.1 200|Content-Length: 999"});
  expect("download_headers: Download content encoding",
         {"HTTP/1.1 200|Content-Encoding: gzip", "HTTP/1.1 200|Content-Encoding:"});
  expect("download_headers: Unsupported",
         {"HTTP/1.1 200|Transfer-Encoding: chunked, gzip",
          "HTTP/1.1 200|Transfer-Encoding: chunked|Content-Length: 1000"});
  expect("download_range: Multipart", {"HTTP/1.1 206|Content-Type: Multipart/ByteRanges; b=1"});
  expect("download_range: A full response contains an unexpected range",
         {"HTTP/1.1 200|Content-Range: bytes 0-999/1000"});
  expect("download_range: A partial response requires", {"HTTP/1.1 206"});
  expect("download_range: Invalid", {"HTTP/1.1 206|Content-Range: bytes=100-999/1000",
                                     "HTTP/1.1 206|Content-Range: items 100-999/1000"});
  expect("download_range: Server range differs",
         {"HTTP/1.1 206|Content-Range: bytes 100-998/1000",
          "HTTP/1.1 206|Content-Range: bytes 101-999/1000",
          "HTTP/1.1 206|Content-Range: bytes 100-999/1001"});
  EXPECT_EQ(Response(1000, 0).feed("HTTP/1.1 206|Content-Range: bytes 0-999/1000"),
            "download_range: A partial response requires the requested single range");
  EXPECT_EQ(code_of([] { DownloadResponseHeaders(1, 2, true); }), "download_range");
}

TEST(DownloadResponse, HoldsTheBodyToItsLength) {
  const auto code = [](const std::string& head, const std::vector<unsigned long long>& body) {
    const std::string failure = Response(1000, 0).feed(head, body);
    return failure.substr(0, failure.find(':'));
  };
  EXPECT_EQ(code("HTTP/1.1 200", {1000, 1}), "size_limit");
  EXPECT_EQ(code("HTTP/1.1 200", {999}), "length_mismatch");
  EXPECT_EQ(code("HTTP/1.1 100", {1}), "download_headers");
  Response declared(1000, 0, false);
  EXPECT_EQ(declared.feed("HTTP/1.1 200|Content-Length: 5"), "");
  EXPECT_EQ(code_of([&] { declared.headers.body(6); }), "length_mismatch");
  declared.headers.body(4);
  EXPECT_EQ(code_of([&] { declared.headers.finish(); }), "length_mismatch");
  EXPECT_EQ(code_of([&] { declared.headers.line("HTTP/1.1 200\n"); }), "download_headers");
}

TEST(DownloadResponse, BoundsLinesFieldsHeadsAndBytes) {
  Response heads(1, 0);
  for (int count = 0; count < 8; ++count) EXPECT_EQ(heads.feed("HTTP/1.1 100"), "");
  EXPECT_EQ(heads.feed("HTTP/1.1 200"), "download_headers: Unexpected download response sequence");
  std::string fields = "HTTP/1.1 100";
  for (int count = 0; count < 128; ++count) fields += "|a:";
  Response many(1, 0);
  EXPECT_EQ(many.feed(fields), "");
  EXPECT_EQ(many.feed(fields), "") << "each head counts anew";
  EXPECT_EQ(many.feed(fields + "|a:"), "download_headers: Invalid or excessive download fields");

  const auto line = [](Response& response, std::size_t size) {
    return code_of([&] { response.headers.line("a:" + std::string(size - 3, ' ') + "\n"); });
  };
  Response bytes(1, 0);
  bytes.headers.line("HTTP/1.1 200 \n");
  EXPECT_EQ(line(bytes, 8193), "download_headers");
  for (int count = 0; count < 7; ++count) EXPECT_EQ(line(bytes, 8192), "");
  EXPECT_EQ(line(bytes, 8192), "download_headers") << "65536 bytes in all";
  EXPECT_EQ(line(bytes, 8192 - 14), "");
  EXPECT_EQ(code_of([&] { Response(1, 0).headers.line("HTTP/1.1 200"); }), "download_headers");
}

}  // namespace
}  // namespace tavro
