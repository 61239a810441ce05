// Helpers shared by the C++ tests.
#pragma once

#include "fake_host.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace tidewright::sync::test_support {

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tw-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::filesystem::path fs_path() const { return path_; }
  // The path of `name` inside the directory.
  std::string operator/(std::string_view name) const { return (std::filesystem::path(path_) / name).string(); }

 private:
  std::string path_;
};

// The message of the E that `fn` throws, or "<no exception>" when it throws
// none (any other exception propagates and fails the test).
template <typename E, typename F>
std::string message_of(F&& fn) {
  try {
    fn();
  } catch (const E& e) {
    return e.what();
  }
  return "<no exception>";
}

// Writes `text` to `path`, creating the directories on the way.
inline void write_text(const std::string& path, std::string_view text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

inline std::string this_host_name() {
  char name[256] = {0};
  ::gethostname(name, sizeof name - 1);
  return name;
}

// A process id that no process has: a child that has exited and been reaped.
inline pid_t gone_pid() {
  pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  int status = 0;
  ::waitpid(child, &status, 0);
  return child;
}

// A test whose code talks to a fake host (log capture, host callables),
// installed for the test and removed after it.
class HostTest : public ::testing::Test {
 protected:
  void SetUp() override { set_host(host_); }
  void TearDown() override { set_host(nullptr); }

  bool log_has(std::string_view text) {
    auto lines = host_->log_lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const FakeHost::LogLine& l) { return l.message.find(text) != std::string::npos; });
  }

  std::shared_ptr<FakeHost> host_ = std::make_shared<FakeHost>();
};

// Managers of their own (not the registry's) on one data directory, stopped
// when the test ends.
class ManagerTest : public HostTest {
 protected:
  void TearDown() override {
    for (auto& m : managers_) m->stop_internal();
    managers_.clear();
    HostTest::TearDown();
  }

  SyncManager& manager() {
    SyncManagerArgs args;
    args.data_dir = dir_.path();
    args.server_url = "http://127.0.0.1:9";
    args.get_token = FakeHost::make_callable([](const json::array&) { return json::value("token"); });
    managers_.push_back(std::make_shared<SyncManager>(std::move(args)));
    return *managers_.back();
  }

  TempDir dir_;
  std::vector<std::shared_ptr<SyncManager>> managers_;
};

}  // namespace tidewright::sync::test_support
