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

#include <exception>
#include <utility>

namespace tidewright::sync {

namespace {

std::mutex g_class_mu;
std::map<std::string, std::shared_ptr<SyncManager>> g_instances;  // guarded by g_class_mu

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
    : data_dir_(validated_data_dir(args)),
      server_url_(args.server_url),
      market_id_(coerce_agent_market_id(args.market_id, args.market_id_repr)),
      poll_interval_(args.poll_interval_s),
      get_token_(std::move(args.get_token)),
      token_text_(std::move(args.token_text)),
      runtime_freshness_guard_(std::move(args.runtime_freshness_guard)),
      hash_cache_(path_join(data_dir_, SYNC_HASH_CACHE_FILENAME)),
      transfer_(transfer_context()),
      consumer_count_path_(path_join(data_dir_, ".consumer_count")),
      flock_path_(path_join(data_dir_, ".sync_flock")),
      directory_lock_(data_dir_, flock_path_, [this] { return stop_requested(); }),
      transition_(*this, data_dir_),
      rotation_(data_dir_) {
  set_sync_runtime_knobs(args.knobs);
  hash_cache_.load();
  load_consumer_count();
  load_local_manifest();
  rotation_.load_state();
  load_local_vocabulary();
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

void SyncManager::set_status_message(std::string message) {
  std::lock_guard<std::mutex> lock(state_mu_);
  status_message_ = std::move(message);
}

void SyncManager::install_manifest(ManifestPtr manifest) {
  std::lock_guard<std::mutex> lock(state_mu_);
  manifest_ = std::move(manifest);
}

void SyncManager::install_vocabularies(std::shared_ptr<const json::object> vocabularies) {
  std::lock_guard<std::mutex> lock(state_mu_);
  vocabulary_ = std::move(vocabularies);
}

// The threads this manager starts hold a reference to it while they run, so
// by now they have ended (or this is one of them, about to return).
SyncManager::~SyncManager() = default;

void SyncManager::load_consumer_count() {
  // A process killed while it rewrote the count leaves its temporary file.
  remove_orphaned_temporaries(consumer_count_path_);
  std::int64_t count = 0;
  if (path_exists(consumer_count_path_)) {
    try {
      std::string text = read_file(consumer_count_path_);
      std::optional<std::int64_t> parsed = parse_consumer_count(text);
      if (!parsed) {
        std::string stripped = text;
        auto is_ws = [](char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; };
        while (!stripped.empty() && is_ws(stripped.back())) stripped.pop_back();
        std::size_t b = 0;
        while (b < stripped.size() && is_ws(stripped[b])) ++b;
        throw ValueError("invalid literal for int() with base 10: " + python_repr(std::string_view(stripped).substr(b)));
      }
      count = *parsed;
    } catch (const std::exception& e) {
      log_warning("Failed to read consumer count: %s", {json::value(e.what())});
      count = 0;
    }
  }
  std::lock_guard<std::mutex> lock(consumer_mu_);
  consumer_count_ = count;
}

void SyncManager::load_local_manifest() {
  std::string path = path_join(data_dir_, "manifest.json");
  if (!path_exists(path)) return;
  try {
    json::value raw = parse_json(read_file(path));
    if (!raw.is_object()) throw ManifestError("manifest.json must contain a JSON object");
    ManifestSiblings siblings = host().manifest_siblings();
    // Sanitised as a server manifest is: one written by an older version of
    // the engine may hold digests in capitals or entries refused since.
    bool changed = false;
    std::vector<RejectedManifestEntry> rejected;
    json::object data = sanitize_manifest_data_for_sync(std::move(raw.get_object()), siblings, &changed, &rejected);
    if (changed) write_manifest_json(data_dir_, data);
    ManifestPtr manifest = Manifest::from_sanitized(std::move(data), std::move(rejected));
    // Consumers read membership straight after get_or_create, before any
    // sync. A missing or broken index still keeps the manifest (with empty
    // membership): the next sync fetches the index.
    std::exception_ptr index_error;
    try {
      load_manifest_signals_index(data_dir_, *manifest);
    } catch (const HostError&) {
      throw;
    } catch (const std::exception&) {
      index_error = std::current_exception();
    }
    {
      std::lock_guard<std::mutex> lock(state_mu_);
      manifest_ = std::move(manifest);
    }
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
    std::shared_ptr<const json::object> vocabularies = validated_vocabularies(*manifest);
    std::lock_guard<std::mutex> lock(state_mu_);
    vocabulary_ = std::move(vocabularies);
  } catch (const HostError&) {
    throw;
  } catch (const std::exception& e) {
    log_warning("Failed to load vocabulary from disk: %s", {json::value(e.what())});
  }
}

ManifestPtr SyncManager::with_local_signals_index(const ManifestPtr& manifest) {
  std::optional<SignalsIndexMembership> membership = read_manifest_signals_index(data_dir_, *manifest);
  if (!membership || *membership == SignalsIndexMembership::of(*manifest)) return manifest;
  ManifestPtr fresh = Manifest::from_sanitized(manifest->data());
  std::move(*membership).apply_to(*fresh);
  return fresh;
}

void SyncManager::replace_held_manifest(const ManifestPtr& current, ManifestPtr replacement) {
  std::lock_guard<std::mutex> lock(state_mu_);
  if (manifest_ == current) manifest_ = std::move(replacement);
}

std::shared_ptr<SyncManager> SyncManager::get_or_create(SyncManagerArgs args) {
  std::string key = real_path(args.data_dir);
  std::int64_t market = coerce_agent_market_id(args.market_id, args.market_id_repr);
  std::lock_guard<std::mutex> lock(g_class_mu);
  auto it = g_instances.find(key);
  if (it != g_instances.end()) {
    const auto& existing = it->second;
    if (existing->server_url_ != args.server_url) {
      throw ValueError("SyncManager for '" + key + "' already exists with server_url='" + existing->server_url_ +
                       "', cannot reuse with server_url='" + args.server_url + "'");
    }
    if (existing->market_id_ != market) {
      throw ValueError("SyncManager for '" + key + "' already exists with market_id=" +
                       std::to_string(existing->market_id_) + ", cannot reuse with market_id=" +
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
  std::lock_guard<std::mutex> lock(g_class_mu);
  g_instances.erase(key);
}

std::mutex& SyncManager::class_mutex() { return g_class_mu; }

void SyncManager::evict_locked(const SyncManager* manager) {
  auto it = g_instances.find(real_path(manager->data_dir_));
  if (it != g_instances.end() && it->second.get() == manager) g_instances.erase(it);
}

std::map<std::string, std::shared_ptr<SyncManager>> SyncManager::instances() {
  std::lock_guard<std::mutex> lock(g_class_mu);
  return g_instances;
}

void SyncManager::set_sync_runtime_knobs(const SyncKnobs& knobs) {
  // An argument left out keeps what the instance already holds.
  json::value transport, chunk, concurrency;
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    transport = knobs.sync_http_transport ? *knobs.sync_http_transport
                                          : (sync_http_transport_.empty() ? json::value(nullptr)
                                                                          : json::value(sync_http_transport_));
    chunk = knobs.sync_http_chunk_bytes
                ? *knobs.sync_http_chunk_bytes
                : (sync_http_chunk_bytes_ > 0 ? json::value(sync_http_chunk_bytes_) : json::value(nullptr));
    concurrency = knobs.sync_max_concurrency
                      ? *knobs.sync_max_concurrency
                      : (sync_max_concurrency_ > 0 ? json::value(sync_max_concurrency_) : json::value(nullptr));
  }
  // Resolved without the lock: a resolver the host replaced runs host code.
  std::string new_transport = tidewright::sync::sync_http_transport(transport.is_null() ? nullptr : &transport);
  std::int64_t new_chunk = tidewright::sync::sync_http_chunk_bytes(chunk.is_null() ? nullptr : &chunk);
  std::int64_t new_concurrency = tidewright::sync::sync_max_concurrency(concurrency.is_null() ? nullptr : &concurrency);
  std::lock_guard<std::mutex> lock(state_mu_);
  sync_http_transport_ = new_transport;
  sync_http_chunk_bytes_ = new_chunk;
  sync_max_concurrency_ = new_concurrency;
}

std::string SyncManager::sync_http_transport() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return sync_http_transport_;
}

std::int64_t SyncManager::sync_http_chunk_bytes() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return sync_http_chunk_bytes_;
}

std::int64_t SyncManager::sync_max_concurrency() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return sync_max_concurrency_;
}

ManifestPtr SyncManager::get_manifest() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return manifest_;
}

std::optional<std::string> SyncManager::status() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return status_message_;
}

std::int64_t SyncManager::consumer_count() const { return consumer_count_.load(); }

HostRef SyncManager::get_token_fn() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return get_token_;
}

void SyncManager::set_get_token(HostRef fn, std::optional<std::string> token_text) {
  std::lock_guard<std::mutex> lock(state_mu_);
  get_token_ = std::move(fn);
  token_text_ = std::move(token_text);
}

HostRef SyncManager::runtime_freshness_guard() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return runtime_freshness_guard_;
}

void SyncManager::set_runtime_freshness_guard(HostRef guard) {
  std::lock_guard<std::mutex> lock(state_mu_);
  runtime_freshness_guard_ = std::move(guard);
}

std::string SyncManager::fetch_token() const {
  HostRef provider;
  std::optional<std::string> token;
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    if (token_text_) {
      token = token_text_;
    } else {
      provider = get_token_;
    }
  }
  if (!token) return fetch_bearer_token(provider);
  // A token given as text: checked like any answer, without the host.
  check_bearer_token(*token);
  return std::move(*token);
}

TransferEngine::Context SyncManager::transfer_context() {
  TransferEngine::Context context;
  context.server_url = server_url_;
  context.data_dir = data_dir_;
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

HostRef SyncManager::manifest_view(const ManifestPtr& manifest) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return manifest && manifest_view_of_ == manifest ? manifest_view_ : HostRef();
}

void SyncManager::set_manifest_view(ManifestPtr manifest, HostRef view) {
  std::lock_guard<std::mutex> lock(state_mu_);
  std::swap(manifest_view_of_, manifest);
  std::swap(manifest_view_, view);
  // The previous view is released after the lock, with the arguments.
}

bool SyncManager::try_collect_host_refs(std::vector<const void*>& out) const {
  {
    std::unique_lock<std::mutex> lock(state_mu_, std::try_to_lock);
    if (!lock.owns_lock()) return false;
    out.push_back(get_token_.get());
    out.push_back(runtime_freshness_guard_.get());
    out.push_back(manifest_view_.get());
  }
  if (!era_callbacks_.try_collect(out)) return false;
  const void* progress = nullptr;
  if (!progress_.try_callback_object(progress)) return false;
  out.push_back(progress);
  std::erase(out, nullptr);
  return true;
}

void SyncManager::drop_host_refs() {
  std::vector<HostRef> dropped;  // released last, after every lock
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    dropped.push_back(std::exchange(get_token_, nullptr));
    dropped.push_back(std::exchange(runtime_freshness_guard_, nullptr));
    dropped.push_back(std::exchange(manifest_view_, nullptr));
    manifest_view_of_.reset();
  }
  era_callbacks_.drop_into(dropped);
  progress_.set_callback(nullptr);
}

}  // namespace tidewright::sync
