#include "tidewright/sync/manager/sync_manager.hpp"

#include "tidewright/sync/artifacts/signals_index.hpp"
#include "tidewright/sync/common/fs.hpp"
#include "tidewright/sync/era/market.hpp"
#include "tidewright/sync/manager/side_files.hpp"
#include "tidewright/sync/manifest/manifest_files.hpp"
#include "tidewright/sync/manifest/sanitize.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/bearer_token.hpp"
#include "tidewright/sync/transport/files.hpp"
#include "tidewright/sync/transport/http_request.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <malloc.h>

#include <exception>
#include <utility>

namespace tidewright::sync {

namespace {

std::map<std::string, std::shared_ptr<SyncManager>> g_instances GUARDED_BY(SyncManager::class_mutex());

std::string validated_data_dir(const SyncManagerArgs& args) {
  Host& h = host();
  if (!h.is_callable(args.get_token)) {
    throw TypeError("get_token must be callable, got " + h.type_repr(args.get_token));
  }
  h.validate_bearer_transport_url(args.server_url);
  if (!is_directory(args.data_dir)) {
    throw FileNotFoundError("data_dir does not exist: " + args.data_dir);
  }
  return args.data_dir;
}

}  // namespace

SyncManager::SyncManager(SyncManagerArgs args)
    : settings_{validated_data_dir(args), args.server_url,
                coerce_agent_market_id(args.market_id, args.market_id_repr), args.poll_interval_s},
      hooks_(std::move(args.get_token), std::move(args.token_text), std::move(args.runtime_freshness_guard)),
      hash_cache_(path_join(settings_.data_dir, SYNC_HASH_CACHE_FILENAME)),
      transfer_(transfer_context()),
      consumers_(settings_.data_dir),
      directory_lock_(settings_.data_dir, path_join(settings_.data_dir, ".sync_flock"),
                      [this] { return stop_requested(); }),
      transition_(*this, settings_.data_dir),
      rotation_(settings_.data_dir) {
  set_sync_runtime_knobs(args.knobs);
  hash_cache_.load();
  consumers_.load();
  load_local_manifest();
  rotation_.load_state();
  load_local_vocabulary();
  // What loading parsed and let go goes back to the system now, not at the
  // first sync's downloads.
  malloc_trim(0);
}

std::optional<json::value> SyncManager::held_manifest_era_number() const {
  ManifestPtr manifest = get_manifest();
  if (!manifest) return std::nullopt;
  return manifest->era_number();
}

void SyncManager::trigger_era_transition(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                                         const SearchesFn& restart_searches_fn) {
  // A release() that found this transition running left the instance in
  // the registry; it leaves once the transition is over.
  struct EvictWhenReleased {
    SyncManager& self;
    ~EvictWhenReleased() { self.evict_if_released(); }
  } evict{*this};
  transition_.run(new_era_number, kill_searches_fn, restart_searches_fn);
}

void SyncManager::set_status_message(std::string message) { held_.set_status(std::move(message)); }

void SyncManager::install_manifest(ManifestPtr manifest) { held_.install(std::move(manifest)); }

void SyncManager::install_vocabularies(std::shared_ptr<const json::object> vocabularies) {
  held_.set_vocabularies(std::move(vocabularies));
}

// The threads this manager starts hold a reference to it while they run, so
// by now they have ended (or this is one of them, about to return).
SyncManager::~SyncManager() = default;

void SyncManager::load_local_manifest() {
  std::string path = path_join(settings_.data_dir, "manifest.json");
  if (!path_exists(path)) return;
  try {
    // Parsed as it is read: the text of a large manifest is tens of
    // megabytes, and its parsed form is held only until the table is built.
    JsonStreamParser parser;
    read_file_in_pieces(path, [&](std::string_view piece) { parser.write(piece); });
    json::value raw = parser.finish();
    if (!raw.is_object()) throw ManifestError("manifest.json must contain a JSON object");
    ManifestSiblings siblings = host().manifest_siblings();
    // Sanitised as a server manifest is: one written by an older version of
    // the engine may hold digests in capitals or entries refused since.
    bool changed = false;
    std::vector<RejectedManifestEntry> rejected;
    json::object data = sanitize_manifest_data_for_sync(std::move(raw.get_object()), siblings, &changed, &rejected);
    ManifestPtr manifest = Manifest::from_sanitized(std::move(data), std::move(rejected));
    if (changed) write_manifest_json(settings_.data_dir, *manifest);
    // Consumers read membership straight after get_or_create, before any
    // sync. A missing or broken index still keeps the manifest (with empty
    // membership): the next sync fetches the index.
    std::exception_ptr index_error;
    try {
      load_manifest_signals_index(settings_.data_dir, *manifest);
    } catch (const HostError&) {
      throw;
    } catch (const std::exception&) {
      index_error = std::current_exception();
    }
    held_.install(std::move(manifest));
    if (index_error) std::rethrow_exception(index_error);  // logged below
  } catch (const HostError&) {
    throw;  // an exception of a host callback is the caller's, not a bad file
  } catch (const std::exception& e) {
    log_warning("Failed to load manifest from disk: %s", {json::value(e.what())});
  }
}

void SyncManager::load_local_vocabulary() {
  ManifestPtr manifest = get_manifest();
  if (!manifest) return;
  try {
    held_.set_vocabularies(validated_vocabularies(*manifest));
  } catch (const HostError&) {
    throw;
  } catch (const std::exception& e) {
    log_warning("Failed to load vocabulary from disk: %s", {json::value(e.what())});
  }
}

ManifestPtr SyncManager::with_local_signals_index(const ManifestPtr& manifest) {
  std::optional<SignalsIndexMembership> membership = read_manifest_signals_index(settings_.data_dir, *manifest);
  if (!membership || *membership == SignalsIndexMembership::of(*manifest)) return manifest;
  ManifestPtr fresh = manifest->without_membership();
  std::move(*membership).apply_to(*fresh);
  return fresh;
}

std::shared_ptr<SyncManager> SyncManager::get_or_create(SyncManagerArgs args) {
  std::string key = real_path(args.data_dir);
  std::int64_t market = coerce_agent_market_id(args.market_id, args.market_id_repr);
  MutexLock lock(class_mutex());
  auto it = g_instances.find(key);
  if (it != g_instances.end()) {
    const auto& existing = it->second;
    if (existing->settings_.server_url != args.server_url) {
      throw ValueError("SyncManager for '" + key + "' already exists with server_url='" + existing->settings_.server_url +
                       "', cannot reuse with server_url='" + args.server_url + "'");
    }
    if (existing->settings_.market_id != market) {
      throw ValueError("SyncManager for '" + key + "' already exists with market_id=" +
                       std::to_string(existing->settings_.market_id) + ", cannot reuse with market_id=" +
                       std::to_string(market));
    }
    existing->set_get_token(std::move(args.get_token), std::move(args.token_text));
    existing->set_sync_runtime_knobs(args.knobs);
    return existing;
  }
  args.data_dir = key;
  auto manager = std::make_shared<SyncManager>(std::move(args));
  g_instances[key] = manager;
  return manager;
}

void SyncManager::evict(const std::string& data_dir) {
  std::string key = real_path(data_dir);
  MutexLock lock(class_mutex());
  g_instances.erase(key);
}

Mutex& SyncManager::class_mutex() {
  static Mutex mu;
  return mu;
}

void SyncManager::evict_locked(const SyncManager* manager) {
  auto it = g_instances.find(real_path(manager->settings_.data_dir));
  if (it != g_instances.end() && it->second.get() == manager) g_instances.erase(it);
}

std::map<std::string, std::shared_ptr<SyncManager>> SyncManager::instances() {
  MutexLock lock(class_mutex());
  return g_instances;
}

void SyncManager::set_sync_runtime_knobs(const SyncKnobs& knobs) { hooks_.set_knobs(knobs); }

std::string SyncManager::sync_http_transport() const { return hooks_.transport(); }

std::int64_t SyncManager::sync_http_chunk_bytes() const { return hooks_.chunk_bytes(); }

std::int64_t SyncManager::sync_max_concurrency() const { return hooks_.max_concurrency(); }

ManifestPtr SyncManager::get_manifest() const { return held_.get(); }

std::optional<std::string> SyncManager::status() const { return held_.status(); }

HostRef SyncManager::get_token_fn() const { return hooks_.get_token(); }

void SyncManager::set_get_token(HostRef fn, std::optional<std::string> token_text) {
  hooks_.set_get_token(std::move(fn), std::move(token_text));
}

HostRef SyncManager::runtime_freshness_guard() const { return hooks_.freshness_guard(); }

void SyncManager::set_runtime_freshness_guard(HostRef guard) { hooks_.set_freshness_guard(std::move(guard)); }

std::string SyncManager::fetch_token() const { return hooks_.fetch_token(); }

TransferEngine::Context SyncManager::transfer_context() {
  TransferEngine::Context context;
  context.server_url = settings_.server_url;
  context.data_dir = settings_.data_dir;
  context.fetch_token = [this] { return fetch_token(); };
  context.stop_requested = [this] { return stop_requested(); };
  context.transport = [this] { return sync_http_transport(); };
  context.chunk_bytes = [this] { return sync_http_chunk_bytes(); };
  context.max_concurrency = [this] { return sync_max_concurrency(); };
  context.held_base_url = [this]() -> std::optional<std::string> {
    ManifestPtr held = get_manifest();
    return held ? held->base_url_text() : std::nullopt;
  };
  context.freshness_guard = [this] { return runtime_freshness_guard(); };
  context.progress = &progress_;
  context.hash_cache = &hash_cache_;
  return context;
}

HttpResponse SyncManager::http_get(const std::string& url, std::int64_t range_start, std::int64_t range_end) {
  ScopedSyncStopPredicate stop([this] { return stop_requested(); });
  return tidewright::sync::http_get(url, fetch_token(), range_start, range_end);
}

HttpResponse SyncManager::http_get_public(const std::string& url, std::int64_t range_start, std::int64_t range_end) {
  ScopedSyncStopPredicate stop([this] { return stop_requested(); });
  return tidewright::sync::http_get_public(url, range_start, range_end, sync_http_transport());
}

HostRef SyncManager::manifest_view(const ManifestPtr& manifest) const { return held_.view(manifest); }

void SyncManager::set_manifest_view(ManifestPtr manifest, HostRef view) {
  held_.set_view(std::move(manifest), std::move(view));
}

bool SyncManager::try_collect_host_refs(std::vector<const void*>& out) const {
  if (!hooks_.try_collect(out) || !held_.try_collect(out)) return false;
  if (!era_callbacks_.try_collect(out)) return false;
  const void* progress = nullptr;
  if (!progress_.try_callback_object(progress)) return false;
  out.push_back(progress);
  std::erase(out, nullptr);
  return true;
}

void SyncManager::drop_host_refs() {
  std::vector<HostRef> dropped;  // released last, after every lock
  hooks_.drop_into(dropped);
  held_.drop_into(dropped);
  era_callbacks_.drop_into(dropped);
  progress_.set_callback(nullptr);
}

}  // namespace tidewright::sync
