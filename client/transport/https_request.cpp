#include "transport/https_request.h"

#include <fcntl.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <tuple>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "platform/host/system_calls.h"
#include "transport/curl_library.h"
#include "transport/https_trust.h"

namespace tavro {
namespace {

constexpr long kConnectSeconds = 10;
constexpr long kMemorySeconds = 30;
constexpr long kUploadSeconds = 590;
constexpr long kStallSeconds = 30;
constexpr long long kBudgetMilliseconds = 30000;

using Easy = std::unique_ptr<CURL, CurlDeleter>;
using HeaderList = std::unique_ptr<curl_slist, CurlDeleter>;

/// A request that lacks one of its bounds must not go out.
template <typename Value>
void set(CURL* easy, CURLoption option, Value value) {
  require(curl().easy_setopt(easy, option, value) == CURLE_OK, "transport",
          "Cannot enforce the service connection boundary");
}

/// Keeps the first thing that `work` throws in `error`, since the library may call back once more
/// after it gave up, and answers `aborted` for it.
template <typename Answer, typename Work>
Answer guarded(std::exception_ptr& error, Answer aborted, Work&& work) noexcept {
  try {
    return work();
  } catch (...) {
    if (!error) error = std::current_exception();
    return aborted;
  }
}

bool overflows(std::size_t size, std::size_t count) {
  return size != 0 && count > static_cast<std::size_t>(-1) / size;
}

/// True when the response stays within the budget and the transfer's own bound.
bool admit_bytes(Transfer& transfer, unsigned long long bytes) {
  if (HttpsBudget* budget = transfer.budget) {
    // A budget that is used up beyond its limit has nothing left, rather than very much.
    const unsigned long long left = budget->limit - std::min(budget->limit, budget->used);
    if (bytes > left) {
      transfer.budget_exceeded = true;
      return false;
    }
    budget->used += bytes;
  }
  transfer.size_exceeded = bytes > transfer.limit - transfer.received;
  return !transfer.size_exceeded;
}

std::size_t receive(char* data, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  if (overflows(size, count)) return 0;
  const std::string_view bytes(data, size * count);
  return guarded<std::size_t>(transfer.error, 0, [&]() -> std::size_t {
    if (!admit_bytes(transfer, bytes.size())) return 0;
    if (transfer.file == nullptr) {
      transfer.body += bytes;
    } else {
      transfer.headers->body(bytes.size());
      transfer.file->write(bytes);
      if (transfer.on_bytes) transfer.on_bytes(bytes);
    }
    transfer.received += bytes.size();
    return bytes.size();
  });
}

/// The server answered the request for a range with the whole file: what is there is written over,
/// and nothing is merged.
void restart(Transfer& transfer) {
  transfer.file->restart();
  transfer.offset = 0;
  transfer.limit = transfer.length;
  if (transfer.on_restart) transfer.on_restart();
}

std::size_t header(char* data, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  if (overflows(size, count)) return 0;
  return guarded<std::size_t>(transfer.error, 0, [&] {
    DownloadResponseHeaders& headers = *transfer.headers;
    headers.line(std::string_view(data, size * count));
    if (headers.admitted() && transfer.offset != 0 && headers.start() == 0) restart(transfer);
    // After a restart a further head may not bring the range back.
    require(!headers.admitted() || headers.start() == transfer.offset, "download_headers",
            "Unexpected download response sequence");
    return size * count;
  });
}

unsigned long long counted(curl_off_t value) {
  return value < 0 ? 0 : static_cast<unsigned long long>(value);
}

bool report(const Transfer& transfer, curl_off_t down_total, curl_off_t down_now,
            curl_off_t up_total, curl_off_t up_now) {
  if (!transfer.progress) return true;
  if (transfer.uploading) return transfer.progress(counted(up_now), counted(up_total));
  if (transfer.file != nullptr)
    return transfer.progress(transfer.offset + transfer.received, transfer.length);
  return transfer.progress(counted(down_now), counted(down_total));
}

int advance(void* context, curl_off_t down_total, curl_off_t down_now, curl_off_t up_total,
            curl_off_t up_now) {
  auto& transfer = *static_cast<Transfer*>(context);
  return guarded<int>(transfer.error, 1, [&] {
    if (const HttpsBudget* budget = transfer.budget) {
      transfer.cancelled = budget->cancel && budget->cancel();
      transfer.deadline_exceeded =
          !transfer.cancelled && std::chrono::steady_clock::now() >= budget->deadline;
      if (transfer.cancelled || transfer.deadline_exceeded) return 1;
    }
    transfer.cancelled = !report(transfer, down_total, down_now, up_total, up_now);
    return transfer.cancelled ? 1 : 0;
  });
}

bool at_end(const Upload& upload) {
  char byte = 0;
  return read_some(upload.stream.get(), &byte, 1) == 0;
}

/// Fills the buffer from the stream; fewer bytes than wanted mean that the file shrank.
bool read_exactly(const Upload& upload, char* buffer, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t count = read_some(upload.stream.get(), buffer + done, size - done);
    if (count <= 0) return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

std::size_t send_bytes(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto& upload = *static_cast<Upload*>(context);
  if (overflows(size, count)) return CURL_READFUNC_ABORT;
  return guarded<std::size_t>(upload.error, CURL_READFUNC_ABORT, [&]() -> std::size_t {
    if (upload.remaining == 0) return at_end(upload) ? 0 : CURL_READFUNC_ABORT;
    const std::size_t wanted = static_cast<std::size_t>(
        std::min<unsigned long long>({size * count, upload.remaining, kStreamBlock}));
    if (!read_exactly(upload, buffer, wanted)) return CURL_READFUNC_ABORT;
    upload.remaining -= wanted;
    return wanted;
  });
}

void set_boundary(CURL* easy, const std::string& url, const Transfer& transfer,
                  const Upload* upload) {
  set(easy, CURLOPT_URL, url.c_str());
  set(easy, CURLOPT_PROTOCOLS_STR, "https");
  set(easy, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  set(easy, CURLOPT_FOLLOWLOCATION, 0L);
  set(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  set(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  set(easy, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  const bool streams = upload != nullptr && upload->stream;
  set(easy, CURLOPT_TIMEOUT, streams ? kUploadSeconds : transfer.file ? 0L : kMemorySeconds);
}

void set_budget(CURL* easy, const HttpsBudget& budget) {
  require(budget.used <= budget.limit, "discovery_budget",
          "Optional update check exhausted its response budget");
  require(!budget.cancel || !budget.cancel(), "cancelled", "Optional update check cancelled");
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        budget.deadline - std::chrono::steady_clock::now())
                        .count();
  require(left >= 1 && left <= kBudgetMilliseconds, "discovery_timeout",
          "Optional update check exhausted its time budget");
  set(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(left));
  set(easy, CURLOPT_CONNECTTIMEOUT_MS, std::min(static_cast<long>(left), kConnectSeconds * 1000));
}

void set_transfer(CURL* easy, Transfer& transfer, unsigned long long download_limit) {
  set(easy, CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(download_limit));
  set(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  set(easy, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
  // A library that times out by SIGALRM would interrupt the whole process.
  set(easy, CURLOPT_NOSIGNAL, 1L);
  set(easy, CURLOPT_USERAGENT, "Tavro/0.1");
  set(easy, CURLOPT_WRITEFUNCTION, receive);
  set(easy, CURLOPT_WRITEDATA, &transfer);
  set(easy, CURLOPT_XFERINFOFUNCTION, advance);
  set(easy, CURLOPT_XFERINFODATA, &transfer);
  set(easy, CURLOPT_NOPROGRESS, 0L);
  if (transfer.file == nullptr) return;
  set(easy, CURLOPT_HEADERFUNCTION, header);
  set(easy, CURLOPT_HEADERDATA, &transfer);
  set(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(easy, CURLOPT_ACCEPT_ENCODING, "identity");
  set(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  if (transfer.offset == 0 || !transfer.ranged) return;
  const std::string range =
      std::to_string(transfer.offset) + "-" + std::to_string(transfer.length - 1);
  set(easy, CURLOPT_RANGE, range.c_str());
}

/// The library opens its connection such that every child process would hold it, too.
int keep_from_children(void*, curl_socket_t connection, curlsocktype) {
  const int set = retried([&] { return ::fcntl(connection, F_SETFD, FD_CLOEXEC); });
  return set == 0 ? CURL_SOCKOPT_OK : CURL_SOCKOPT_ERROR;
}

void append(HeaderList& list, const std::string& line) {
  curl_slist* longer = curl().slist_append(list.get(), line.c_str());
  require(longer != nullptr, "transport", "Cannot allocate upload headers");
  std::ignore = list.release();
  list.reset(longer);
}

HeaderList set_upload(CURL* easy, Transfer& transfer, Upload& upload) {
  HeaderList headers;
  append(headers, upload.stream ? "Content-Type: application/octet-stream"
                                : "Content-Type: application/json");
  append(headers, "Expect:");
  if (!upload.bearer.empty()) append(headers, "Authorization: Bearer " + upload.bearer);
  set(easy, CURLOPT_HTTPHEADER, headers.get());
  if (upload.stream) {
    transfer.uploading = true;
    set(easy, CURLOPT_UPLOAD, 1L);
    set(easy, CURLOPT_CUSTOMREQUEST, "POST");
    set(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(upload.remaining));
    set(easy, CURLOPT_READFUNCTION, send_bytes);
    set(easy, CURLOPT_READDATA, &upload);
  } else {
    set(easy, CURLOPT_POST, 1L);
    set(easy, CURLOPT_POSTFIELDS, upload.body.c_str());
    set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(upload.body.size()));
  }
  return headers;
}

/// What a person can do about it. The library's own words name neither the host nor a way out.
std::string remedy(CURLcode result, const std::string& url) {
  const std::size_t host = url.find("//") + 2;
  const std::string server = url.substr(host, url.find('/', host) - host);
  switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return "Check the address " + server + " and this computer's network connection";
    case CURLE_PEER_FAILED_VERIFICATION:
      return "Check this computer's date and time, and that " + server +
             " is the right address: its certificate is not valid here";
    default:
      return "Check the network connection to " + server + ", and run the same again";
  }
}

/// The first of these that applies decides.
void judge(CURLcode result, const std::string& url, const Transfer& transfer,
           const Upload* upload) {
  if (transfer.error) std::rethrow_exception(transfer.error);
  if (upload != nullptr && upload->error) std::rethrow_exception(upload->error);
  require(!transfer.cancelled, "cancelled", "Transfer cancelled at a safe boundary");
  require(!transfer.budget_exceeded, "discovery_budget",
          "Optional update check exhausted its response budget; use Check for updates for a "
          "complete check");
  const bool late = transfer.deadline_exceeded ||
                    (transfer.budget != nullptr && result == CURLE_OPERATION_TIMEDOUT);
  require(!late, "discovery_timeout",
          "Optional update check exhausted its time budget; use Check for updates when ready");
  require(!transfer.size_exceeded, "size_limit",
          "Server sent more than the authenticated size limit");
  if (result != CURLE_OK) fail("network", curl().easy_strerror(result), {remedy(result, url)});
}

}  // namespace

int request(const std::string& url, const std::filesystem::path& ca_bundle, Transfer& transfer,
            unsigned long long download_limit, Upload* upload) {
  const Easy easy(curl().easy_init());
  require(easy != nullptr, "transport", "Cannot initialize HTTPS request");
  // Empty, not unset: the environment's proxies must not count either.
  set(easy.get(), CURLOPT_PROXY, "");
  set_boundary(easy.get(), url, transfer, upload);
  if (transfer.budget != nullptr) set_budget(easy.get(), *transfer.budget);
  set_transfer(easy.get(), transfer, download_limit);
  set(easy.get(), CURLOPT_SOCKOPTFUNCTION, keep_from_children);
  set_trust(easy.get(), ca_bundle);
  HeaderList headers;
  if (upload != nullptr) headers = set_upload(easy.get(), transfer, *upload);

  judge(curl().easy_perform(easy.get()), url, transfer, upload);
  if (transfer.headers) transfer.headers->finish();
  long status = 0;
  curl().easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  require(status < 300 || status > 399, "redirect_rejected", "Server redirects are not permitted");
  if (upload != nullptr && upload->stream && status >= 200 && status <= 299)
    require(upload->remaining == 0 && at_end(*upload), "crash_changed",
            "Frozen upload snapshot changed during transfer");
  return static_cast<int>(status);
}

}  // namespace tavro
