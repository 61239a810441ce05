// Manifest paths and URLs: the only ways from a path named by a manifest to a
// key, a local file and a download URL, plus the platform tag and the rules
// that map a feature name to its manifest files.
//
// A manifest-relative path is "/"-separated, relative, and has no empty, "."
// or ".." segment and no NUL. Everything that reaches the disk or the network
// goes through safe_manifest_relative_path first, so that a hostile or broken
// manifest can never address anything outside the data directory.
//
// All functions are thread-safe. Only manifest_local_path and
// ManifestLocalPaths touch the file system (to resolve links); none touches
// the network.
#pragma once

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/host/host.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tidewright::sync {

// --- platform tag ---

// The tag for an operating-system and machine name (matched lower-cased):
// linux/darwin with x86_64|amd64 or aarch64|arm64 give "linux_x86_64",
// "linux_aarch64", "macos_x86_64", "macos_arm64"; windows gives
// "windows_amd64" whatever the machine; anything else gives
// "<system>_<machine>", both lower-cased.
std::string platform_tag(std::string_view system, std::string_view machine);
// platform_tag() of this host's uname().
std::string detect_platform();
// detect_platform(), computed once per process (CURRENT_PLATFORM).
const std::string& current_platform();

// --- path safety ---

// The canonical form of a manifest path: surrounding white space removed,
// backslashes read as "/", repeated "/" and "." segments collapsed, segments
// joined with "/" ("a\\b", "a//b/" and "a/./b" all give "a/b").
// Throws ManifestError with these messages (<repr> is the argument quoted):
//   "Manifest file path must be a non-empty relative path"
//   "Manifest file path contains NUL byte: <repr>"
//   "Manifest file path must be relative: <repr>"            (leading "/" or "\")
//   "Manifest file path contains unsafe segments: <repr>"    (".", "..", nothing left)
std::string safe_manifest_relative_path(std::string_view file_path);
// The same canonical form without exceptions: false (and `out` unspecified)
// where safe_manifest_relative_path would throw. For scans over whole
// manifests.
bool try_safe_manifest_relative_path(std::string_view file_path, std::string& out);

// The resolved local file for a manifest path: `data_dir` ("~" expanded,
// made absolute, links resolved) joined with the safe path and resolved
// non-strictly (existing links followed, missing tails kept). Throws the
// errors of safe_manifest_relative_path, and ManifestError
// "Manifest file path escapes data directory: <repr>" when the result does
// not lie inside the resolved data directory (for instance through a link
// that points outside it).
std::string manifest_local_path(const std::string& data_dir, std::string_view file_path);

// The local file that a write of a manifest path goes to (a download, an
// artifact, an era switch): manifest_local_path, where the path must also
// reach the file without passing a symbolic link below the data directory,
// even one that stays inside it. Through such a link two manifest paths
// could reach one file, and one file's bytes would be written over
// another's. Throws the errors of manifest_local_path first, then
// ManifestError "Manifest file path passes through a link inside the data
// directory: <repr> (files are never written through links; replace the
// link with the directory or file it points to)".
std::string manifest_local_write_path(const std::string& data_dir, std::string_view file_path);

// manifest_local_path for many paths of one data directory: the data
// directory and each parent directory are resolved once, so a path costs one
// lstat of its last segment (relative to an open descriptor of its directory
// when the directory holds several files), and a full resolution only when
// that segment is a link. Meant for one pass over a manifest: a directory
// replaced by a link during the pass is seen by the next pass. Not
// thread-safe.
// What a resolve learnt on the way of what is at the path.
enum class LocalPresence {
  unknown,           // an entry is there, or nothing was looked at
  absent,            // no entry at the path
  directory_absent,  // its directory is missing: nothing beside it either
};

class ManifestLocalPaths {
 public:
  explicit ManifestLocalPaths(const std::string& data_dir);
  // The same path, or the same error, as manifest_local_path(data_dir, file_path).
  // With `identity`, also the identity of the file found there when the
  // lstat taken on the way tells it (an existing entry that is not a link).
  // With `presence`, whether nothing is there. Once a directory is found
  // missing, the other paths in it are answered without a system call (a
  // cold sync resolves every path of the era twice).
  std::string resolve(std::string_view file_path, std::optional<StatKey>* identity = nullptr,
                      LocalPresence* presence = nullptr);

 private:
  struct Parent {
    std::string path;  // resolved
    UniqueFd fd;       // opened on the second use, while few are open
    bool used = false;
    bool missing = false;  // the open found no directory there
  };
  static constexpr int kMaxOpenParents = 256;

  std::string root_;
  // By relative parent ("" for the root).
  std::unordered_map<std::string, Parent> parents_;
  int open_parents_ = 0;
};

// --- feature files ---

// The epoch segment of an expression type: `epochs.strategy_is` when the
// text, lower-cased, is "strategy"; `epochs.signal_is` for anything else.
std::string feature_epoch_for_expression_type(std::string_view expression_type_text,
                                              const EpochNames& epochs);

// The manifest path of one feature file, looked up in `files` (a manifest's
// "files" map), or nullopt when the manifest does not have it. With a named
// universe: "features/<universe>/<epoch>/<name>.arrow" when present, else the
// first path (manifest order) of four segments under "features" ending in
// "/<epoch>/<name>.arrow". Without one (nullopt or blank):
// "features/<epoch>/<name>.arrow" when present, else the first path of three
// or four segments under "features" ending in "/<name>.arrow". The feature
// name and universe are stripped of surrounding white space.
std::optional<std::string> manifest_feature_relative_path(const json::object& files,
                                                          std::string_view feature_name,
                                                          std::string_view expression_type,
                                                          std::optional<std::string_view> named_universe,
                                                          const EpochNames& epochs);
std::optional<std::string> manifest_feature_relative_path(const ManifestFiles& files,
                                                          std::string_view feature_name,
                                                          std::string_view expression_type,
                                                          std::optional<std::string_view> named_universe,
                                                          const EpochNames& epochs);

// The stem prefix shared by the runtime companions of a feature: for a name
// (blank-stripped, ".arrow" dropped) of at least four "__"-separated parts
// a__b__c__d... with a and b non-empty, "a__b__"; otherwise nullopt.
std::optional<std::string> feature_artifact_family_prefix(std::string_view feature_name);

// The other ".arrow" files of the same family in the same directory as
// `relative_path` (which must be a safe path under "features/" ending in
// ".arrow"; anything else gives an empty list), as safe paths sorted
// ascending. Unsafe manifest paths are skipped; the file itself is excluded.
std::vector<std::string> manifest_feature_companion_relative_paths(const json::object& files,
                                                                   std::string_view relative_path);
std::vector<std::string> manifest_feature_companion_relative_paths(const ManifestFiles& files,
                                                                   std::string_view relative_path);

// The feature's path (as manifest_feature_relative_path) followed by its
// companions; empty when the manifest does not have the feature.
std::vector<std::string> manifest_feature_prefetch_relative_paths(const json::object& files,
                                                                  std::string_view feature_name,
                                                                  std::string_view expression_type,
                                                                  std::optional<std::string_view> named_universe,
                                                                  const EpochNames& epochs);
std::vector<std::string> manifest_feature_prefetch_relative_paths(const ManifestFiles& files,
                                                                  std::string_view feature_name,
                                                                  std::string_view expression_type,
                                                                  std::optional<std::string_view> named_universe,
                                                                  const EpochNames& epochs);

// --- URLs ---

// The download URL of a manifest path: base + "/" + safe path (not
// percent-encoded). The base is `base_url` stripped, or, when that is blank or
// absent, `server_url` stripped of white space and trailing "/" followed by
// "/data/files"; trailing "/" is dropped from it. Throws ManifestError
// "Manifest base_url must be an absolute data-file URL" when the base has no
// scheme or no network location, and ManifestError with the transport-security
// module's message when that module refuses the base (it will carry the
// bearer credential). The errors of safe_manifest_relative_path come first.
std::string manifest_file_url(std::string_view server_url, std::string_view file_path,
                              std::optional<std::string_view> base_url);

// True exactly when `base_url` is given, non-empty, and names the server's
// own download endpoint: the same network location as `server_url` and the
// path "/data/files" (trailing "/" ignored).
bool manifest_base_url_uses_public_download(std::string_view server_url,
                                            std::optional<std::string_view> base_url);

// --- signal groups ---

// The pool-scoped group of a signal file under `prefix`: for
// "<prefix>/<group>/<pool>/<id>/<epoch>/..." (more than four segments after
// the prefix, with "/" at the edges ignored) where <group> is the directory
// of <epoch> (found_signals for signal_is, found_strategies for strategy_is,
// useful_signals for signal_os), the key "<group>/<pool>/<id>". nullopt for
// anything else, including paths that do not start with `prefix`.
std::optional<std::string> agent_signal_group_key(std::string_view file_path, std::string_view prefix,
                                                  const EpochNames& epochs);

}  // namespace tidewright::sync
