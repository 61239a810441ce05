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

std::string read_file_or_empty(const std::string& path, std::size_t limit = std::string::npos) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return "";
  std::string out;
  char buffer[65536];
  while (out.size() < limit) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buffer, std::min(static_cast<std::size_t>(n), limit - out.size()));
  }
  return out;
}

std::int64_t file_size_or_zero(const std::string& path) {
  try {
    return file_size(path);
  } catch (const std::exception&) {
    return 0;
  }
}

// Copies a file into the sink in pieces of the response read size.
std::int64_t copy_file_to_sink(const std::string& path, BodySink& sink) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return 0;
  std::string buffer(static_cast<std::size_t>(sync_http_response_read_bytes()), '\0');
  std::int64_t total = 0;
  while (true) {
    ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw_os_error(errno, path);
    if (n == 0) return total;
    sink.write(std::string_view(buffer.data(), static_cast<std::size_t>(n)));
    total += n;
  }
}

std::string curl_failure_text(const CurlRun& run) {
  std::string text = strip_ws(utf8_with_replacement(run.stderr_bytes));
  if (!text.empty()) return text;
  return "curl exited with status " + std::to_string(run.exit_status);
}

struct CurlOutcome {
  CurlRun run;
  std::int64_t status = 0;
  HttpHeaders headers;
  bool http_error() const { return status >= 400 && status <= 599; }
};

CurlOutcome run_curl(const HttpRequest& request, double timeout, const std::string& headers_path,
                     const std::string& body_path, const StopPredicate& stop_requested) {
  std::optional<std::string> curl = find_curl_binary();
  if (!curl) throw NetworkError("URLError", "curl transport requested but curl is not available");
  CurlOutcome outcome;
  outcome.run = run_curl_command(curl_command(*curl, request, timeout, headers_path, body_path), stop_requested);
  outcome.headers = parse_curl_headers(read_file_or_empty(headers_path));
  outcome.status = curl_status_from_stdout(outcome.run.stdout_bytes);
  return outcome;
}

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
      "-4",
      "-sS",
      "-L",
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
  if (argv.empty()) throw ValueError("empty command line");
  Pipe out = make_pipe();
  Pipe err = make_pipe();

  SpawnActions actions;
  posix_spawn_file_actions_addopen(actions.get(), 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(actions.get(), out.write_end.get(), 1);
  posix_spawn_file_actions_adddup2(actions.get(), err.write_end.get(), 2);
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
  ChildProcess child(pid);
  out.write_end.reset();
  err.write_end.reset();

  CurlRun run;
  auto next_stop_check = std::chrono::steady_clock::now();
  while (out.read_end.valid() || err.read_end.valid()) {
    auto now = std::chrono::steady_clock::now();
    if (stop_requested && now >= next_stop_check) {
      next_stop_check = now + std::chrono::milliseconds(kPollMillis);
      if (stop_requested()) throw SyncBackoffCancelled("curl transfer cancelled: stop requested");  // ~ChildProcess kills it
    }
    pollfd fds[2];
    nfds_t count = 0;
    UniqueFd* sources[2];
    std::string* targets[2];
    if (out.read_end.valid()) {
      fds[count] = {out.read_end.get(), POLLIN, 0};
      sources[count] = &out.read_end;
      targets[count++] = &run.stdout_bytes;
    }
    if (err.read_end.valid()) {
      fds[count] = {err.read_end.get(), POLLIN, 0};
      sources[count] = &err.read_end;
      targets[count++] = &run.stderr_bytes;
    }
    int ready = ::poll(fds, count, kPollMillis);
    if (ready < 0) {
      if (errno == EINTR) continue;
      throw_os_error(errno, "poll");
    }
    for (nfds_t i = 0; i < count; ++i) {
      if (fds[i].revents != 0) drain(*sources[i], *targets[i]);
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

HttpResponse curl_request(const HttpRequest& request, double timeout, const StopPredicate& stop_requested) {
  TempDir dir("tidewright-curl-");
  const std::string headers_path = path_join(dir.path(), "headers.txt");
  const std::string body_path = path_join(dir.path(), "body.bin");
  CurlOutcome outcome = run_curl(request, timeout, headers_path, body_path, stop_requested);
  if (outcome.run.exit_status != 0 && !outcome.http_error()) {
    throw NetworkError("URLError", curl_failure_text(outcome.run));
  }
  HttpResponse response;
  response.status = outcome.status;
  response.headers = std::move(outcome.headers);
  response.body = read_file_or_empty(body_path);
  return response;
}

DownloadResult curl_download(const HttpRequest& request, BodySink& sink, double timeout,
                             const StopPredicate& stop_requested) {
  TempDir dir("tidewright-curl-");
  const std::string headers_path = path_join(dir.path(), "headers.txt");
  const std::string body_path = path_join(dir.path(), "body.bin");
  CurlOutcome outcome = run_curl(request, timeout, headers_path, body_path, stop_requested);
  DownloadResult result;
  result.status = outcome.status;
  result.headers = std::move(outcome.headers);
  if (outcome.status >= 200 && outcome.status < 300) {
    // On a failed run this is the prefix that arrived before the failure.
    if (file_size_or_zero(body_path) > 0) sink.begin(result.status, result.headers);
    result.body_bytes = copy_file_to_sink(body_path, sink);
  } else {
    result.error_body = read_file_or_empty(body_path, DownloadResult::kMaxErrorBodyBytes);
  }
  if (outcome.run.exit_status != 0 && !outcome.http_error()) {
    throw NetworkError("URLError", curl_failure_text(outcome.run));
  }
  return result;
}

}  // namespace tidewright::sync
