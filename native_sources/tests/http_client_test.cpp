#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "fake_host.hpp"
#include "tidewright/sync/transport/curl_program.hpp"
#include "tidewright/sync/transport/http_client.hpp"
#include "tidewright/sync/transport/http_request.hpp"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <thread>

namespace tidewright::sync {
namespace {

using test_support::message_of;
using test_support::TempDir;

using namespace std::chrono_literals;

// What the module does at load.
[[maybe_unused]] const bool kProcessReady = [] {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::signal(SIGPIPE, SIG_IGN);
  return true;
}();

TransferOptions options(double timeout, std::optional<double> body_deadline = std::nullopt, StopPredicate stop = {}) {
  TransferOptions o;
  o.timeout_seconds = timeout;
  o.body_deadline_seconds = body_deadline;
  o.stop_requested = std::move(stop);
  return o;
}

// One accepted connection of the test server.
class Connection {
 public:
  explicit Connection(int fd) : fd_(fd) {}
  // The next request's head, or empty at end of stream.
  std::string read_request() {
    while (true) {
      std::size_t end = pending_.find("\r\n\r\n");
      if (end != std::string::npos) {
        std::string head = pending_.substr(0, end + 4);
        pending_.erase(0, end + 4);
        return head;
      }
      char buffer[4096];
      ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return "";
      pending_.append(buffer, static_cast<std::size_t>(n));
    }
  }
  void send(std::string_view data) {
    while (!data.empty()) {
      ssize_t n = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
      if (n <= 0) return;
      data.remove_prefix(static_cast<std::size_t>(n));
    }
  }
 private:
  int fd_;
  std::string pending_;
};

std::string response(int status, std::string_view body, std::string_view extra_headers = "") {
  return "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
         std::string(extra_headers) + "\r\n" + std::string(body);
}

// A tiny HTTP server on 127.0.0.1: every connection runs `handler` on its
// own thread. Dropping the server shuts every connection down and joins.
class TestServer {
 public:
  using Handler = std::function<void(Connection&)>;

  explicit TestServer(Handler handler) : handler_(std::move(handler)) {
    listen_fd_ = UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listen_fd_.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listen_fd_.get(), 16) != 0 ||
        ::getsockname(listen_fd_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("test server cannot listen");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept_loop(); });
  }
  ~TestServer() {
    stopping_ = true;
    ::shutdown(listen_fd_.get(), SHUT_RDWR);
    acceptor_.join();
    {
      std::lock_guard<std::mutex> lock(mu_);
      for (auto& fd : connection_fds_) ::shutdown(fd.get(), SHUT_RDWR);
    }
    for (auto& t : workers_) t.join();
  }

  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }
  int connections() const { return connections_; }

 private:
  void accept_loop() {
    while (!stopping_) {
      int fd = ::accept4(listen_fd_.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      ++connections_;
      std::lock_guard<std::mutex> lock(mu_);
      connection_fds_.emplace_back(fd);
      workers_.emplace_back([this, fd] {
        Connection connection(fd);
        handler_(connection);
        ::shutdown(fd, SHUT_WR);
      });
    }
  }

  Handler handler_;
  UniqueFd listen_fd_;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::thread acceptor_;
  std::mutex mu_;
  std::list<UniqueFd> connection_fds_;  // guarded by mu_
  std::list<std::thread> workers_;      // guarded by mu_ (joined after the acceptor)
};

class RecordingSink : public BodySink {
 public:
  void write(std::string_view bytes) override {
    largest_piece = std::max(largest_piece, bytes.size());
    data.append(bytes);
  }
  std::string data;
  std::size_t largest_piece = 0;
};

const std::string kBig(300 * 1024 + 7, 'x');

// The test server's script: the path of each request picks its answer.
void answer(Connection& c) {
  for (std::string head = c.read_request(); !head.empty(); head = c.read_request()) {
    auto is = [&](std::string_view path) { return head.starts_with("GET " + std::string(path) + " "); };
    if (is("/a.bin")) {
      c.send(response(206, "0123456789", "X-Era-Number: 3\r\nX-Folded: a\r\n b\r\n"));
    } else if (is("/moved")) {
      c.send(response(302, "moving", "Location: /missing\r\nX-Hop: 1\r\n"));
    } else if (is("/missing")) {
      c.send(response(404, "nope", "X-Era-Number: 7\r\n"));
    } else if (is("/busy")) {
      c.send(response(503, R"({"retryable": false})"));
    } else if (is("/big")) {
      c.send(response(200, kBig));
    } else if (is("/dribble")) {
      c.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
      for (int i = 0; i < 40; ++i) {
        c.send("x");
        std::this_thread::sleep_for(50ms);
      }
    }  // "/silent", "/hang": no answer, until the client closes
  }
}

class HttpClientTest : public test_support::HostTest {
 protected:
  HttpRequest at(std::string_view path) const { return HttpRequest{server_.url(path), {}}; }
  TestServer server_{answer};
  HttpClient& client_ = HttpClient::for_current_thread();
};

// Requests' headers, statuses, retries and the classes of broken exchanges
// are checked through the module against a scripted server (the Python
// transport tests); here what only the client itself shows.
TEST_F(HttpClientTest, ReturnsTheFinalResponseOnOneConnection) {
  HttpResponse first = client_.get(at("/a.bin"), {});
  EXPECT_EQ(first.body, "0123456789");
  EXPECT_EQ(first.headers.get("x-era-number"), "3");
  EXPECT_EQ(first.headers.get("X-Folded"), "a b");

  HttpResponse moved = client_.get(at("/moved"), {});
  EXPECT_EQ(moved.status, 404);
  EXPECT_EQ(moved.body, "nope");
  EXPECT_EQ(moved.headers.get("X-Era-Number"), "7");
  EXPECT_FALSE(moved.headers.get("X-Hop").has_value()) << "only the final response's headers";
  EXPECT_EQ(server_.connections(), 1);
}

TEST_F(HttpClientTest, DownloadStreamsOnlySuccessfulBodiesInBoundedPiecesAndStopsOnASinkError) {
  RecordingSink sink;
  DownloadResult ok = client_.download(at("/big"), sink, {});
  EXPECT_EQ(ok.body_bytes, static_cast<std::int64_t>(kBig.size()));
  EXPECT_EQ(sink.data, kBig);
  EXPECT_LE(sink.largest_piece, 65536u);

  RecordingSink untouched;
  DownloadResult busy = client_.download(at("/busy"), untouched, {});
  EXPECT_EQ(busy.status, 503);
  EXPECT_TRUE(untouched.data.empty());
  EXPECT_EQ(busy.error_body, R"({"retryable": false})");

  struct FullDisk : BodySink {
    void write(std::string_view) override { throw OSError("No space left on device", 28); }
  } full;
  EXPECT_THROW(client_.download(at("/big"), full, {}), OSError);
}

TEST_F(HttpClientTest, UnreachableAndUnsupportedUrlsAreURLErrors) {
  std::string refused;  // a port nobody listens on: bind one, then close it
  {
    TestServer closed([](Connection&) {});
    refused = closed.url("/x");
  }
  for (const std::string& url : {refused, std::string("ftp://127.0.0.1/x")}) {
    try {
      client_.get(HttpRequest{url, {}}, options(5.0));
      ADD_FAILURE() << url;
    } catch (const NetworkError& e) {
      EXPECT_EQ(e.kind(), ErrorKind::kConnectionError);
      EXPECT_EQ(e.host_class(), "URLError") << url;
    }
  }
}

TEST_F(HttpClientTest, TimeoutsMeanNoProgressExceptForTheBodyDeadline) {
  // The head's deadline (by default the same 0.5 s) is put far off, so that
  // only the no-progress timeout can end the wait.
  TransferOptions silent = options(0.5);
  silent.header_deadline_seconds = 30.0;
  EXPECT_EQ(message_of<TimeoutError>([&] { client_.get(at("/silent"), silent); }), "timed out");
  // Bytes keep coming, so only the total deadline can end this one.
  EXPECT_EQ(message_of<TimeoutError>([&] { client_.get(at("/dribble"), options(5.0, 0.5)); }),
            "response body read exceeded configured deadline");
}

// A wait that missed the stop request would end by its timeout or return
// after its 30 s, never with SyncBackoffCancelled.
TEST_F(HttpClientTest, AStopPredicateOfTheThreadReachesTransfersAndWaits) {
  // An exception from the predicate itself ends the transfer unchanged.
  struct Broken {};
  EXPECT_THROW(client_.get(at("/hang"), options(60.0, std::nullopt, []() -> bool { throw Broken{}; })), Broken);

  // A download worker's own stop test reaches both transfers and backoff
  // waits of everything that runs on its thread.
  bool worker_stopped = false;
  ScopedSyncStopPredicate guard([&] { return worker_stopped; });
  EXPECT_FALSE(sync_backoff_stop_requested());
  worker_stopped = true;
  EXPECT_TRUE(sync_backoff_stop_requested());
  EXPECT_THROW(sleep_for_sync_backoff(30.0), SyncBackoffCancelled);
  RecordingSink sink;
  EXPECT_THROW(download_request_to_sink(at("/hang"), sink, 60.0), SyncBackoffCancelled);
}

TEST(ContentRange, ParsesOnlyConsistentRanges) {
  auto r = parse_content_range("bytes 100-199/1000");
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->first, 100);
  EXPECT_EQ(r->last, 199);
  EXPECT_EQ(r->complete_length, 1000);
  EXPECT_FALSE(parse_content_range("bytes 0-9/*")->complete_length.has_value());
  for (const char* bad : {"bytes 9-0/10", "bytes 0-9/9", "items 0-9/10", "bytes */10", "bytes 0-x/10", ""}) {
    EXPECT_FALSE(parse_content_range(bad).has_value()) << bad;
  }
}

TEST(CaBundleFallback, TakesTheFirstBundleFileThatExists) {
  TempDir temp;
  const std::string& dir = temp.path();
  const std::string missing = dir + "/etc/ssl/certs/ca-certificates.crt";  // the builder's path, absent here
  const std::string directory = dir + "/certs";
  const std::string bundle = dir + "/ca-bundle.crt";
  std::filesystem::create_directory(directory);
  std::ofstream(bundle) << "-----BEGIN CERTIFICATE-----\n";
  EXPECT_EQ(ca_bundle_fallback({missing, directory, bundle, dir + "/later.pem"}), bundle);
  EXPECT_EQ(ca_bundle_fallback({bundle, missing}), bundle);
  EXPECT_EQ(ca_bundle_fallback({missing, directory}), std::nullopt);
  EXPECT_EQ(ca_bundle_fallback({}), std::nullopt);
}

// Where plain http may go (the first request and every redirect).
TEST(Url, LoopbackHostsAreThisMachineOnly) {
  for (const char* host : {"localhost", "LocalHost.", "127.0.0.1", "127.255.0.9", "::1", "[::1]", "::1%lo",
                           "::ffff:127.0.0.1"}) {
    EXPECT_TRUE(is_loopback_host(host)) << host;
  }
  for (const char* host : {"", "example.com", "localhost.example.com", "128.0.0.1", "127.0.0.1.example.com", "::2",
                           "::ffff:10.0.0.1", "0.0.0.0", "127.1"}) {
    EXPECT_FALSE(is_loopback_host(host)) << host;
  }
}

// The whole command line is checked where the engine runs a program in its
// place (the Python transport tests); here only what the caller controls.
TEST(CurlProgram, TheCallersTimeoutAndHeadersReachTheCommandLineButNotItsUserAgent) {
  const std::string url = "https://data.tidewright.io/data/files/a.bin";
  HttpRequest request{url, {{"User-agent", "ignored"}, {"Range", "bytes=0-99"}}};
  std::vector<std::string> argv = curl_command("curl", request, 2.5, "h", "b");
  auto after = [&](std::string_view flag) {
    auto it = std::find(argv.begin(), argv.end(), flag);
    return it == argv.end() || it + 1 == argv.end() ? std::string("<absent>") : *(it + 1);
  };
  EXPECT_EQ(after("--connect-timeout"), "2.5");
  EXPECT_EQ(after("--speed-time"), "2.5");
  EXPECT_EQ(after("-H"), "Range: bytes=0-99");
  EXPECT_EQ(std::count(argv.begin(), argv.end(), "-H"), 1);
  EXPECT_EQ(std::count(argv.begin(), argv.end(), "ignored"), 0);
  EXPECT_EQ(argv.front(), "curl");
  EXPECT_EQ(argv.back(), url);
}

TEST(CurlProgram, ParsesHeaderDumpsAndStatusOutput) {
  HttpHeaders headers = parse_curl_headers(
      "HTTP/1.1 302 Found\r\nLocation: /b\r\nX-Hop: 1\r\n\r\n"
      "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n  X-Odd :  spaced value \r\nnot a header\r\n\r\n");
  ASSERT_EQ(headers.items.size(), 2u);
  EXPECT_EQ(headers.items[0], (std::pair<std::string, std::string>{"Content-Length", "3"}));
  EXPECT_EQ(headers.items[1], (std::pair<std::string, std::string>{"X-Odd", "spaced value"}));

  EXPECT_EQ(curl_status_from_stdout("200"), 200);
  EXPECT_EQ(curl_status_from_stdout(" \n404\n"), 404);
  EXPECT_EQ(curl_status_from_stdout("HTTP/1.1 503 Busy\nnot-a-number"), 503);
  EXPECT_EQ(curl_status_from_stdout("\xff\xfe"), 0);
  EXPECT_EQ(curl_status_from_stdout(""), 0);
}

TEST(CurlProgram, RunCapturesOutputAndKillsTheChildOnStop) {
  CurlRun run = run_curl_command({"/bin/sh", "-c", "printf out; printf err >&2; exit 3"});
  EXPECT_EQ(run.exit_status, 3);
  EXPECT_EQ(run.stdout_bytes, "out");
  EXPECT_EQ(run.stderr_bytes, "err");

  // Asked again while the child runs, the stop test says yes.
  EXPECT_THROW(run_curl_command({"/bin/sh", "-c", "exec sleep 30"}, [calls = 0]() mutable { return ++calls > 1; }),
               SyncBackoffCancelled);
  EXPECT_THROW(run_curl_command({"/nonexistent/curl"}), OSError);
}

}  // namespace
}  // namespace tidewright::sync
