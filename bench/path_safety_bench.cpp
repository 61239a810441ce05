// Throughput of the manifest hot paths: path safety per path, and
// sanitising a 100,000-file manifest. The peer for path safety is the
// straightforward std::filesystem version (parse, lexically normalise, walk
// the components), measured in the same run.
//
//   cmake -S . -B build/bench -G Ninja -DTW_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release
//   cmake --build build/bench --target path_safety_bench && build/bench/path_safety_bench
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace tidewright::sync;

std::vector<std::string> typical_paths(std::size_t count) {
  std::vector<std::string> paths;
  paths.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    switch (i % 4) {
      case 0:
        paths.push_back("features/universe_" + std::to_string(i % 37) + "/signal_is/fam__kind__feature_" +
                        std::to_string(i) + "__v1.arrow");
        break;
      case 1:
        paths.push_back("found_signals/pool_" + std::to_string(i % 11) + "/" + std::to_string(i) +
                        "/signal_is/pnl.arrow");
        break;
      case 2:
        paths.push_back("features/strategy_is/feature_" + std::to_string(i) + ".arrow");
        break;
      default:
        paths.push_back("named_universes\\universe_" + std::to_string(i) + "\\vocabulary.json");
        break;
    }
  }
  return paths;
}

// The obvious implementation, for comparison.
std::string filesystem_safe_path(const std::string& text) {
  std::string replaced = text;
  for (char& c : replaced) {
    if (c == '\\') c = '/';
  }
  std::filesystem::path parsed(replaced);
  if (parsed.is_absolute()) throw std::runtime_error("absolute");
  std::string out;
  for (const auto& part : parsed) {
    const std::string s = part.string();
    if (s.empty()) continue;
    if (s == "..") throw std::runtime_error("unsafe");
    if (s == ".") continue;
    if (!out.empty()) out.push_back('/');
    out += s;
  }
  return out;
}

template <typename F>
double per_second(const std::vector<std::string>& paths, int rounds, F&& fn) {
  std::size_t sink = 0;
  const auto start = Clock::now();
  for (int r = 0; r < rounds; ++r) {
    for (const auto& p : paths) sink += fn(p).size();
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (sink == 0) std::puts("");
  return static_cast<double>(paths.size()) * rounds / seconds;
}

}  // namespace

int main() {
  const std::vector<std::string> paths = typical_paths(200000);
  const int rounds = 10;
  const double ours = per_second(paths, rounds, [](const std::string& p) { return safe_manifest_relative_path(p); });
  const double peer = per_second(paths, rounds, filesystem_safe_path);
  std::printf("safe_manifest_relative_path: %.2f M paths/s (std::filesystem peer %.2f M paths/s, ratio %.1fx)\n",
              ours / 1e6, peer / 1e6, ours / peer);

  json::object files;
  for (std::size_t i = 0; i < 100000; ++i) {
    files[paths[i]] = json::object{{"size_bytes", 1024}, {"sha256", std::string(64, 'a')}, {"kind", "feature"}};
  }
  json::object manifest{{"era", 3}, {"files", std::move(files)}};
  const ManifestSiblings siblings = default_manifest_siblings();
  bool changed = true;
  auto start = Clock::now();
  json::object clean = sanitize_manifest_data_for_sync(std::move(manifest), siblings, &changed);
  const double clean_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();

  clean["files"].as_object()["vault/a.pxd"] = json::object{{"kind", "vault"}};
  start = Clock::now();
  json::object filtered = sanitize_manifest_data_for_sync(std::move(clean), siblings, &changed);
  const double dirty_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  std::printf("sanitize 100k files: %.2f ms with nothing to remove, %.2f ms removing one (%zu kept)\n", clean_ms,
              dirty_ms, filtered.at("files").as_object().size());
  return 0;
}
