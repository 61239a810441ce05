#include "tidewright/sync/manifest/manifest_files.hpp"

#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <chrono>
#include <map>
#include <set>

namespace tidewright::sync {

namespace {

constexpr std::string_view kManifestFilename = "manifest.json";

std::string manifest_json_path(const std::string& data_dir) { return path_join(data_dir, kManifestFilename); }

bool given(const std::optional<std::string>& value) { return value && !value->empty(); }

json::value get_or_null(const json::object& object, std::string_view key) {
  const json::value* value = object.if_contains(key);
  return value ? *value : json::value(nullptr);
}

// Digests of manifest.json files by identity, as the hash cache keeps data
// files: a manifest of 100,000 files is tens of megabytes, hashed on every
// version probe otherwise. Any change of size, times or inode is a miss.
Mutex g_manifest_digest_mu;
std::map<std::string, std::pair<StatKey, std::string>> g_manifest_digests GUARDED_BY(g_manifest_digest_mu);
constexpr std::size_t kMaxManifestDigests = 16;

// The hash of manifest.json, or empty when it cannot be read.
std::optional<std::string> local_manifest_sha256(const std::string& data_dir) {
  const std::string path = manifest_json_path(data_dir);
  std::optional<StatKey> before = try_stat_key(path);
  if (before) {
    MutexLock lock(g_manifest_digest_mu);
    auto it = g_manifest_digests.find(path);
    if (it != g_manifest_digests.end() && it->second.first == *before) return it->second.second;
  }
  const std::int64_t hashed_at = coarse_now_ns();
  std::string digest;
  try {
    digest = sha256_file(path);
  } catch (const OSError&) {
    return std::nullopt;
  }
  // Remembered only when the file did not change while it was read, and
  // only when its times are older than the reading (see coarse_now_ns).
  if (before && try_stat_key(path) == before && before->mtime_ns < hashed_at && before->ctime_ns < hashed_at) {
    MutexLock lock(g_manifest_digest_mu);
    if (g_manifest_digests.size() >= kMaxManifestDigests && !g_manifest_digests.count(path)) {
      g_manifest_digests.erase(g_manifest_digests.begin());
    }
    g_manifest_digests[path] = {*before, digest};
  }
  return digest;
}

}  // namespace

namespace {

// Renders `fields` ("files" taken from `files` when given) into manifest.json.
void write_manifest_text(const std::string& data_dir, const json::object& fields, const ManifestFiles* files) {
  // The host's encoder would write NaN and Infinity, which strict JSON
  // readers of manifest.json refuse; a Manifest never holds them.
  auto refuse = [](std::string_view key) {
    throw ManifestError("manifest.json not written: field " + python_repr(key) +
                        " holds a number that is not finite (NaN or Infinity)");
  };
  for (const auto& field : fields) {
    if (holds_non_finite_number(field.value())) refuse(field.key());
  }
  if (files) {
    for (const ManifestFiles::Entry entry : *files) {
      if (const json::value* info = entry.verbatim(); info && holds_non_finite_number(*info)) refuse("files");
    }
  }
  // Written as it is rendered: the text of a large manifest is tens of
  // megabytes.
  atomic_write_in_pieces(manifest_json_path(data_dir), [&](const std::function<void(std::string_view)>& write) {
    if (!files) {
      write_json_in_pieces(fields, {}, write);
      return;
    }
    constexpr std::size_t kPiece = 1 << 20;
    std::string out;
    out.reserve(kPiece + 4096);
    auto spill = [&] {
      if (out.size() >= kPiece) {
        write(out);
        out.clear();
      }
    };
    out.push_back('{');
    bool first = true;
    for (const auto& field : fields) {
      if (!first) out += ", ";
      first = false;
      append_json_string(out, field.key());
      out += ": ";
      if (field.key() != "files") {
        append_json(out, field.value());
        spill();
        continue;
      }
      out.push_back('{');
      bool first_file = true;
      for (const ManifestFiles::Entry entry : *files) {
        if (!first_file) out += ", ";
        first_file = false;
        append_json_string(out, entry.path());
        out += ": ";
        files->append_entry_json(out, entry, {});
        spill();
      }
      out.push_back('}');
    }
    out.push_back('}');
    if (!out.empty()) write(out);
  });
}

}  // namespace

void write_manifest_json(const std::string& data_dir, const json::object& manifest_data,
                         const std::optional<std::string>& server_manifest_sha256,
                         const std::optional<std::string>& server_manifest_body_sha256) {
  write_manifest_text(data_dir, manifest_data, nullptr);
  if (given(server_manifest_sha256) || given(server_manifest_body_sha256)) {
    write_manifest_sync_metadata(data_dir, manifest_data, server_manifest_sha256, server_manifest_body_sha256);
  }
}

void write_manifest_json(const std::string& data_dir, const Manifest& manifest,
                         const std::optional<std::string>& server_manifest_sha256,
                         const std::optional<std::string>& server_manifest_body_sha256) {
  write_manifest_text(data_dir, manifest.fields(), manifest.files_held() ? &manifest.files() : nullptr);
  if (given(server_manifest_sha256) || given(server_manifest_body_sha256)) {
    write_manifest_sync_metadata(data_dir, manifest.fields(), server_manifest_sha256, server_manifest_body_sha256);
  }
}

std::string manifest_sync_metadata_path(const std::string& data_dir) {
  return path_join(data_dir, MANIFEST_SYNC_METADATA_FILENAME);
}

json::object load_manifest_sync_metadata(const std::string& data_dir) {
  json::value decoded;
  try {
    decoded = parse_json(read_file(manifest_sync_metadata_path(data_dir)));
  } catch (const OSError&) {
    return {};
  } catch (const JsonParseError&) {
    return {};
  }
  if (!decoded.is_object()) return {};
  return std::move(decoded.get_object());
}

void write_manifest_sync_metadata(const std::string& data_dir, const json::object& manifest_data,
                                  const std::optional<std::string>& server_manifest_sha256,
                                  const std::optional<std::string>& server_manifest_body_sha256) {
  std::optional<std::string> local_sha256 = local_manifest_sha256(data_dir);
  if (!local_sha256) return;
  json::object metadata;
  metadata["version"] = get_or_null(manifest_data, "version");
  metadata["era_number"] = get_or_null(manifest_data, "era_number");
  metadata["server_manifest_sha256"] = given(server_manifest_sha256) ? *server_manifest_sha256 : "";
  metadata["server_manifest_body_sha256"] = given(server_manifest_body_sha256) ? *server_manifest_body_sha256 : "";
  metadata["local_manifest_sha256"] = *local_sha256;
  metadata["updated_at"] =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  atomic_write(manifest_sync_metadata_path(data_dir), dump_json(metadata, {.sort_keys = true}));
}

bool manifest_hash_hint_matches_local_state(const std::string& data_dir, std::int64_t local_version,
                                            std::int64_t local_era_number,
                                            const std::optional<std::string>& server_manifest_sha_hint) {
  if (!given(server_manifest_sha_hint)) return false;
  std::optional<std::string> local_sha256 = local_manifest_sha256(data_dir);
  if (!local_sha256) return false;
  json::object metadata = load_manifest_sync_metadata(data_dir);

  const json::value* version_value = metadata.if_contains("version");
  const json::value* era_value = metadata.if_contains("era_number");
  std::optional<std::int64_t> version = version_value ? to_int(*version_value) : std::nullopt;
  std::optional<std::int64_t> era_number = era_value ? to_int(*era_value) : std::nullopt;
  if (!version || !era_number) return false;

  std::set<std::string> known_server_hashes;
  for (std::string_view key : {"server_manifest_sha256", "server_manifest_body_sha256"}) {
    const json::value* value = metadata.if_contains(key);
    if (value && truthy(*value)) known_server_hashes.insert(python_str(*value));
  }
  if (*version != local_version || *era_number != local_era_number) return false;
  // Either the hash of the raw response or of its body names the manifest.
  if (!known_server_hashes.contains(*server_manifest_sha_hint)) return false;
  // The side file only vouches for the manifest.json it was written for.
  const json::value* recorded = metadata.if_contains("local_manifest_sha256");
  return recorded && recorded->is_string() && recorded->get_string() == *local_sha256;
}

}  // namespace tidewright::sync
