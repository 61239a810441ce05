#include "tidewright/sync/transport/curl_program.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

extern char** environ;

namespace tidewright::sync {

namespace {

constexpr std::size_t kCaptureLimit = 64 * 1024;
constexpr int kPollMillis = 100;

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  }
  return true;
}

std::string shortest_number(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%g", value);
  return buffer;
}

// Invalid UTF-8 replaced by U+FFFD, so that error texts are always text.
std::string utf8_with_replacement(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  std::size_t i = 0;
  while (i < bytes.size()) {
    auto c = static_cast<unsigned char>(bytes[i]);
    std::size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    bool ok = n > 0 && i + n <= bytes.size() && !(n == 2 && c < 0xC2);
    for (std::size_t k = 1; ok && k < n; ++k) ok = (static_cast<unsigned char>(bytes[i + k]) & 0xC0) == 0x80;
    if (ok && n == 3) {
      auto c1 = static_cast<unsigned char>(bytes[i + 1]);
      ok = !(c == 0xE0 && c1 < 0xA0) && !(c == 0xED && c1 >= 0xA0);
    }
    if (ok && n == 4) {
      auto c1 = static_cast<unsigned char>(bytes[i + 1]);
      ok = !(c == 0xF0 && c1 < 0x90) && !(c == 0xF4 && c1 >= 0x90) && c <= 0xF4;
    }
    if (ok) {
      out.append(bytes.substr(i, n));
      i += n;
    } else {
      out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out;
}

// A fresh directory under the temporary root, removed with its contents.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix) {
    const char* root = nullptr;
    for (const char* name : {"TMPDIR", "TEMP", "TMP"}) {
      const char* value = std::getenv(name);
      if (value && *value) {
        root = value;
        break;
      }
    }
    std::string pattern = path_join(root ? root : "/tmp", prefix + "XXXXXX");
    if (!::mkdtemp(pattern.data())) throw_os_error(errno, pattern);
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class SpawnActions {
 public:
  SpawnActions() { posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
 public:
  SpawnAttributes() { posix_spawnattr_init(&attributes_); }
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

// A running child; killed and reaped if it is still there when dropped.
class ChildProcess {
 public:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  ~ChildProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The exit status; the negated signal number when a signal ended it.
  int wait() {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0) {
      if (errno != EINTR) {
        pid_ = -1;
        return -1;
      }
    }
    pid_ = -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return -WTERMSIG(status);
    return -1;
  }

 private:
  pid_t pid_;
};

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;
};

Pipe make_pipe() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw_os_error(errno, "pipe");
  return Pipe{UniqueFd(fds[0]), UniqueFd(fds[1])};
}

// Reads what is available on `fd` into `into` (keeping at most
// kCaptureLimit bytes); closes it at end of file.
void drain(UniqueFd& fd, std::string& into) {
  char buffer[16384];
  ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
  if (n < 0) {
    if (errno == EINTR || errno == EAGAIN) return;
    fd.reset();
    return;
  }
  if (n == 0) {
    fd.reset();
    return;
  }
  std::size_t room = kCaptureLimit - std::min(into.size(), kCaptureLimit);
  into.append(buffer, std::min(static_cast<std::size_t>(n), room));
}

std::string curl_failure_text(const CurlRun& run) {
  std::string text = strip_ws(utf8_with_replacement(run.stderr_bytes));
  if (!text.empty()) return text;
  return "curl exited with status " + std::to_string(run.exit_status);
}

// A failed run as the in-process client would report it: a certificate
// that does not verify is a TlsVerificationError (with the first line of
// curl's text, the rest is advice for curl's users), anything else a
// NetworkError("URLError").
[[noreturn]] void throw_curl_failure(const HttpRequest& request, const CurlRun& run) {
  std::string text = curl_failure_text(run);
  if (is_tls_verification_failure(run.exit_status)) {
    std::string cause = text.substr(0, text.find('\n'));
    constexpr std::string_view kPrefix = "curl: ";
    if (cause.rfind(kPrefix, 0) == 0) cause.erase(0, kPrefix.size());
    // "(60) SSL certificate problem: ...": the code says no more than the text.
    if (std::size_t code_end = cause.find(") "); !cause.empty() && cause.front() == '(' && code_end != std::string::npos) {
      cause.erase(0, code_end + 2);
    }
    throw TlsVerificationError(request.url, request_host(request), strip_ws(cause));
  }
  throw NetworkError("URLError", text);
}

// The target of "-o": the pipe that run_curl_process puts at this
// descriptor in the child, so the body streams to us as it arrives and is
// never stored on the way.
constexpr int kBodyFd = 3;
constexpr const char* kBodyTarget = "/dev/fd/3";

// Curl's exit status for a protocol it may not use (CURLE_UNSUPPORTED_PROTOCOL).
constexpr int kCurlUnsupportedProtocol = 1;

// Ends a run once enough of an error body is kept.
struct ErrorBodyFull {};

// Whether a "-D" dump holds the complete head of a final response: a block
// ended by an empty line that is neither an interim 1xx nor a redirect curl
// follows (a 3xx with a Location).
bool final_head_complete(std::string_view dump) {
  std::int64_t status = 0;
  bool location = false;
  while (!dump.empty()) {
    std::size_t end = dump.find('\n');
    if (end == std::string_view::npos) return false;  // a line still being written
    std::string_view line = dump.substr(0, end);
    dump.remove_prefix(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.substr(0, 5) == "HTTP/") {
      status = curl_status_from_stdout(line);
      location = false;
    } else if (line.empty()) {
      bool another_follows = (status >= 100 && status < 200) || (status >= 300 && status < 400 && location);
      if (status > 0 && !another_follows) return true;
    } else if (line.size() >= 9 && iequals(line.substr(0, 9), "location:")) {
      location = true;
    }
  }
  return false;
}

// One request through curl: the head comes from curl's header dump, the
// body through a pipe. A 2xx body goes to the sink (or, without one, to
// memory), any other body to memory up to kMaxErrorBodyBytes.
class CurlExchange {
 public:
  CurlExchange(const HttpRequest& request, const TransferOptions& options, BodySink* sink)
      : request_(request), options_(options), sink_(sink), dir_("tidewright-curl-"),
        headers_path_(path_join(dir_.path(), "headers.txt")) {}

  void run() {
    std::optional<std::string> curl = find_curl_binary();
    if (!curl) throw NetworkError("URLError", "curl transport requested but curl is not available");
    started_ = std::chrono::steady_clock::now();
    try {
      run_ = run_curl_process(
          curl_command(*curl, request_, options_.timeout_seconds, headers_path_, kBodyTarget),
          options_.stop_requested, [this](std::string_view bytes) { body(bytes); }, [this] { tick(); });
    } catch (const ErrorBodyFull&) {
      run_ = CurlRun{};  // the status of the head is the answer
    }
    read_head();
    head_text_.resize(std::min(head_text_.size(), static_cast<std::size_t>(SYNC_RESPONSE_HEAD_MAX_BYTES)));
    headers_ = parse_curl_headers(head_text_);
    status_ = curl_status_from_stdout(run_.stdout_bytes);
    if (status_ == 0) status_ = last_head_status();
  }

  bool http_error() const { return status_ >= 400 && status_ <= 599; }
  bool failed() const { return run_.exit_status != 0 && !http_error() && !refused_redirect(); }
  // Curl stopped at a redirect that --proto-redir does not allow: as the
  // in-process client does, the redirect is the answer.
  bool refused_redirect() const {
    return run_.exit_status == kCurlUnsupportedProtocol && status_ >= 300 && status_ < 400;
  }
  const CurlRun& process() const { return run_; }
  std::int64_t status() const { return status_; }
  HttpHeaders& headers() { return headers_; }
  std::string& kept_body() { return body_; }
  std::int64_t sink_bytes() const { return sink_bytes_; }
  bool body_is_2xx() const { return decided_ && !body_is_error_; }

 private:
  // New bytes of the header dump (curl flushes it line by line).
  void read_head() {
    if (!head_fd_.valid()) {
      head_fd_ = UniqueFd(::open(headers_path_.c_str(), O_RDONLY | O_CLOEXEC));
      if (!head_fd_.valid()) return;
    }
    char buffer[16384];
    while (true) {
      ssize_t n = ::read(head_fd_.get(), buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      head_text_.append(buffer, static_cast<std::size_t>(n));
      if (static_cast<std::int64_t>(head_text_.size()) > SYNC_RESPONSE_HEAD_MAX_BYTES) {
        throw ResponseTooLargeError(request_.url, "head", SYNC_RESPONSE_HEAD_MAX_BYTES, std::nullopt);
      }
    }
  }

  // The status of the last response block ("HTTP/" at the start of a line).
  std::int64_t last_head_status() const {
    std::int64_t status = 0;
    std::string_view rest = head_text_;
    while (!rest.empty()) {
      std::size_t end = rest.find('\n');
      std::string_view line = rest.substr(0, end);
      if (line.substr(0, 5) == "HTTP/") status = curl_status_from_stdout(line);
      if (end == std::string_view::npos) break;
      rest.remove_prefix(end + 1);
    }
    return status;
  }

  double since_start() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  }

  // Every poll round of the run.
  void tick() {
    if (!head_complete_) {
      read_head();
      if (final_head_complete(head_text_)) {
        head_complete_ = true;
        head_done_at_ = since_start();
      }
    }
    const double header_deadline = options_.header_deadline_seconds.value_or(options_.timeout_seconds);
    if (!head_complete_ && since_start() > header_deadline) {
      throw TimeoutError("response headers not complete within " + format_float(header_deadline) + " s");
    }
    if (head_complete_ && options_.body_deadline_seconds &&
        since_start() - head_done_at_ > *options_.body_deadline_seconds) {
      throw TimeoutError("response body read exceeded configured deadline");
    }
  }

  void body(std::string_view bytes) {
    if (!decided_) decide();
    if (body_is_error_) {
      std::size_t room = kMaxErrorBodyBytes - std::min(body_.size(), kMaxErrorBodyBytes);
      body_.append(bytes.substr(0, std::min(bytes.size(), room)));
      if (bytes.size() > room) throw ErrorBodyFull{};
      return;
    }
    body_2xx_ += static_cast<std::int64_t>(bytes.size());
    if (options_.max_body_bytes && body_2xx_ > *options_.max_body_bytes) {
      throw ResponseTooLargeError(request_.url, "body", *options_.max_body_bytes, status_);
    }
    if (!sink_) {
      body_.append(bytes);
      return;
    }
    sink_->write(bytes);
    sink_bytes_ += static_cast<std::int64_t>(bytes.size());
  }

  // At the first body bytes: curl has written the whole head by now.
  void decide() {
    decided_ = true;
    read_head();
    if (!head_complete_) {
      head_complete_ = true;
      head_done_at_ = since_start();
    }
    status_ = last_head_status();
    body_is_error_ = status_ < 200 || status_ >= 300;
    if (!body_is_error_ && sink_) sink_->begin(status_, parse_curl_headers(head_text_));
  }

  const HttpRequest& request_;
  const TransferOptions& options_;
  BodySink* sink_;
  TempDir dir_;
  std::string headers_path_;
  UniqueFd head_fd_;
  std::string head_text_;
  std::chrono::steady_clock::time_point started_;
  bool head_complete_ = false;
  double head_done_at_ = 0;
  bool decided_ = false;
  bool body_is_error_ = false;
  std::string body_;  // a 2xx body without a sink, or an error body
  std::int64_t body_2xx_ = 0;
  std::int64_t sink_bytes_ = 0;
  CurlRun run_;
  HttpHeaders headers_;
  std::int64_t status_ = 0;
};

}  // namespace

std::optional<std::string> find_curl_binary() {
  const char* path_env = std::getenv("PATH");
  std::string_view search = path_env ? path_env : "/bin:/usr/bin";
  while (true) {
    std::size_t colon = search.find(':');
    std::string_view dir = search.substr(0, colon);
    if (!dir.empty()) {
      std::string candidate = path_join(dir, "curl");
      struct stat st {};
      if (::stat(candidate.c_str(), &st) == 0 && !S_ISDIR(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0) {
        return candidate;
      }
    }
    if (colon == std::string_view::npos) return std::nullopt;
    search.remove_prefix(colon + 1);
  }
}

std::string request_host(const HttpRequest& request) { return split_url(request.url).hostname(); }

bool curl_auto_host(const HttpRequest& request) {
  const std::string host = request_host(request);
  const std::string suffix = "." + std::string(SYNC_CURL_DEFAULT_DATA_HOST);
  return host == SYNC_CURL_DEFAULT_DATA_HOST ||
         (host.size() > suffix.size() && host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0);
}

bool should_use_curl_transport(const HttpRequest& request, const json::value* transport) {
  const std::string mode = sync_http_transport(transport);
  if (mode == "urllib") return false;
  if (request.has_header("Authorization")) return false;
  if (split_url(request.url).scheme != "https") return false;
  if (mode == "auto" && !curl_auto_host(request)) return false;
  return find_curl_binary().has_value();
}

std::vector<std::string> curl_command(const std::string& curl_path, const HttpRequest& request, double timeout,
                                      const std::string& headers_path, const std::string& body_path) {
  std::vector<std::string> argv = {
      curl_path,
      "-q",  // first, or it is ignored: a user's ~/.curlrc must not change what this run does
      "-4",
      "-sS",
      "-L",
      "--proto-redir",  // redirects to https only: never to clear text, nor to another protocol
      "=https",
      "--connect-timeout",
      shortest_number(std::min(timeout, SYNC_CURL_CONNECT_TIMEOUT_SECONDS)),
      "--speed-limit",
      std::to_string(SYNC_CURL_LOW_SPEED_LIMIT_BYTES_PER_SECOND),
      "--speed-time",
      shortest_number(timeout),
      "--retry",
      std::to_string(SYNC_CURL_RETRIES),
      "--retry-delay",
      std::to_string(SYNC_CURL_RETRY_DELAY_SECONDS),
      "-D",
      headers_path,
      "-o",
      body_path,
      "-w",
      "%{http_code}",
  };
  for (const auto& [name, value] : request.headers) {
    if (iequals(name, "User-Agent")) continue;
    argv.emplace_back("-H");
    argv.emplace_back(name + ": " + value);
  }
  argv.emplace_back("-A");
  argv.emplace_back(SYNC_USER_AGENT);
  argv.push_back(request.url);
  return argv;
}

CurlRun run_curl_command(const std::vector<std::string>& argv, const StopPredicate& stop_requested) {
  return run_curl_process(argv, stop_requested, {}, {});
}

CurlRun run_curl_process(const std::vector<std::string>& argv, const StopPredicate& stop_requested,
                         const std::function<void(std::string_view)>& on_body, const std::function<void()>& on_tick) {
  if (argv.empty()) throw ValueError("empty command line");
  Pipe out = make_pipe();
  Pipe err = make_pipe();
  std::optional<Pipe> body;
  if (on_body) body = make_pipe();

  SpawnActions actions;
  posix_spawn_file_actions_addopen(actions.get(), 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(actions.get(), out.write_end.get(), 1);
  posix_spawn_file_actions_adddup2(actions.get(), err.write_end.get(), 2);
  if (body) posix_spawn_file_actions_adddup2(actions.get(), body->write_end.get(), kBodyFd);
  // The module ignores SIGPIPE and worker threads may block signals; the
  // child starts with the defaults, as any program expects.
  SpawnAttributes attributes;
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGXFSZ);
  sigset_t empty_mask;
  sigemptyset(&empty_mask);
  posix_spawnattr_setsigdefault(attributes.get(), &defaults);
  posix_spawnattr_setsigmask(attributes.get(), &empty_mask);
  posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0].c_str(), actions.get(), attributes.get(), args.data(), environ);
  if (rc != 0) throw_os_error(rc, argv[0]);
  // Whatever ends this call early (a stop, a callback's exception) kills
  // and reaps the child on the way out.
  ChildProcess child(pid);
  out.write_end.reset();
  err.write_end.reset();
  if (body) body->write_end.reset();

  CurlRun run;
  std::string body_buffer;
  if (body) body_buffer.resize(static_cast<std::size_t>(sync_http_response_read_bytes()));
  auto next_stop_check = std::chrono::steady_clock::now();
  while (out.read_end.valid() || err.read_end.valid() || (body && body->read_end.valid())) {
    auto now = std::chrono::steady_clock::now();
    if (stop_requested && now >= next_stop_check) {
      next_stop_check = now + std::chrono::milliseconds(kPollMillis);
      if (stop_requested()) throw SyncBackoffCancelled("curl transfer cancelled: stop requested");
    }
    if (on_tick) on_tick();
    pollfd fds[3];
    nfds_t count = 0;
    UniqueFd* sources[3];
    if (out.read_end.valid()) {
      sources[count] = &out.read_end;
      fds[count++] = {out.read_end.get(), POLLIN, 0};
    }
    if (err.read_end.valid()) {
      sources[count] = &err.read_end;
      fds[count++] = {err.read_end.get(), POLLIN, 0};
    }
    if (body && body->read_end.valid()) {
      sources[count] = &body->read_end;
      fds[count++] = {body->read_end.get(), POLLIN, 0};
    }
    int ready = ::poll(fds, count, kPollMillis);
    if (ready < 0) {
      if (errno == EINTR) continue;
      throw_os_error(errno, "poll");
    }
    for (nfds_t i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      if (sources[i] == &out.read_end) {
        drain(out.read_end, run.stdout_bytes);
      } else if (sources[i] == &err.read_end) {
        drain(err.read_end, run.stderr_bytes);
      } else {
        ssize_t n = ::read(body->read_end.get(), body_buffer.data(), body_buffer.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) {
          body->read_end.reset();
          continue;
        }
        on_body(std::string_view(body_buffer.data(), static_cast<std::size_t>(n)));
      }
    }
  }
  run.exit_status = child.wait();
  return run;
}

HttpHeaders parse_curl_headers(std::string_view text) {
  HttpHeaders headers;
  while (!text.empty()) {
    std::size_t end = text.find_first_of("\r\n");
    std::string_view line = text.substr(0, end);
    if (end == std::string_view::npos) {
      text = {};
    } else {
      std::size_t next = end + 1;
      if (text[end] == '\r' && next < text.size() && text[next] == '\n') ++next;
      text.remove_prefix(next);
    }
    if (line.substr(0, 5) == "HTTP/") {
      headers.items.clear();
      continue;
    }
    std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string name = strip_ws(line.substr(0, colon));
    std::string value = strip_ws(line.substr(colon + 1));
    headers.items.emplace_back(std::move(name), std::move(value));
  }
  return headers;
}

std::int64_t curl_status_from_stdout(std::string_view stdout_bytes) {
  const std::string text = strip_ws(utf8_with_replacement(stdout_bytes));
  std::vector<std::string_view> lines;
  std::string_view rest = text;
  while (!rest.empty()) {
    std::size_t end = rest.find_first_of("\r\n");
    lines.push_back(rest.substr(0, end));
    if (end == std::string_view::npos) break;
    std::size_t next = end + 1;
    if (rest[end] == '\r' && next < rest.size() && rest[next] == '\n') ++next;
    rest.remove_prefix(next);
  }
  if (lines.empty()) return 0;
  if (auto status = to_int(json::value(std::string(lines.back())))) return *status;
  for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
    if (it->substr(0, 5) != "HTTP/") continue;
    std::string_view fields = *it;
    std::size_t space = fields.find(' ');
    if (space == std::string_view::npos) continue;
    fields.remove_prefix(space + 1);
    std::string token(fields.substr(0, fields.find(' ')));
    if (auto status = to_int(json::value(token))) return *status;
  }
  return 0;
}

HttpResponse curl_request(const HttpRequest& request, const TransferOptions& options) {
  CurlExchange exchange(request, options, nullptr);
  exchange.run();
  if (exchange.failed()) throw_curl_failure(request, exchange.process());
  HttpResponse response;
  response.status = exchange.status();
  response.headers = std::move(exchange.headers());
  response.body = std::move(exchange.kept_body());
  return response;
}

DownloadResult curl_download(const HttpRequest& request, BodySink& sink, const TransferOptions& options) {
  CurlExchange exchange(request, options, &sink);
  exchange.run();
  // On a failed run, what reached the sink is the prefix that arrived
  // before the failure.
  if (exchange.failed()) throw_curl_failure(request, exchange.process());
  DownloadResult result;
  result.status = exchange.status();
  result.headers = std::move(exchange.headers());
  result.body_bytes = exchange.sink_bytes();
  if (!exchange.body_is_2xx()) result.error_body = std::move(exchange.kept_body());
  return result;
}

}  // namespace tidewright::sync
