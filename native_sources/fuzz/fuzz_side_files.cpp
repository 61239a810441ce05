// The files the engine keeps in a data directory and reads back, as another
// process or a crash may have left them. The first byte picks the file:
//   H  ".sync_hash_cache.json"         C  ".consumer_count"
//   O  ".sync_flock.owner"             P  "sync-progress.json" (its writer)
//   F  ".prefetched-features.json"     M  ".manifest_sync_metadata.json"
//   S  "shuffle_seed.enc.meta.json"
// (any other first byte picks one by its value). Beyond not crashing: what a
// parser accepts, its writer writes back the same; a cache never answers a
// digest other than the one asked about; the side files vouch only for what
// they describe.
#include "fuzz_support.hpp"
#include "tidewright/sync/artifacts/shuffle_seed.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/common/json.hpp"
#include "fake_host.hpp"
#include "tidewright/sync/manager/hash_cache.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/manifest/manifest.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/rotation/state.hpp"
#include "tidewright/sync/transport/files.hpp"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

using namespace tidewright::sync;
using tidewright::sync::fuzz::QuietHost;
using tidewright::sync::fuzz::require;

namespace {


std::string g_dir;  // a scratch data directory for the parsers that read files

void remove_scratch() {
  std::error_code ec;
  std::filesystem::remove_all(g_dir, ec);
}

// Equality of values as written (NaN is not equal to itself).
bool same(const json::value& a, const json::value& b) {
  return dump_json(a, {.sort_keys = true}) == dump_json(b, {.sort_keys = true});
}

std::optional<json::value> try_parse(std::string_view text) {
  try {
    return parse_json(text);
  } catch (const JsonParseError&) {
    return std::nullopt;
  }
}

std::uint64_t bytes_value(std::string_view text) {
  std::uint64_t v = 0;
  std::memcpy(&v, text.data(), std::min(text.size(), sizeof v));
  return v;
}

// --- H: the hash cache ---------------------------------------------------------

void hash_cache(std::string_view text) {
  json::object files;
  try {
    files = parse_hash_cache_text(text);
  } catch (const JsonParseError&) {
    return;
  }
  for (const auto& kv : files) require(kv.value().is_object(), "a cache entry that is not an object was kept");
  require(same(parse_hash_cache_text(hash_cache_text(files)), files), "the hash cache does not read back as written");

  // Through the file: the loaded cache holds these entries, and a lookup
  // answers the digest asked about or nothing.
  const std::string path = path_join(g_dir, SYNC_HASH_CACHE_FILENAME);
  atomic_write(path, text);
  HashCache cache(path);
  cache.load();
  require(same(cache.entries(), files), "the loaded cache is not the file's entries");
  for (const auto& kv : files) {
    const json::object& e = kv.value().get_object();
    auto field = [&](const char* name) {
      const json::value* v = e.if_contains(name);
      return v ? to_int(*v) : std::nullopt;
    };
    StatKey key{field("size_bytes").value_or(0), field("mtime_ns").value_or(0), field("ctime_ns").value_or(0),
                field("inode").value_or(0)};
    const std::string path_key(kv.key());
    const json::value* sha = e.if_contains("sha256");
    const std::string asked = sha && sha->is_string() ? std::string(sha->get_string()) : std::string("0");
    for (const std::string& expected : {asked, asked + "0"}) {
      std::optional<std::string> got = cache.cached_sha(path_key, key, expected);
      require(!got || *got == expected, "the cache answered a digest other than the one asked about");
    }
  }
}

// --- C: the consumer count -------------------------------------------------------

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

void consumer_count(std::string_view text) {
  std::optional<std::int64_t> count = parse_consumer_count(text);
  if (count) {
    // Blanks, a sign and "_" between digits around the digits of the count.
    std::string digits;
    bool negative = false;
    for (char c : text) {
      if (c >= '0' && c <= '9') {
        digits.push_back(c);
      } else if (c == '-') {
        negative = true;
      } else {
        require(is_blank(c) || c == '+' || c == '_', "a count was read from text with other characters");
      }
    }
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
    std::string shown = std::to_string(*count);
    require(shown == (negative && *count != 0 ? "-" : "") + digits, "the count is not the number the text spells");
  }
  std::int64_t n = static_cast<std::int64_t>(bytes_value(text));
  require(parse_consumer_count(consumer_count_text(n)) == n, "a written count does not read back");
}

// --- O: the lock owner file ------------------------------------------------------

void lock_owner(std::string_view text) {
  std::optional<LockOwner> owner = parse_lock_owner(text);
  std::size_t space = text.find(' ');
  require(owner.has_value() == (space != std::string_view::npos), "an owner was read from a text without a blank");
  if (owner) {
    if (owner->pid) {
      require(*owner->pid > 0, "a lock owner pid is not positive");
      std::string_view digits = text.substr(0, space);
      digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
      require(std::to_string(*owner->pid) == digits, "a lock owner pid is not the number the file spells");
    }
    require(owner->host.find('\n') == std::string::npos, "a lock owner host spans lines");
    require(owner->host.empty() || (owner->host.back() != ' ' && owner->host.back() != '\r'),
            "a lock owner host keeps trailing blanks");
  }
  // Whatever this process writes reads back as its pid and host name.
  pid_t pid = static_cast<pid_t>(bytes_value(text) % INT_MAX) + 1;
  std::string host(text.substr(std::min<std::size_t>(text.size(), 4)));
  host = host.substr(0, host.find('\n'));
  while (!host.empty() && (host.back() == ' ' || host.back() == '\r')) host.pop_back();
  std::optional<LockOwner> back = parse_lock_owner(lock_owner_text(pid, host));
  require(back && back->pid == pid && back->host == host, "a written lock owner does not read back");
}

// --- P: the progress file --------------------------------------------------------

void progress(std::string_view text, const ManifestSiblings& siblings) {
  std::optional<json::value> input = try_parse(text);
  if (!input || !input->is_object()) return;
  const json::object& files = input->get_object();
  json::value written = parse_json(sync_progress_text(7, 3, files, siblings, 1.5));
  require(written.is_object(), "the progress file is not an object");
  const json::object& p = written.get_object();
  require(p.size() == 8 && p.at("phase") == "syncing" && p.at("era_number") == 7 && p.at("version") == 3,
          "the progress file has other fields");
  const json::object& listed = p.at("files").get_object();
  require(listed.size() == files.size(), "the progress file lists other files");
  std::int64_t total = 0;
  json::array unknown;
  for (const auto& kv : files) {
    const json::value* entry = listed.if_contains(kv.key());
    require(entry && entry->is_object(), "a file to download is missing from the progress file");
    const json::object& e = entry->get_object();
    require(e.at("kind").is_string() && e.at("platform").is_string(), "kind and platform are not text");
    std::optional<std::int64_t> size = siblings.manifest_file_size(kv.value());
    if (size) {
      require(e.contains("size_bytes") && e.at("size_bytes") == *size, "a file's size is not the manifest's");
      total = *size > INT64_MAX - total ? INT64_MAX : total + *size;
    } else {
      require(!e.contains("size_bytes"), "a file without a known size has one in the progress file");
      unknown.emplace_back(kv.key());
    }
  }
  require(p.at("total_bytes") == total, "total_bytes is not the sum of the known sizes");
  require(p.at("unknown_size_files") == unknown, "unknown_size_files are not the files without a size, in order");
  require(p.at("total_bytes_known") == unknown.empty(), "total_bytes_known disagrees with unknown_size_files");
}

// --- F: the prefetched feature files ---------------------------------------------

void prefetched(std::string_view text, const Manifest& manifest, const ManifestSiblings& siblings) {
  std::set<std::string> paths = parse_prefetched_features_text(text, manifest, siblings);
  for (const auto& path : paths) {
    std::optional<ManifestFiles::Entry> info = manifest.files().find(path);
    require(info && siblings.manifest_file_kind(path, info->info()) == "feature",
            "a prefetched path is no feature file of the manifest");
  }
  require(parse_prefetched_features_text(prefetched_features_text(7, paths), manifest, siblings) == paths,
          "the prefetched features do not read back as written");
  require(parse_prefetched_features_text(prefetched_features_text(8, paths), manifest, siblings).empty(),
          "prefetched features of another era were taken");
}

// --- M: the manifest sync metadata -----------------------------------------------

void manifest_metadata(std::string_view text) {
  atomic_write(manifest_sync_metadata_path(g_dir), text);
  const std::string local_sha = sha256_file(path_join(g_dir, "manifest.json"));
  json::object metadata = load_manifest_sync_metadata(g_dir);
  std::optional<json::value> parsed = try_parse(text);
  require(metadata.empty() || (parsed && parsed->is_object() && same(*parsed, metadata)),
          "the metadata loaded is not the file's object");
  std::vector<std::string> hints = {"h", local_sha};
  for (const char* key : {"server_manifest_sha256", "server_manifest_body_sha256"}) {
    if (const json::value* v = metadata.if_contains(key); v && v->is_string()) hints.emplace_back(v->get_string());
  }
  for (const auto& hint : hints) {
    if (!manifest_hash_hint_matches_local_state(g_dir, 3, 7, hint)) continue;
    require(to_int(metadata.at("version")) == 3 && to_int(metadata.at("era_number")) == 7,
            "the metadata vouched for another version or era");
    require(metadata.at("local_manifest_sha256") == local_sha.c_str(),
            "the metadata vouched for another manifest.json");
    bool recorded = false;
    for (const char* key : {"server_manifest_sha256", "server_manifest_body_sha256"}) {
      if (const json::value* v = metadata.if_contains(key)) recorded |= truthy(*v) && python_str(*v) == hint;
    }
    require(recorded, "the metadata vouched for a server hash it does not record");
  }
}

// --- S: the shuffle seed metadata ------------------------------------------------

void seed_metadata(std::string_view text) {
  const std::string seed = path_join(g_dir, SHUFFLE_SEED_FILENAME);
  atomic_write(shuffle_seed_meta_path(seed), text);
  const ShuffleSeedExpectations expected{7, 1, 3, std::string(DEFAULT_SHUFFLE_KEY_GENERATION)};
  try {
    validate_shuffle_seed_file(seed, expected);
    std::optional<json::value> meta = try_parse(text);
    require(meta && meta->is_object(), "seed metadata that is not an object was accepted");
    const json::object& m = meta->get_object();
    require(m.contains("era_number") && to_int(m.at("era_number")) == 7, "a seed of another era was accepted");
    require(m.contains("market_id") && to_int(m.at("market_id")) == 1, "a seed of another market was accepted");
    require(m.contains("manifest_version") && to_int(m.at("manifest_version")) == 3,
            "a seed of another manifest version was accepted");
  } catch (const SyncError&) {
  }
  // What the engine writes for a seed it downloaded validates against the
  // same expectations, and only against those.
  std::uint64_t v = bytes_value(text);
  std::int64_t era = static_cast<std::int64_t>(v % 1000);
  std::int64_t market = static_cast<std::int64_t>((v >> 16) % 50) + 1;
  std::int64_t version = static_cast<std::int64_t>((v >> 32) % 50) + 1;
  std::string source(text.substr(0, 8));
  if (source.find_first_of("\r\n") != std::string::npos) source.clear();
  write_shuffle_seed_metadata(seed, era, market, version, std::nullopt, json::value(source));
  validate_shuffle_seed_file(seed, {era, market, version, std::string(DEFAULT_SHUFFLE_KEY_GENERATION)});
  bool refused = false;
  try {
    validate_shuffle_seed_file(seed, {era + 1, market, version, std::string(DEFAULT_SHUFFLE_KEY_GENERATION)});
  } catch (const EraError&) {
    refused = true;
  }
  require(refused, "a seed's metadata vouched for another era");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  set_host(std::make_shared<QuietHost>());
  std::string tmpl = (std::filesystem::temp_directory_path() / "tw-fuzz-side-files-XXXXXX").string();
  if (::mkdtemp(tmpl.data()) == nullptr) std::abort();
  g_dir = tmpl;
  std::atexit(remove_scratch);
  write_manifest_json(g_dir, parse_json(R"({"era_number": 7, "version": 3, "files": {}})").get_object());
  atomic_write(path_join(g_dir, SHUFFLE_SEED_FILENAME), std::string(SHUFFLE_SEED_BYTES, 's'));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ManifestSiblings siblings = default_manifest_siblings();
  static const ManifestPtr manifest = Manifest::from_sanitized(parse_json(R"({
      "era_number": 7, "version": 3,
      "files": {"features/u/signal_is/a.arrow": {"kind": "feature"},
                "features/u/signal_is/b.arrow": {"kind": "feature"},
                "found_signals/p/s/signal_is/pnl.arrow": {"kind": "found_signal_is_pnl"},
                "named_universes/u/vocabulary.json": {"kind": "vocabulary"}}})").get_object());
  if (size == 0) return 0;
  static constexpr char kKinds[] = "HCOPFMS";
  const char* picked = std::strchr(kKinds, static_cast<char>(data[0]));
  char kind = picked && data[0] != 0 ? *picked : kKinds[data[0] % (sizeof kKinds - 1)];
  std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (kind) {
    case 'H': hash_cache(text); break;
    case 'C': consumer_count(text); break;
    case 'O': lock_owner(text); break;
    case 'P': progress(text, siblings); break;
    case 'F': prefetched(text, *manifest, siblings); break;
    case 'M': manifest_metadata(text); break;
    case 'S': seed_metadata(text); break;
  }
  return 0;
}
