#include "transport/download_response.h"

#include "support/testing.h"

namespace tavro::download_response_test {

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
  for (const char* head : {"1.1 200", "1.0 200 OK|X: \xff\t~|content-length: 1000",
                           "2 200 |Content-Encoding: Identity|TRANSFER-encoding:\tChunked \t",
                           "1.1 103 Hint|Content-Length: 1|Content-Length2: 1||HTTP/3 200 OK"}) {
    Response full(1000, 100);
    EXPECT_EQ(full.feed(std::string("HTTP/") + head, {999, 1}), "") << head;
    EXPECT_EQ(full.headers.start(), 0u);
  }
  Response partial(1000, 100);
  EXPECT_EQ(partial.feed("HTTP/1.1 206 P|Content-Range:  BYTES 100-999/1000 ", {900}), "");
  EXPECT_EQ(partial.headers.start(), 100u);
  EXPECT_EQ(Response(900, 0, false).feed("HTTP/1.1 200|Content-Length: 500", {500}), "");
}

TEST(DownloadResponse, RefusesOtherHeads) {
  const auto expect = [](const std::string& failure, const std::vector<std::string>& heads) {
    for (const auto& head : heads)
      EXPECT_THAT(Response(1000, 100).feed("HTTP/" + head), testing::HasSubstr(failure)) << head;
  };
  expect("Invalid download status line", {"0.9 200", "1.1 20", "1.1 2000", "1.1"});
  expect("headers: Invalid download status", {"1.1 600", "1.1 099"});
  expect("headers: Download protocol upgrades", {"1.1 101"});
  expect("redirect_rejected", {"1.1 301", "1.1 304"});
  expect("http_status: Download failed with status 204", {"1.1 204"});
  expect("contains control bytes", {"1.1 200|A: \x7f", "1.1 200|A: b\rc"});
  expect("Invalid or excessive", {"1.1 200|A: b| c"});
  expect("Invalid download field", {"1.1 200|A b", "1.1 200|: b", "1.1 200|A : b"});
  expect("Duplicate or late", {"1.1 200|Content-Length: 1000|content-length: 1000",
                               "1.1 200||Content-Type: text/plain"});
  expect("headers: Invalid download length or range",
         {"1.1 2x0", "1.1 200|Content-Length: +1",
          "1.1 200|Content-Length:", "1.1 200|Content-Length: 18446744073709551616",
          "1.1 206|Content-Range: bytes 100-999/*"});
  expect("length_mismatch: Server length differs", {"1.1 200|Content-Length: 999"});
  expect("content encoding", {"1.1 200|Content-Encoding: gzip", "1.1 200|Content-Encoding:"});
  expect("Unsupported", {"1.1 200|Transfer-Encoding: chunked, gzip",
                         "1.1 200|Transfer-Encoding: chunked|Content-Length: 1000"});
  expect("range: Multipart", {"1.1 206|Content-Type: Multipart/ByteRanges; b=1"});
  expect("range: A full response", {"1.1 200|Content-Range: bytes 0-999/1000"});
  expect("range: A partial response requires", {"1.1 206"});
  expect("range: Invalid download content range",
         {"1.1 206|Content-Range: bytes=100-999/1000", "1.1 206|Content-Range: x 100-999/1000"});
  expect("range: Server range differs",
         {"1.1 206|Content-Range: bytes 100-998/1000", "1.1 206|Content-Range: bytes 101-999/1000",
          "1.1 206|Content-Range: bytes 100-999/1001"});
  EXPECT_EQ(Response(1000, 0).feed("HTTP/1.1 206|Content-Range: bytes 0-999/1000"),
            "download_range: A partial response requires the requested single range");
}

TEST(DownloadResponse, HoldsTheBodyToItsLength) {
  const auto failure = [](const std::string& head, const std::vector<unsigned long long>& body,
                          bool exact = false) {
    return Response(1000, 0, exact).feed("HTTP/1.1 " + head, body).substr(0, 15);
  };
  EXPECT_EQ(failure("200", {1000, 1}), "size_limit: Dow");
  EXPECT_EQ(failure("200", {999}, true), "length_mismatch");
  EXPECT_EQ(failure("100", {1}), "download_header");
  EXPECT_EQ(failure("200|Content-Length: 5", {6}), "length_mismatch");
  EXPECT_EQ(failure("200|Content-Length: 5", {4}), "length_mismatch");
}

TEST(DownloadResponse, BoundsLinesFieldsHeadsAndBytes) {
  Response heads(1, 0), many(1, 0), bytes(1, 0);
  for (int count = 0; count < 8; ++count) EXPECT_EQ(heads.feed("HTTP/1.1 100"), "");
  EXPECT_EQ(heads.feed("HTTP/1.1 200"), "download_headers: Unexpected download response sequence");
  std::string fields = "HTTP/1.1 100";
  for (int count = 0; count < 128; ++count) fields += "|a:";
  EXPECT_EQ(many.feed(fields), "");
  EXPECT_EQ(many.feed(fields + "|a:"), "download_headers: Invalid or excessive download fields");
  const auto line = [&](std::size_t size) {
    return code_of([&] { bytes.headers.line("a:" + std::string(size - 3, ' ') + "\n"); });
  };
  EXPECT_EQ(line(20), "download_headers") << "no status yet";
  bytes.headers.line("HTTP/1.1 200 \n");
  EXPECT_EQ(line(8193), "download_headers");
  for (int count = 0; count < 7; ++count) EXPECT_EQ(line(8192), "");
  EXPECT_EQ(line(8192), "download_headers") << "65536 bytes in all";
  EXPECT_EQ(line(8192 - 34), "");
}

}  // namespace tavro::download_response_test
