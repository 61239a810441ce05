// Helpers shared by the C++ tests.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

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

}  // namespace tidewright::sync::test_support
