#include "tidewright/sync/manager/cleanup.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/era/market.hpp"
#include "tidewright/sync/host/host.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <system_error>

namespace tidewright::sync {

namespace fs = std::filesystem;

namespace {

bool ends_with_tmp(std::string_view name) {
  return name.size() >= 4 && name.compare(name.size() - 4, 4, ".tmp") == 0;
}

// Calls visit(path) for every regular file below a directory whose name
// ends in ".tmp", not following links. The entries' types come from the
// directory listing, and a path is only built for the few names that
// qualify, so a large tree costs one listing per directory and no stat per
// file (unless the file system does not report types). With a memo, a
// directory remembered clean and unchanged costs one stat.
class TmpWalk {
 public:
  using CleanDirs = std::unordered_map<std::string, TmpScanMemo::Dir>;
  // `clean_dirs`: a memo's map, whose lock the caller holds for the walk.
  TmpWalk(const std::string& data_dir, const std::function<void(const std::string&)>& visit, CleanDirs* clean_dirs)
      : data_dir_(data_dir), visit_(visit), clean_dirs_(clean_dirs), started_ns_(coarse_now_ns()) {}

  void walk(const std::string& dir) {
    std::optional<StatKey> identity;
    if (clean_dirs_) {
      struct stat st;
      if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        clean_dirs_->erase(dir);
        return;
      }
      identity = stat_key_of(st);
      auto it = clean_dirs_->find(dir);
      if (it != clean_dirs_->end() && it->second.identity == *identity) {
        std::vector<std::string> subdirs = it->second.subdirs;  // the recursion may change the map
        for (const auto& name : subdirs) walk(dir + "/" + name);
        return;
      }
    }
    std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(dir.c_str()), ::closedir);
    if (!listing) {
      if (errno != EACCES) {
        log_debug("best-effort tmp scan failed for %s: %s", {json::value(data_dir_), json::value(std::strerror(errno))});
      }
      if (clean_dirs_) clean_dirs_->erase(dir);
      return;
    }
    bool saw_tmp = false;
    std::vector<std::string> subdirs;
    while (const dirent* entry = ::readdir(listing.get())) {
      std::string_view name(entry->d_name);
      unsigned char type = entry->d_type;
      if (type == DT_REG && !ends_with_tmp(name)) continue;
      if (name == "." || name == "..") continue;
      if (type != DT_DIR && type != DT_REG && type != DT_UNKNOWN) continue;
      std::string path = dir + "/" + std::string(name);
      if (type == DT_UNKNOWN) {
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) continue;
        type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_LNK;
      }
      if (type == DT_DIR) {
        subdirs.emplace_back(name);
      } else if (type == DT_REG && ends_with_tmp(name)) {
        saw_tmp = true;
        visit_(path);
      }
    }
    listing.reset();
    if (clean_dirs_) {
      if (!saw_tmp && identity->mtime_ns < started_ns_ && identity->ctime_ns < started_ns_) {
        (*clean_dirs_)[dir] = TmpScanMemo::Dir{*identity, subdirs};
      } else {
        clean_dirs_->erase(dir);
      }
    }
    for (const auto& name : subdirs) walk(dir + "/" + name);
  }

 private:
  const std::string& data_dir_;
  const std::function<void(const std::string&)>& visit_;
  CleanDirs* clean_dirs_;
  const std::int64_t started_ns_;
};

// The paths, as the walk below spells them, of the manifest files whose
// names end in ".tmp". Usually none, so only the keys are looked at.
std::set<std::string> manifest_files_named_tmp(const std::string& data_dir, const ManifestFilesList& manifest_files) {
  std::set<std::string> out;
  std::string root;
  std::string canonical;
  for (const ManifestFiles* files : manifest_files) {
    if (!files) continue;
    for (const ManifestFiles::Entry entry : *files) {
      const std::string_view key = entry.path();
      if (key.find(".tmp") == std::string_view::npos) continue;  // most keys: no need to normalise
      if (!try_safe_manifest_relative_path(key, canonical) || !ends_with_tmp(canonical)) continue;
      if (root.empty()) root = real_path(data_dir);
      out.insert(path_join(root, canonical));
    }
  }
  return out;
}

template <typename Keep>
void remove_tmp_files(const std::string& data_dir, Keep keep, TmpScanMemo* memo = nullptr) {
  std::function<void(const std::string&)> visit = [&](const std::string& path) {
    if (keep(path)) return;
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      log_debug("best-effort tmp cleanup failed for %s: %s", {json::value(path), json::value(std::strerror(errno))});
    }
  };
  if (!memo) {
    TmpWalk(data_dir, visit, nullptr).walk(real_path(data_dir));
    return;
  }
  MutexLock lock(memo->mu);
  TmpWalk(data_dir, visit, &memo->clean_dirs).walk(real_path(data_dir));
}

}  // namespace

void remove_manifest_tmp_file(const std::string& data_dir, const std::string& file_path) {
  std::string tmp;
  try {
    tmp = manifest_local_path(data_dir, file_path) + ".tmp";
  } catch (const ManifestError&) {
    return;
  }
  try {
    remove_file(tmp);
  } catch (const FileNotFoundError&) {
  } catch (const std::exception& e) {
    log_warning("Failed to remove stale sync tmp file %s: %s", {json::value(tmp), json::value(e.what())});
  }
}

void cleanup_sync_tmp_files(const std::string& data_dir, const std::vector<std::string>& preserve_relative_paths,
                            TmpScanMemo* memo, const ManifestFilesList& manifest_files) {
  // Built when the walk meets its first staging file: a tree without any
  // (every cold sync, most syncs) resolves none of the paths.
  std::optional<std::set<std::string>> preserve;
  auto keep = [&](const std::string& path) {
    if (!preserve) {
      preserve = manifest_files_named_tmp(data_dir, manifest_files);
      ManifestLocalPaths locals(data_dir);
      for (const auto& p : preserve_relative_paths) {
        try {
          preserve->insert(locals.resolve(p) + ".tmp");
        } catch (const ManifestError&) {
        }
      }
    }
    return preserve->count(path) > 0;
  };
  remove_tmp_files(data_dir, keep, memo);
}

void remove_all_tmp_files(const std::string& data_dir, const ManifestFilesList& manifest_files) {
  const std::set<std::string> keep = manifest_files_named_tmp(data_dir, manifest_files);
  remove_tmp_files(data_dir, [&](const std::string& path) { return keep.count(path) > 0; });
}

std::int64_t tree_size(const std::string& path) {
  std::int64_t total = 0;
  std::error_code ec;
  fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec);
  if (ec) return 0;
  for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) break;
    std::error_code type_ec;
    if (it->is_regular_file(type_ec) && !it->is_symlink(type_ec)) {
      auto size = it->file_size(type_ec);
      if (!type_ec) total += static_cast<std::int64_t>(size);
    }
  }
  return total;
}

std::int64_t cleanup_era_directories(const std::string& data_dir, std::optional<std::int64_t> current_era,
                                     bool everything) {
  std::int64_t freed = 0;
  std::error_code ec;
  std::vector<fs::path> era_dirs;
  for (const auto& entry : fs::directory_iterator(data_dir, ec)) {
    std::error_code type_ec;
    if (!entry.is_directory(type_ec) || entry.is_symlink(type_ec)) continue;
    std::optional<std::int64_t> era = parse_era_directory_id(entry.path().filename().string());
    if (era && era != current_era) era_dirs.push_back(entry.path());
  }
  for (const auto& dir : era_dirs) {
    std::int64_t size = tree_size(dir.string());
    std::error_code rm_ec;
    fs::remove_all(dir, rm_ec);
    if (rm_ec) throw OSError(rm_ec.message(), rm_ec.value(), dir.string());
    freed += size;
  }
  if (everything) {
    for (const char* name : {"manifest.json", "shuffle_seed.enc"}) {
      std::string path = path_join(data_dir, name);
      if (!is_regular_file(path)) continue;
      std::int64_t size = file_size(path);
      remove_file(path);
      freed += size;
    }
    std::vector<fs::path> others;
    for (const auto& entry : fs::directory_iterator(data_dir, ec)) {
      std::error_code type_ec;
      if (!entry.is_directory(type_ec) || entry.is_symlink(type_ec)) continue;
      if (entry.path().filename().string().rfind('.', 0) == 0) continue;
      others.push_back(entry.path());
    }
    for (const auto& dir : others) {
      std::int64_t size = tree_size(dir.string());
      std::error_code rm_ec;
      fs::remove_all(dir, rm_ec);
      if (rm_ec) throw OSError(rm_ec.message(), rm_ec.value(), dir.string());
      freed += size;
    }
  }
  return freed;
}

}  // namespace tidewright::sync
