#include "tidewright/sync/transport/http_client.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>

namespace tidewright::sync {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kStopCheckInterval = std::chrono::milliseconds(100);

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]);
    unsigned char y = static_cast<unsigned char>(b[i]);
    if (std::tolower(x) != std::tolower(y)) return false;
  }
  return true;
}

std::string_view trim(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

Clock::duration seconds(double s) {
  if (!(s > 0)) return Clock::duration::zero();
  if (s > 1e9) s = 1e9;  // "forever" without overflowing the clock
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MultiDeleter {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct ShareDeleter {
  void operator()(CURLSH* share) const { curl_share_cleanup(share); }
};
struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using EasyPtr = std::unique_ptr<CURL, EasyDeleter>;
using MultiPtr = std::unique_ptr<CURLM, MultiDeleter>;
using SlistPtr = std::unique_ptr<curl_slist, SlistDeleter>;

// The DNS cache and TLS sessions shared by the handles of all threads.
//
// Thread-safe: libcurl brackets every use of shared data with lock() and
// unlock(); each kind of data has its own mutex.
class CurlShare {
 public:
  CurlShare() : share_(curl_share_init()) {
    if (!share_) return;
    curl_share_setopt(share_.get(), CURLSHOPT_LOCKFUNC, &CurlShare::lock);
    curl_share_setopt(share_.get(), CURLSHOPT_UNLOCKFUNC, &CurlShare::unlock);
    curl_share_setopt(share_.get(), CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }
  CURLSH* get() const { return share_.get(); }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<CurlShare*>(self)->mutex_for(data).lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<CurlShare*>(self)->mutex_for(data).unlock();
  }
  std::mutex& mutex_for(curl_lock_data data) {
    auto index = static_cast<std::size_t>(data);
    return mutexes_[index < mutexes_.size() ? index : 0];
  }

  // Declared before share_ so that they outlive it: cleanup may still lock.
  std::array<std::mutex, CURL_LOCK_DATA_LAST> mutexes_;
  std::unique_ptr<CURLSH, ShareDeleter> share_;
};

// Every client holds a reference, so the share outlives the last handle
// whatever the order in which threads and statics are torn down.
std::shared_ptr<CurlShare> process_share() {
  static const std::shared_ptr<CurlShare> share = std::make_shared<CurlShare>();
  return share;
}

const char* env_or_null(const char* name) {
  const char* value = std::getenv(name);
  return (value && *value) ? value : nullptr;
}

// The hosts reached without a proxy: the user's no_proxy (or NO_PROXY) list
// and always this machine. A proxy named in the environment (http_proxy,
// ALL_PROXY) would otherwise carry a request to loopback, plain http and
// token included, to another host, which then reaches its own loopback.
std::string no_proxy_hosts() {
  std::string hosts = "localhost,127.0.0.0/8,::1";
  const char* user = env_or_null("no_proxy");
  if (!user) user = env_or_null("NO_PROXY");
  if (!user) return hosts;
  if (strip_ws(user) == "*") return "*";
  return std::string(user) + "," + hosts;
}

// The bundle to use without SSL_CERT_FILE / CURL_CA_BUNDLE, found once per
// process (empty when there is none: libcurl then keeps its default).
const std::string& default_ca_bundle() {
  static const std::string bundle = [] {
    std::vector<std::string> candidates;
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    if (info && info->cainfo && *info->cainfo) candidates.emplace_back(info->cainfo);
    candidates.insert(candidates.end(), kSystemCaBundles.begin(), kSystemCaBundles.end());
    return ca_bundle_fallback(candidates).value_or(std::string());
  }();
  return bundle;
}

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// Whether a redirect from `base` to `location` (absolute or relative) may be
// followed: to https, or to plain http on this machine, as for the first
// request. A token must not leave the machine in clear text because a
// server said so, and nothing else may be fetched from where it points.
bool redirect_allowed(const char* base, const std::string& location) {
  std::unique_ptr<CURLU, UrlDeleter> url{curl_url()};
  if (!url || !base || curl_url_set(url.get(), CURLUPART_URL, base, 0) != CURLUE_OK) return false;
  // Set on a handle that holds a URL, a relative reference is resolved against it.
  if (curl_url_set(url.get(), CURLUPART_URL, location.c_str(), 0) != CURLUE_OK) return false;
  char* text = nullptr;
  if (curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK || !text) return false;
  const UrlParts target = split_url(text);
  curl_free(text);
  if (target.scheme == "https") return true;
  return target.scheme == "http" && is_loopback_host(target.hostname());
}

}  // namespace

std::optional<std::string> ca_bundle_fallback(const std::vector<std::string>& candidates) {
  for (const std::string& path : candidates) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), R_OK) == 0) return path;
  }
  return std::nullopt;
}

TlsVerificationError::TlsVerificationError(const std::string& url, std::string host_name, std::string cause_text,
                                           std::int64_t attempts, std::vector<std::int64_t> statuses,
                                           std::vector<std::string> failures)
    : SyncUnavailableError([&] {
        failures.emplace_back("SSLCertVerificationError");
        if (failures.size() > 20) failures.erase(failures.begin(), failures.end() - 20);
        return make_unavailable_details(
            url, attempts, std::move(statuses), std::move(failures), std::nullopt, json::value("tls"),
            json::value(false), json::value("trust_service_certificate"),
            json::value("the TLS certificate of " + host_name + " could not be verified: " + cause_text), true);
      }()),
      host(std::move(host_name)),
      cause(std::move(cause_text)) {}

bool is_tls_verification_failure(int curl_code) {
  return curl_code == CURLE_PEER_FAILED_VERIFICATION || curl_code == CURLE_SSL_CACERT_BADFILE ||
         curl_code == CURLE_SSL_ISSUER_ERROR;
}

std::optional<std::string> HttpHeaders::get(std::string_view name) const {
  for (auto it = items.rbegin(); it != items.rend(); ++it) {
    if (iequals(it->first, name)) return it->second;
  }
  return std::nullopt;
}

void HttpRequest::set_header(std::string_view name, std::string_view value) {
  headers.erase(std::remove_if(headers.begin(), headers.end(),
                               [&](const auto& h) { return iequals(h.first, name); }),
                headers.end());
  headers.emplace_back(std::string(name), std::string(value));
}

bool HttpRequest::has_header(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& h) { return iequals(h.first, name); });
}

FdSink::FdSink(int fd, std::function<void(std::string_view)> observer)
    : fd_(fd), observer_(std::move(observer)) {}

void FdSink::write(std::string_view bytes) {
  const char* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    ssize_t n = ::write(fd_, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw_os_error(errno, "");
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  if (observer_) observer_(bytes);
  bytes_written_ += static_cast<std::int64_t>(bytes.size());
}

ResponseTooLargeError::ResponseTooLargeError(const std::string& url, std::string_view what, std::int64_t limit,
                                             std::optional<std::int64_t> status)
    : PermanentDownloadError("Response " + std::string(what) + " from " + url + " exceeds " + std::to_string(limit) +
                                 " bytes, the most accepted for it; not retried: the data service is misbehaving, "
                                 "report it to its operator",
                             std::nullopt, status),
      url(url),
      limit(limit) {}

std::string network_failure_class(const Error& error) {
  if (const auto* network = dynamic_cast<const NetworkError*>(&error)) return network->host_class();
  return error.class_name();
}

std::optional<ContentRange> parse_content_range(std::string_view value) {
  value = trim(value);
  if (value.size() < 6 || !iequals(value.substr(0, 6), "bytes ")) return std::nullopt;
  value = trim(value.substr(6));
  auto number = [](std::string_view text) -> std::optional<std::int64_t> {
    if (text.empty() || text.size() > 18) return std::nullopt;
    std::int64_t n = 0;
    for (char c : text) {
      if (c < '0' || c > '9') return std::nullopt;
      n = n * 10 + (c - '0');
    }
    return n;
  };
  std::size_t dash = value.find('-');
  std::size_t slash = value.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || dash > slash) return std::nullopt;
  auto first = number(trim(value.substr(0, dash)));
  auto last = number(trim(value.substr(dash + 1, slash - dash - 1)));
  std::string_view total = trim(value.substr(slash + 1));
  if (!first || !last || *last < *first) return std::nullopt;
  ContentRange range{*first, *last, std::nullopt};
  if (total != "*") {
    range.complete_length = number(total);
    if (!range.complete_length || *range.complete_length <= *last) return std::nullopt;
  }
  return range;
}

// The handles of one client. The transfers run in a multi handle of the
// client's own, which keeps the live connections between them.
struct HttpClient::Handles {
  std::shared_ptr<CurlShare> share = process_share();
  MultiPtr multi{curl_multi_init()};
  EasyPtr easy{curl_easy_init()};
};

// The state of one transfer, shared with libcurl's callbacks.
struct HttpClient::Transfer {
  enum class Abort {
    kNone,
    kStopped,
    kStalled,
    kHeaderDeadline,
    kBodyDeadline,
    kHeadTooLarge,
    kBodyTooLarge,
    kErrorBodyFull,  // not a failure: enough of a non-2xx body is kept
    kCallbackFailed,
    kRedirectRefused,  // not a failure: the redirect is the answer
  };

  Transfer(const TransferOptions& options, BodySink* sink) : options(options), sink(sink) {}

  const TransferOptions& options;
  BodySink* sink;  // null: the body is kept in `body`
  CURL* easy = nullptr;

  long final_status = 0;
  bool body_decided = false;  // whether the current response's body goes to the sink
  bool body_to_sink = false;
  bool body_is_error = false;  // the current response is not 2xx
  std::string body;
  std::int64_t body_bytes_2xx = 0;  // of the current response, to the sink or to `body`
  std::int64_t sink_bytes = 0;
  HttpHeaders headers;  // of the latest response block
  std::int64_t block_status = 0;  // of the latest response block
  std::int64_t head_bytes = 0;

  bool connected = false;
  Clock::time_point started = Clock::now();
  bool head_complete = false;  // the final response's head has arrived
  // The next header line opens a response: at the start and after the blank
  // line that ends a head. Only there is "HTTP/..." a status line; inside a
  // head it is a (bogus) header line, which must not pass for a new block.
  bool status_line_next = true;
  Clock::time_point last_progress = Clock::now();
  std::optional<Clock::time_point> body_started;
  Clock::time_point next_stop_check = Clock::now();
  curl_off_t download_seen = -1;

  Abort abort = Abort::kNone;
  std::exception_ptr callback_error;
  std::array<char, CURL_ERROR_SIZE> error_text{};

  double header_deadline() const { return options.header_deadline_seconds.value_or(options.timeout_seconds); }

  bool header_deadline_passed(Clock::time_point now) const {
    return !head_complete && now - started > seconds(header_deadline());
  }

  bool body_deadline_passed(Clock::time_point now) const {
    return options.body_deadline_seconds && body_started &&
           now - *body_started > seconds(*options.body_deadline_seconds);
  }

  // Asks the stop predicate, at most every kStopCheckInterval.
  bool stop_requested(Clock::time_point now) {
    if (!options.stop_requested || now < next_stop_check) return false;
    next_stop_check = now + kStopCheckInterval;
    try {
      return options.stop_requested();
    } catch (...) {
      callback_error = std::current_exception();
      abort = Abort::kCallbackFailed;
      return true;
    }
  }

  // Whether the block that just ended is followed by another: an interim
  // 1xx, or a redirect that libcurl follows.
  bool another_block_follows() const {
    if (block_status >= 100 && block_status < 200) return true;
    return block_status >= 300 && block_status < 400 && headers.get("Location").has_value();
  }

  // Whether every Location of the redirect that just ended may be
  // followed (libcurl follows the first; all are checked, so no ordering
  // or blank value can slip one past).
  bool redirect_targets_allowed() const {
    char* current = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &current);
    for (const auto& [name, value] : headers.items) {
      if (iequals(name, "Location") && !redirect_allowed(current, value)) return false;
    }
    return true;
  }

  // false ends the transfer.
  bool header_line(std::string_view line) {
    Clock::time_point now = Clock::now();
    last_progress = now;
    head_bytes += static_cast<std::int64_t>(line.size());
    if (head_bytes > SYNC_RESPONSE_HEAD_MAX_BYTES) {
      abort = Abort::kHeadTooLarge;
      return false;
    }
    if (header_deadline_passed(now)) {
      abort = Abort::kHeaderDeadline;
      return false;
    }
    std::string_view content = line;
    while (!content.empty() && (content.back() == '\n' || content.back() == '\r')) content.remove_suffix(1);
    const bool status_line = status_line_next && content.size() >= 5 && content.substr(0, 5) == "HTTP/";
    status_line_next = false;
    if (status_line) {
      // A new response (after a redirect or an interim 1xx) replaces the last.
      headers.items.clear();
      body.clear();
      body_decided = false;
      body_bytes_2xx = 0;
      body_started.reset();
      head_complete = false;
      block_status = 0;
      std::size_t space = content.find(' ');
      if (space != std::string_view::npos) {
        for (std::size_t i = space + 1; i < content.size() && i < space + 4 && content[i] >= '0' && content[i] <= '9'; ++i) {
          block_status = block_status * 10 + (content[i] - '0');
        }
      }
      return true;
    }
    if (content.empty()) {
      body_started = now;
      status_line_next = true;
      if (!another_block_follows()) {
        head_complete = true;
      } else if (block_status >= 300 && block_status < 400 && !redirect_targets_allowed()) {
        head_complete = true;
        abort = Abort::kRedirectRefused;
        return false;
      }
      return true;
    }
    if ((content.front() == ' ' || content.front() == '\t') && !headers.items.empty()) {
      std::string& value = headers.items.back().second;
      value += ' ';
      value += trim(content);
      return true;
    }
    std::size_t colon = content.find(':');
    if (colon == std::string_view::npos) return true;
    headers.items.emplace_back(std::string(trim(content.substr(0, colon))), std::string(trim(content.substr(colon + 1))));
    return true;
  }

  // Decides where the current response's body goes, at its first bytes.
  // false ends the transfer.
  bool decide_body() {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    body_decided = true;
    body_is_error = status < 200 || status >= 300;
    body_to_sink = sink && !body_is_error;
    if (body_is_error) return true;
    curl_off_t announced = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (options.max_body_bytes && announced > *options.max_body_bytes) {
      abort = Abort::kBodyTooLarge;  // refused before reading it
      return false;
    }
    if (!sink && options.max_body_bytes && announced > 0) {
      body.reserve(static_cast<std::size_t>(announced));  // one allocation, not doublings; bounded by the check above
    }
    if (body_to_sink) {
      try {
        sink->begin(status, headers);
      } catch (...) {
        callback_error = std::current_exception();
        abort = Abort::kCallbackFailed;
        return false;
      }
    }
    return true;
  }

  // false ends the transfer.
  bool body_bytes(const char* data, std::size_t size) {
    Clock::time_point now = Clock::now();
    last_progress = now;
    head_complete = true;
    if (body_deadline_passed(now)) {
      abort = Abort::kBodyDeadline;
      return false;
    }
    if (!body_decided && !decide_body()) return false;
    if (body_is_error) {
      std::size_t room = kMaxErrorBodyBytes - std::min(body.size(), kMaxErrorBodyBytes);
      body.append(data, std::min(size, room));
      if (size > room) {
        abort = Abort::kErrorBodyFull;
        return false;
      }
      return true;
    }
    body_bytes_2xx += static_cast<std::int64_t>(size);
    if (options.max_body_bytes && body_bytes_2xx > *options.max_body_bytes) {
      abort = Abort::kBodyTooLarge;
      return false;
    }
    if (!body_to_sink) {
      body.append(data, size);
      return true;
    }
    const auto piece = static_cast<std::size_t>(sync_http_response_read_bytes());
    try {
      for (std::size_t offset = 0; offset < size; offset += piece) {
        std::size_t n = std::min(piece, size - offset);
        sink->write(std::string_view(data + offset, n));
        sink_bytes += static_cast<std::int64_t>(n);
      }
    } catch (...) {
      callback_error = std::current_exception();
      abort = Abort::kCallbackFailed;
      return false;
    }
    return true;
  }

  // Nonzero ends the transfer.
  int progress(curl_off_t download_now) {
    Clock::time_point now = Clock::now();
    if (download_now != download_seen) {
      download_seen = download_now;
      last_progress = now;
    }
    if (stop_requested(now)) {
      if (abort == Abort::kNone) abort = Abort::kStopped;
      return 1;
    }
    // Before the connection stands, the connect timeout governs.
    if (connected && now - last_progress > seconds(options.timeout_seconds)) {
      abort = Abort::kStalled;
      return 1;
    }
    if (header_deadline_passed(now)) {
      abort = Abort::kHeaderDeadline;
      return 1;
    }
    if (body_deadline_passed(now)) {
      abort = Abort::kBodyDeadline;
      return 1;
    }
    return 0;
  }

  static std::size_t on_header(char* data, std::size_t size, std::size_t count, void* self) {
    return static_cast<Transfer*>(self)->header_line(std::string_view(data, size * count)) ? size * count : 0;
  }
  static std::size_t on_body(char* data, std::size_t size, std::size_t count, void* self) {
    return static_cast<Transfer*>(self)->body_bytes(data, size * count) ? size * count : 0;
  }
  static int on_progress(void* self, curl_off_t, curl_off_t download_now, curl_off_t, curl_off_t) {
    return static_cast<Transfer*>(self)->progress(download_now);
  }
  static int on_connected(void* self, char*, char*, int, int) {
    auto* transfer = static_cast<Transfer*>(self);
    transfer->connected = true;
    transfer->last_progress = Clock::now();
    return CURL_PREREQFUNC_OK;
  }
};

namespace {

// What curl_easy_perform does, except that it waits for the sockets only
// while the transfer still needs them: a small answer that is there by the
// time the request is sent costs no wait at all. The wait wakes at least
// every second, so that the progress callback sees a stop request.
CURLcode run_transfer(CURLM* multi, CURL* easy) {
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) return CURLE_FAILED_INIT;
  struct Detach {
    CURLM* multi;
    CURL* easy;
    ~Detach() { curl_multi_remove_handle(multi, easy); }
  } detach{multi, easy};
  int running = 0;
  CURLMcode mc = curl_multi_perform(multi, &running);
  while (mc == CURLM_OK && running > 0) {
    mc = curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    if (mc == CURLM_OK) mc = curl_multi_perform(multi, &running);
  }
  if (mc != CURLM_OK) return mc == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_BAD_FUNCTION_ARGUMENT;
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
    if (message->msg == CURLMSG_DONE && message->easy_handle == easy) return message->data.result;
  }
  return CURLE_FAILED_INIT;
}

}  // namespace

HttpClient::HttpClient() : handles_(std::make_unique<Handles>()) {}
HttpClient::~HttpClient() = default;

HttpClient& HttpClient::for_current_thread() {
  thread_local HttpClient client;
  return client;
}

void HttpClient::perform(const HttpRequest& request, Transfer& transfer) {
  CURL* easy = handles_->easy.get();
  CURLM* multi = handles_->multi.get();
  if (!easy || !multi || !handles_->share->get()) throw OSError("libcurl could not be initialised");
  transfer.easy = easy;

  // A reset keeps the live connections, the DNS cache and the TLS sessions.
  curl_easy_reset(easy);
  SlistPtr header_list;
  for (const auto& [name, value] : request.headers) {
    std::string line = name + ": " + value;
    curl_slist* head = curl_slist_append(header_list.get(), line.c_str());
    if (!head) throw OSError("out of memory building request headers", ENOMEM);
    (void)header_list.release();  // `head` is the same list, grown by one
    header_list.reset(head);
  }

  const double timeout = transfer.options.timeout_seconds;
  const long timeout_ms = timeout > 0 ? static_cast<long>(std::min(std::ceil(timeout * 1000.0), 2.0e9)) : 0;

  curl_easy_setopt(easy, CURLOPT_SHARE, handles_->share->get());
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(easy, CURLOPT_NOPROXY, no_proxy_hosts().c_str());  // copied by libcurl
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, header_list.get());
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeout_ms);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, static_cast<long>(sync_http_response_read_bytes()));
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (const char* bundle = env_or_null("SSL_CERT_FILE")) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, bundle);
  } else if (const char* curl_bundle = env_or_null("CURL_CA_BUNDLE")) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, curl_bundle);
  } else if (const std::string& system_bundle = default_ca_bundle(); !system_bundle.empty()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, system_bundle.c_str());
  }
  if (const char* dir = env_or_null("SSL_CERT_DIR")) curl_easy_setopt(easy, CURLOPT_CAPATH, dir);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.error_text.data());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::on_header);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::on_body);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Transfer::on_progress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &Transfer::on_connected);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, &transfer);

  transfer.started = transfer.last_progress = Clock::now();
  CURLcode rc = run_transfer(multi, easy);
  // The request's header list dies with this frame; no handle may keep it.
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, nullptr);

  switch (transfer.abort) {
    case Transfer::Abort::kNone: break;
    case Transfer::Abort::kErrorBodyFull: rc = CURLE_OK; break;
    case Transfer::Abort::kRedirectRefused:
      // The redirect is returned as it came; the caller sees a status that is not the data.
      transfer.final_status = static_cast<long>(transfer.block_status);
      transfer.body.clear();
      return;
    case Transfer::Abort::kCallbackFailed: std::rethrow_exception(transfer.callback_error);
    case Transfer::Abort::kStopped: throw SyncBackoffCancelled("HTTP transfer cancelled: stop requested");
    case Transfer::Abort::kStalled: throw TimeoutError("timed out");
    case Transfer::Abort::kHeaderDeadline:
      throw TimeoutError("response headers not complete within " + format_float(transfer.header_deadline()) + " s");
    case Transfer::Abort::kBodyDeadline: throw TimeoutError("response body read exceeded configured deadline");
    case Transfer::Abort::kHeadTooLarge:
      throw ResponseTooLargeError(request.url, "head", SYNC_RESPONSE_HEAD_MAX_BYTES, std::nullopt);
    case Transfer::Abort::kBodyTooLarge:
      throw ResponseTooLargeError(request.url, "body", *transfer.options.max_body_bytes, transfer.block_status);
  }
  if (rc != CURLE_OK) {
    std::string text = transfer.error_text[0] ? std::string(transfer.error_text.data()) : curl_easy_strerror(rc);
    if (is_tls_verification_failure(rc)) {
      // The host that failed, which after a redirect is not the request's.
      char* effective = nullptr;
      curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
      std::string host = split_url(effective ? effective : request.url).hostname();
      throw TlsVerificationError(request.url, host.empty() ? "<unknown>" : host, text);
    }
    switch (rc) {
      case CURLE_GOT_NOTHING:
        throw NetworkError("RemoteDisconnected", "Remote end closed connection without response");
      case CURLE_RECV_ERROR:
      case CURLE_HTTP2:
      case CURLE_HTTP2_STREAM:
        throw NetworkError("ConnectionResetError", text);
      case CURLE_PARTIAL_FILE:
        throw NetworkError("IncompleteRead", text);
      case CURLE_WEIRD_SERVER_REPLY:
        throw NetworkError("BadStatusLine", text);
      case CURLE_UNSUPPORTED_PROTOCOL:
        // Also what libcurl says about an answer without a status line.
        throw NetworkError(transfer.connected ? "BadStatusLine" : "URLError", text);
      default:
        throw NetworkError("URLError", text);
    }
  }
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &transfer.final_status);
}

HttpResponse HttpClient::get(const HttpRequest& request, const TransferOptions& options) {
  if (busy_) {
    HttpClient nested;
    return nested.get(request, options);
  }
  busy_ = true;
  struct Release {
    bool& flag;
    ~Release() { flag = false; }
  } release{busy_};

  Transfer transfer(options, nullptr);
  perform(request, transfer);
  HttpResponse response;
  response.status = transfer.final_status;
  response.headers = std::move(transfer.headers);
  response.body = std::move(transfer.body);
  return response;
}

DownloadResult HttpClient::download(const HttpRequest& request, BodySink& sink, const TransferOptions& options) {
  if (busy_) {
    HttpClient nested;
    return nested.download(request, sink, options);
  }
  busy_ = true;
  struct Release {
    bool& flag;
    ~Release() { flag = false; }
  } release{busy_};

  Transfer transfer(options, &sink);
  perform(request, transfer);
  DownloadResult result;
  result.status = transfer.final_status;
  result.headers = std::move(transfer.headers);
  result.body_bytes = transfer.sink_bytes;
  result.error_body = std::move(transfer.body);
  return result;
}

}  // namespace tidewright::sync
