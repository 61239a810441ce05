#include "tidewright/sync/manifest/paths.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/url.hpp"
#include "tidewright/sync/reporting/errors.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>

namespace tidewright::sync {

namespace {

constexpr std::string_view kArrow = ".arrow";
constexpr std::string_view kFeaturesDir = "features/";

// Manifest text comes from the host's str type, whose strip() removes every
// Unicode white-space character, not only ASCII blanks. These match the
// UTF-8 encodings of that set at either edge of a text.
bool is_ascii_space(unsigned char c) { return (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x20); }

bool is_space3(unsigned char a, unsigned char b, unsigned char c) {
  switch (a) {
    case 0xE1: return b == 0x9A && c == 0x80;                                // U+1680
    case 0xE2:
      if (b == 0x80) return c <= 0x8A || c == 0xA8 || c == 0xA9 || c == 0xAF;  // U+2000..200A, 2028, 2029, 202F
      return b == 0x81 && c == 0x9F;                                        // U+205F
    case 0xE3: return b == 0x80 && c == 0x80;                                // U+3000
    default: return false;
  }
}

std::size_t space_at(std::string_view s, std::size_t i) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data()) + i;
  std::size_t left = s.size() - i;
  if (is_ascii_space(p[0])) return 1;
  if (p[0] < 0xC2) return 0;
  if (left >= 2 && p[0] == 0xC2 && (p[1] == 0x85 || p[1] == 0xA0)) return 2;  // U+0085, U+00A0
  if (left >= 3 && is_space3(p[0], p[1], p[2])) return 3;
  return 0;
}

std::size_t space_before(std::string_view s, std::size_t end) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  if (is_ascii_space(p[end - 1])) return 1;
  if (p[end - 1] < 0x80) return 0;
  if (end >= 2 && p[end - 2] == 0xC2 && (p[end - 1] == 0x85 || p[end - 1] == 0xA0)) return 2;
  if (end >= 3 && is_space3(p[end - 3], p[end - 2], p[end - 1])) return 3;
  return 0;
}

std::string_view strip_text(std::string_view s) {
  std::size_t b = 0, e = s.size();
  while (b < e) {
    std::size_t n = space_at(s, b);
    if (n == 0) break;
    b += n;
  }
  while (e > b) {
    std::size_t n = space_before(s, e);
    if (n == 0) break;
    e -= n;
  }
  return s.substr(b, e - b);
}

std::string lower_ascii(std::string_view s) {
  std::string out(s);
  for (auto& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool is_sep(char c) { return c == '/' || c == '\\'; }

enum class PathFault { kNone, kEmpty, kNul, kAbsolute, kUnsafe };

// The checks of safe_manifest_relative_path without exceptions, so that
// scans over whole manifests can skip bad keys cheaply. One pass, one
// allocation (the result).
PathFault normalize_manifest_path(std::string_view file_path, std::string& out) {
  std::string_view text = strip_text(file_path);
  if (text.empty()) return PathFault::kEmpty;
  if (text.find('\0') != std::string_view::npos) return PathFault::kNul;
  // Backslashes are separators; stripping again after replacing them would
  // change nothing, since neither "\" nor "/" is white space.
  if (is_sep(text.front())) return PathFault::kAbsolute;
  out.clear();
  out.reserve(text.size());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    std::size_t j = i;
    while (j < n && !is_sep(text[j])) ++j;
    const std::size_t len = j - i;
    if (len == 2 && text[i] == '.' && text[i + 1] == '.') return PathFault::kUnsafe;
    // Empty and "." segments vanish, as in the host's path parsing.
    if (len != 0 && !(len == 1 && text[i] == '.')) {
      if (!out.empty()) out.push_back('/');
      out.append(text.data() + i, len);
    }
    i = j + 1;
  }
  return out.empty() ? PathFault::kUnsafe : PathFault::kNone;
}

[[noreturn]] void throw_path_fault(PathFault fault, std::string_view file_path) {
  switch (fault) {
    case PathFault::kEmpty:
      throw ManifestError("Manifest file path must be a non-empty relative path");
    case PathFault::kNul:
      throw ManifestError("Manifest file path contains NUL byte: " + python_repr(file_path));
    case PathFault::kAbsolute:
      throw ManifestError("Manifest file path must be relative: " + python_repr(file_path));
    default:
      throw ManifestError("Manifest file path contains unsafe segments: " + python_repr(file_path));
  }
}

// Containment by whole components: "/data" holds "/data/x" but not "/data2".
bool path_within(std::string_view root, std::string_view candidate) {
  if (root == "/") return !candidate.empty() && candidate.front() == '/';
  if (!candidate.starts_with(root)) return false;
  return candidate.size() == root.size() || candidate[root.size()] == '/';
}

std::size_t segment_count(std::string_view path) {
  return static_cast<std::size_t>(std::count(path.begin(), path.end(), '/')) + 1;
}

std::string_view basename_of(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view parent_of(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

}  // namespace

std::string platform_tag(std::string_view system, std::string_view machine) {
  const std::string sys = lower_ascii(system);
  const std::string mach = lower_ascii(machine);
  const bool x86 = mach == "x86_64" || mach == "amd64";
  const bool arm = mach == "aarch64" || mach == "arm64";
  if (sys == "linux") {
    if (x86) return "linux_x86_64";
    if (arm) return "linux_aarch64";
  } else if (sys == "darwin") {
    if (x86) return "macos_x86_64";
    if (arm) return "macos_arm64";
  } else if (sys == "windows") {
    return "windows_amd64";
  }
  return sys + "_" + mach;
}

std::string detect_platform() {
  struct utsname names {};
  if (::uname(&names) != 0) return platform_tag("", "");
  return platform_tag(names.sysname, names.machine);
}

const std::string& current_platform() {
  static const std::string tag = detect_platform();
  return tag;
}

std::string safe_manifest_relative_path(std::string_view file_path) {
  std::string out;
  PathFault fault = normalize_manifest_path(file_path, out);
  if (fault != PathFault::kNone) throw_path_fault(fault, file_path);
  return out;
}

bool try_safe_manifest_relative_path(std::string_view file_path, std::string& out) {
  return normalize_manifest_path(file_path, out) == PathFault::kNone;
}

std::string manifest_local_path(const std::string& data_dir, std::string_view file_path) {
  const std::string relative = safe_manifest_relative_path(file_path);
  const std::string root = real_path(data_dir);
  // Resolving follows links that exist, so a link inside the data directory
  // pointing outside it lands outside the root and is refused below.
  const std::string candidate = real_path(path_join(root, relative));
  if (!path_within(root, candidate)) {
    throw ManifestError("Manifest file path escapes data directory: " + python_repr(file_path));
  }
  return candidate;
}

std::string manifest_local_write_path(const std::string& data_dir, std::string_view file_path) {
  const std::string relative = safe_manifest_relative_path(file_path);
  const std::string root = real_path(data_dir);
  const std::string lexical = path_join(root, relative);
  const std::string candidate = real_path(lexical);
  if (!path_within(root, candidate)) {
    throw ManifestError("Manifest file path escapes data directory: " + python_repr(file_path));
  }
  // A safe path has no "." or "..": it resolves to itself unless a segment
  // is a link.
  if (candidate != lexical) {
    throw ManifestError("Manifest file path passes through a link inside the data directory: " +
                        python_repr(file_path) +
                        " (files are never written through links; replace the link with the directory or file it "
                        "points to)");
  }
  return lexical;
}

ManifestLocalPaths::ManifestLocalPaths(const std::string& data_dir) : root_(real_path(data_dir)) {}

std::string ManifestLocalPaths::resolve(std::string_view file_path, std::optional<StatKey>* identity,
                                        LocalPresence* presence) {
  const std::string relative = safe_manifest_relative_path(file_path);
  const std::size_t slash = relative.rfind('/');
  const std::string parent_key = slash == std::string::npos ? std::string() : relative.substr(0, slash);
  const std::string leaf = slash == std::string::npos ? relative : relative.substr(slash + 1);
  auto it = parents_.find(parent_key);
  if (it == parents_.end()) {
    // A safe path has no "..", so resolving the parent and then the last
    // segment is the same walk that resolving the whole path makes.
    Parent fresh;
    fresh.path = parent_key.empty() ? root_ : real_path(path_join(root_, parent_key));
    it = parents_.emplace(parent_key, std::move(fresh)).first;
  }
  Parent& parent = it->second;
  if (parent.used && !parent.fd.valid() && !parent.missing && open_parents_ < kMaxOpenParents) {
    parent.fd = UniqueFd(::open(parent.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent.fd.valid()) {
      ++open_parents_;
    } else {
      parent.missing = errno == ENOENT;
    }
  }
  parent.used = true;
  std::string candidate = path_join(parent.path, leaf);
  if (identity) identity->reset();
  if (presence) *presence = LocalPresence::unknown;
  if (parent.missing) {
    if (presence) *presence = LocalPresence::directory_absent;
  } else {
    struct stat st;
    const int rc = parent.fd.valid() ? ::fstatat(parent.fd.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW)
                                     : ::lstat(candidate.c_str(), &st);
    if (rc != 0 && errno == ENOENT && presence) *presence = LocalPresence::absent;
    if (rc == 0) {
      if (S_ISLNK(st.st_mode)) {
        candidate = real_path(candidate);
      } else if (identity) {
        *identity = stat_key_of(st);
      }
    }
  }
  if (!path_within(root_, candidate)) {
    throw ManifestError("Manifest file path escapes data directory: " + python_repr(file_path));
  }
  return candidate;
}

std::string feature_epoch_for_expression_type(std::string_view expression_type_text,
                                              const EpochNames& epochs) {
  // No non-ASCII character lower-cases to a letter of "strategy", so an
  // ASCII comparison decides exactly what the host's lower() would.
  return lower_ascii(expression_type_text) == "strategy" ? epochs.strategy_is : epochs.signal_is;
}

std::optional<std::string> feature_artifact_family_prefix(std::string_view feature_name) {
  std::string_view stem = strip_text(feature_name);
  if (stem.empty()) return std::nullopt;
  if (stem.ends_with(kArrow)) stem.remove_suffix(kArrow.size());
  // Split on "__" left to right without overlaps, as the host's split does.
  constexpr std::string_view kSep = "__";
  const std::size_t first = stem.find(kSep);
  if (first == std::string_view::npos) return std::nullopt;
  const std::size_t second = stem.find(kSep, first + kSep.size());
  if (second == std::string_view::npos) return std::nullopt;
  if (stem.find(kSep, second + kSep.size()) == std::string_view::npos) return std::nullopt;
  if (first == 0 || second == first + kSep.size()) return std::nullopt;
  return std::string(stem.substr(0, second + kSep.size()));
}

namespace {

std::string_view path_of(const json::key_value_pair& entry) { return entry.key(); }
std::string_view path_of(const ManifestFiles::Entry& entry) { return entry.path(); }

template <typename Files>
std::optional<std::string> feature_relative_path_in(const Files& files,
                                                          std::string_view feature_name,
                                                          std::string_view expression_type,
                                                          std::optional<std::string_view> named_universe,
                                                          const EpochNames& epochs) {
  const std::string name(strip_text(feature_name));
  const std::string epoch = feature_epoch_for_expression_type(expression_type, epochs);
  const std::string_view universe = named_universe ? strip_text(*named_universe) : std::string_view();

  std::string direct(kFeaturesDir);
  std::string tail;
  std::size_t min_segments = 0, max_segments = 0;
  if (!universe.empty()) {
    // Scoped layout: features/<universe>/<epoch>/<name>.arrow.
    direct.append(universe).append("/").append(epoch).append("/").append(name).append(kArrow);
    tail.append("/").append(epoch).append("/").append(name).append(kArrow);
    min_segments = max_segments = 4;
  } else {
    // Unscoped layout first; the scan then accepts either layout and any
    // epoch, since the caller named no universe to narrow it down.
    direct.append(epoch).append("/").append(name).append(kArrow);
    tail.append("/").append(name).append(kArrow);
    min_segments = 3;
    max_segments = 4;
  }
  if (files.contains(direct)) return direct;
  for (const auto& entry : files) {
    const std::string_view path = path_of(entry);
    if (!path.starts_with(kFeaturesDir) || !path.ends_with(tail)) continue;
    const std::size_t segments = segment_count(path);
    if (segments >= min_segments && segments <= max_segments) return std::string(path);
  }
  return std::nullopt;
}

template <typename Files>
std::vector<std::string> companion_relative_paths_in(const Files& files,
                                                                   std::string_view relative_path) {
  std::vector<std::string> companions;
  std::string own;
  if (normalize_manifest_path(relative_path, own) != PathFault::kNone) return companions;
  if (!own.starts_with(kFeaturesDir) || !own.ends_with(kArrow)) return companions;
  const std::string_view own_name = basename_of(own);
  const std::optional<std::string> prefix =
      feature_artifact_family_prefix(own_name.substr(0, own_name.size() - kArrow.size()));
  if (!prefix) return companions;
  const std::string_view parent = parent_of(own);

  std::string candidate;
  for (const auto& entry : files) {
    const std::string_view key = path_of(entry);
    // Normalising keeps segment text, so a key without the prefix anywhere
    // cannot be a companion; skip it before the full check.
    if (key.find(*prefix) == std::string_view::npos) continue;
    if (normalize_manifest_path(key, candidate) != PathFault::kNone) continue;
    if (candidate == own || !candidate.ends_with(kArrow)) continue;
    if (parent_of(candidate) != parent || !basename_of(candidate).starts_with(*prefix)) continue;
    companions.push_back(candidate);
  }
  std::sort(companions.begin(), companions.end());
  return companions;
}

template <typename Files>
std::vector<std::string> prefetch_relative_paths_in(const Files& files,
                                                                  std::string_view feature_name,
                                                                  std::string_view expression_type,
                                                                  std::optional<std::string_view> named_universe,
                                                                  const EpochNames& epochs) {
  std::vector<std::string> paths;
  std::optional<std::string> path =
      feature_relative_path_in(files, feature_name, expression_type, named_universe, epochs);
  if (!path) return paths;
  std::vector<std::string> companions = companion_relative_paths_in(files, *path);
  paths.reserve(companions.size() + 1);
  paths.push_back(std::move(*path));
  std::move(companions.begin(), companions.end(), std::back_inserter(paths));
  return paths;
}

}  // namespace

std::optional<std::string> manifest_feature_relative_path(const json::object& files, std::string_view feature_name,
                                                          std::string_view expression_type,
                                                          std::optional<std::string_view> named_universe,
                                                          const EpochNames& epochs) {
  return feature_relative_path_in(files, feature_name, expression_type, named_universe, epochs);
}

std::vector<std::string> manifest_feature_companion_relative_paths(const json::object& files,
                                                                   std::string_view relative_path) {
  return companion_relative_paths_in(files, relative_path);
}

std::vector<std::string> manifest_feature_prefetch_relative_paths(const json::object& files, std::string_view feature_name,
                                                                  std::string_view expression_type,
                                                                  std::optional<std::string_view> named_universe,
                                                                  const EpochNames& epochs) {
  return prefetch_relative_paths_in(files, feature_name, expression_type, named_universe, epochs);
}

std::optional<std::string> manifest_feature_relative_path(const ManifestFiles& files, std::string_view feature_name,
                                                          std::string_view expression_type,
                                                          std::optional<std::string_view> named_universe,
                                                          const EpochNames& epochs) {
  return feature_relative_path_in(files, feature_name, expression_type, named_universe, epochs);
}

std::vector<std::string> manifest_feature_companion_relative_paths(const ManifestFiles& files,
                                                                   std::string_view relative_path) {
  return companion_relative_paths_in(files, relative_path);
}

std::vector<std::string> manifest_feature_prefetch_relative_paths(const ManifestFiles& files, std::string_view feature_name,
                                                                  std::string_view expression_type,
                                                                  std::optional<std::string_view> named_universe,
                                                                  const EpochNames& epochs) {
  return prefetch_relative_paths_in(files, feature_name, expression_type, named_universe, epochs);
}

std::string manifest_file_url(std::string_view server_url, std::string_view file_path,
                              std::optional<std::string_view> base_url) {
  const std::string relative = safe_manifest_relative_path(file_path);
  std::string base(base_url ? strip_text(*base_url) : std::string_view());
  if (base.empty()) base = rstrip_char(strip_text(server_url), '/') + "/data/files";
  const UrlParts parts = split_url(base);
  if (parts.scheme.empty() || parts.netloc.empty()) {
    throw ManifestError("Manifest base_url must be an absolute data-file URL");
  }
  // The base will carry the bearer credential; a refusal is a manifest fault.
  try {
    checked_bearer_transport_url(base);
  } catch (const ValueError& e) {
    throw ManifestError(e.what());
  } catch (const HostError& e) {
    if (!e.is(HostError::kIsValueError)) throw;
    throw ManifestError(e.what());
  }
  return rstrip_char(base, '/') + "/" + relative;
}

bool manifest_base_url_uses_public_download(std::string_view server_url,
                                            std::optional<std::string_view> base_url) {
  if (!base_url || base_url->empty()) return false;
  const UrlParts base = split_url(strip_text(*base_url));
  const UrlParts server = split_url(strip_text(server_url));
  return base.netloc == server.netloc && rstrip_char(base.path, '/') == "/data/files";
}

std::optional<std::string> agent_signal_group_key(std::string_view file_path, std::string_view prefix,
                                                  const EpochNames& epochs) {
  if (!file_path.starts_with(prefix)) return std::nullopt;
  std::string_view rest = file_path.substr(prefix.size());
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  while (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);

  // Only the first four segments matter, and whether a fifth exists.
  std::string_view segments[4];
  std::size_t pos = 0;
  for (auto& segment : segments) {
    const std::size_t slash = rest.find('/', pos);
    if (slash == std::string_view::npos) return std::nullopt;  // at most four segments
    segment = rest.substr(pos, slash - pos);
    pos = slash + 1;
  }
  // Checked from the last epoch back, so that a later name wins should two
  // epochs share one text.
  std::string_view group;
  if (segments[3] == epochs.signal_os) {
    group = "useful_signals";
  } else if (segments[3] == epochs.strategy_is) {
    group = "found_strategies";
  } else if (segments[3] == epochs.signal_is) {
    group = "found_signals";
  } else {
    return std::nullopt;
  }
  if (segments[0] != group) return std::nullopt;
  return std::string(rest.substr(0, segments[2].data() + segments[2].size() - rest.data()));
}

}  // namespace tidewright::sync
