#include "tidewright/sync/manager/placement.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/manifest/paths.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tidewright::sync {

namespace {

[[noreturn]] void throw_through_link(std::string_view file_path) {
  throw ManifestError("Manifest file path passes through a link inside the data directory: " +
                      python_repr(file_path) +
                      " (files are never written through links; replace the link with the directory or file it "
                      "points to)");
}

// The directory holding `relative` below `root`, opened without following links.
UniqueFd open_parent(const std::string& root, std::string_view relative, std::string_view file_path) {
  const std::size_t slash = relative.rfind('/');
  const std::string_view parent = slash == std::string_view::npos ? std::string_view() : relative.substr(0, slash);
  try {
    return open_directory_beneath(root, parent);
  } catch (const OSError& e) {
    if (e.error_number == ELOOP) throw_through_link(file_path);
    throw;
  }
}

}  // namespace

void move_into_place(const std::string& from_root, const std::string& to_root, std::string_view relative,
                     std::string_view file_path) {
  const std::size_t slash = relative.rfind('/');
  const std::string name(slash == std::string_view::npos ? relative : relative.substr(slash + 1));
  UniqueFd from_dir = open_parent(from_root, relative, file_path);
  UniqueFd to_dir = open_parent(to_root, relative, file_path);
  rename_into_place(from_dir.get(), name, to_dir.get(), name, file_path, path_join(from_root, std::string(relative)));
}

void rename_into_place(int from_dir, const std::string& from_name, int to_dir, const std::string& to_name,
                       std::string_view file_path, const std::string& error_path) {
  struct stat st;
  if (::fstatat(to_dir, to_name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
    throw_through_link(file_path);
  }
  if (::renameat(from_dir, from_name.c_str(), to_dir, to_name.c_str()) != 0) throw_os_error(errno, error_path);
}

std::vector<std::string> move_staged_files_into_place(const std::string& staging, const std::string& data_dir,
                                                      const std::vector<std::string>& relative_paths) {
  std::vector<std::string> final_paths;
  final_paths.reserve(relative_paths.size());
  for (const auto& path : relative_paths) final_paths.push_back(manifest_local_write_path(data_dir, path));
  const std::string from_root = real_path(staging);
  const std::string to_root = real_path(data_dir);
  for (const auto& path : relative_paths) move_into_place(from_root, to_root, safe_manifest_relative_path(path), path);
  return final_paths;
}

}  // namespace tidewright::sync
