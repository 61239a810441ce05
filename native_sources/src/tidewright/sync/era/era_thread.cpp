#include "tidewright/sync/era/era_thread.hpp"

#include "tidewright/sync/era/era_current.hpp"
#include "tidewright/sync/era/market.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/bearer_token.hpp"
#include "tidewright/sync/transport/http_request.hpp"

#include <algorithm>
#include <chrono>

namespace tidewright::sync {

namespace {

constexpr auto STOP_JOIN_TIMEOUT = std::chrono::seconds(10);

Mutex g_started_mu;
std::vector<std::weak_ptr<EraThread>> g_started GUARDED_BY(g_started_mu);

void remember_started(const std::shared_ptr<EraThread>& thread) {
  MutexLock lock(g_started_mu);
  std::erase_if(g_started, [&](const std::weak_ptr<EraThread>& w) {
    auto p = w.lock();
    return !p || p == thread;
  });
  g_started.push_back(thread);
}

// Equality of era numbers as the host compares them (7 == 7.0).
bool same_era_number(const json::value& a, const json::value& b) {
  if (a.is_number() && b.is_number() && !a.is_bool() && !b.is_bool()) {
    if (a.is_double() || b.is_double()) return a.to_number<double>() == b.to_number<double>();
    return to_int(a) == to_int(b);
  }
  return a == b;
}

std::int64_t era_number_for_transition(const json::value& era_number) {
  std::optional<std::int64_t> n = strict_era_number(era_number);
  if (!n) throw TypeError("era_number must be an integer, got " + python_repr(era_number));
  return *n;
}

std::chrono::steady_clock::duration interval_of(double seconds) {
  // A bound far beyond any sensible interval keeps the conversion finite.
  double bounded = std::clamp(seconds, 0.0, 1e8);
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(bounded));
}

}  // namespace

SearchesFn SearchesFn::native(std::function<void()> fn) {
  SearchesFn out;
  out.native_ = std::move(fn);
  return out;
}

SearchesFn SearchesFn::host_callable(HostRef fn) {
  SearchesFn out;
  out.host_ = std::move(fn);
  return out;
}

void SearchesFn::operator()() const {
  if (native_) {
    native_();
  } else if (host_) {
    host().call(host_, json::array{});
  }
}

EraThread::EraThread(EraThreadOptions options)
    : server_url_(host().validate_bearer_transport_url(options.server_url)),
      market_id_(coerce_agent_market_id(options.market_id, options.market_id_repr)),
      get_token_(std::move(options.get_token)),
      sync_manager_(std::move(options.sync_manager)),
      poll_interval_(options.era_poll_interval_s),
      get_token_ref_(std::move(options.get_token_ref)),
      sync_manager_ref_(std::move(options.sync_manager_ref)),
      kill_searches_fn_(std::move(options.kill_searches_fn)),
      restart_searches_fn_(std::move(options.restart_searches_fn)) {}

// Workers hold a reference to the EraThread while they run, so the
// OwnedThreads released here have finished (or are the calling thread).
EraThread::~EraThread() = default;

void EraThread::start() {
  // Asked before the lock: a host's own manager answers with host code.
  std::optional<json::value> held_era;
  {
    MutexLock lock(mu_);
    if (started_) throw StateError("EraThread already started");
  }
  held_era = sync_manager_->held_manifest_era_number();
  MutexLock lock(mu_);
  if (started_) throw StateError("EraThread already started");
  if (held_era) last_known_era_number_ = *held_era;
  std::shared_ptr<EraThread> self = shared_from_this();
  if (worker_ && worker_->running()) lingering_.push_back(std::move(worker_));
  std::erase_if(lingering_, [](const std::shared_ptr<OwnedThread>& t) { return !t->running(); });
  stop_requested_.store(false);
  started_ = true;
  worker_ = std::make_shared<OwnedThread>(ThreadName{"tw-sync-era", ""}, [self] { self->run(); });
  remember_started(self);
}

void EraThread::stop() {
  std::shared_ptr<OwnedThread> worker;
  {
    MutexLock lock(mu_);
    if (!started_) return;
    stop_requested_.store(true);
    cv_.notify_all();
    worker = worker_;
  }
  // From the worker itself (a callback stopping its own thread) there is
  // nothing to wait for: the loop ends after this poll.
  if (worker) worker->join_for(STOP_JOIN_TIMEOUT);
  MutexLock lock(mu_);
  started_ = false;
}

bool EraThread::is_alive() const {
  std::shared_ptr<OwnedThread> worker;
  {
    MutexLock lock(mu_);
    worker = worker_;
  }
  return worker && worker->running();
}

void EraThread::stop_all() {
  std::vector<std::shared_ptr<EraThread>> threads;
  {
    MutexLock lock(g_started_mu);
    for (auto& w : g_started) {
      if (auto p = w.lock()) threads.push_back(std::move(p));
    }
    g_started.clear();
  }
  for (auto& t : threads) t->stop();
}

void EraThread::run() {
  try {
    // The stop request also ends the worker's requests, backoff waits and
    // the transfers of a transition running on it.
    ScopedSyncStopPredicate stop_guard([this] { return stop_requested_.load(); });
    poll_once();
    while (true) {
      {
        const auto deadline = std::chrono::steady_clock::now() + interval_of(poll_interval_);
        MutexLock lock(mu_);
        while (!stop_requested_.load() && cv_.wait_until(mu_, deadline)) {
        }
        if (stop_requested_.load()) break;
      }
      poll_once();
    }
  } catch (const std::exception& e) {
    log_warning("Era thread stopped by an unexpected error: %s", {json::value(e.what())});
  } catch (...) {
    log_warning("Era thread stopped by an unexpected error: %s", {json::value("unknown error")});
  }
}

void EraThread::poll_once() {
  MutexLock lock(poll_mu_);
  try {
    poll_locked();
  } catch (const std::exception& e) {
    // A poll cut short by stop() is not a failure worth a warning.
    if (stop_requested_.load()) {
      log_debug("Era poll failed: %s", {json::value(e.what())});
    } else {
      log_warning("Era poll failed: %s", {json::value(e.what())});
    }
  }
}

void EraThread::poll_locked() {
  HostRef token_ref;
  SearchesFn kill_searches_fn, restart_searches_fn;
  {
    MutexLock lock(mu_);
    token_ref = get_token_ref_;
    kill_searches_fn = kill_searches_fn_;
    restart_searches_fn = restart_searches_fn_;
  }
  // The token is checked like every other bearer token before it is sent.
  const std::string token = token_ref ? fetch_bearer_token(token_ref) : get_token_ ? get_token_() : std::string();
  HttpResponse response = http_get(market_era_current_url(server_url_, market_id_), token);
  if (response.status != 200) return;
  json::value config = normalize_era_current_response(parse_json(response.body));
  const json::object& fields = config.get_object();

  const json::value* era_value = fields.if_contains("era_number");
  const json::value era_number = era_value ? *era_value : json::value(nullptr);
  const json::value* state_value = fields.if_contains("state");
  const json::value state = state_value ? *state_value : json::value("active");
  const json::value* closing_at = fields.if_contains("next_closing_at");
  const bool close_scheduled = closing_at && !closing_at->is_null();
  const bool active = state.is_string() && state.get_string() == "active";
  const bool closing = state.is_string() && state.get_string() == "closing";
  const std::string announcement = "Scheduled close announced at " +
                                   (closing_at ? python_str(*closing_at) : std::string("None")) +
                                   ". Continue normal operation.";

  if (active && close_scheduled) log_info(announcement);

  bool cancelled = false;
  {
    MutexLock state_lock(mu_);
    if (in_closing_ && active && same_era_number(era_number, last_known_era_number_)) {
      in_closing_ = false;
      cancelled = true;
    }
  }
  if (cancelled) {
    log_info("Era transition cancelled \u2014 resuming normal operation.");
    if (restart_searches_fn) {
      try {
        restart_searches_fn();
      } catch (const std::exception& e) {
        log_warning("Restart searches callback failed: %s", {json::value(e.what())});
      }
    }
  }

  bool handle_close = false;
  {
    MutexLock state_lock(mu_);
    if (closing && !in_closing_) {
      in_closing_ = true;
      handle_close = true;
    }
  }
  if (handle_close) {
    log_info(announcement);
    try {
      sync_manager_->trigger_era_transition(era_number_for_transition(era_number), kill_searches_fn,
                                            restart_searches_fn);
      clear_transition_failed();
    } catch (const std::exception& e) {
      mark_transition_failed("closing", e.what());
    }
  }

  json::value previous;
  {
    MutexLock state_lock(mu_);
    if (last_known_era_number_.is_null() || same_era_number(era_number, last_known_era_number_)) return;
    previous = last_known_era_number_;
    in_closing_ = false;
  }
  try {
    sync_manager_->trigger_era_transition(era_number_for_transition(era_number), kill_searches_fn,
                                          restart_searches_fn);
  } catch (const std::exception& e) {
    mark_transition_failed("new era", e.what());
    return;
  }
  {
    MutexLock state_lock(mu_);
    last_known_era_number_ = era_number;
  }
  clear_transition_failed();
  try {
    json::object nudge;
    nudge["new_era_number"] = era_number;
    nudge["previous_era_number"] = previous;
    host().update_nudge("era_change", nudge);
  } catch (const std::exception& e) {
    log_warning("update_nudge call failed: %s", {json::value(e.what())});
  }
}

void EraThread::mark_transition_failed(const std::string& context, const std::string& error) {
  {
    MutexLock lock(mu_);
    transition_failed_ = true;
    last_transition_error_ = context + ": " + error;
  }
  log_warning("Trigger era transition (%s) failed: %s", {json::value(context), json::value(error)});
}

void EraThread::clear_transition_failed() {
  MutexLock lock(mu_);
  transition_failed_ = false;
  last_transition_error_.reset();
}

EraThread::State EraThread::state() const {
  MutexLock lock(mu_);
  State s;
  s.started = started_;
  s.has_thread = static_cast<bool>(worker_);
  s.last_known_era_number = last_known_era_number_;
  s.last_known_state = last_known_state_;
  s.in_closing = in_closing_;
  s.transition_failed = transition_failed_;
  s.last_transition_error = last_transition_error_;
  return s;
}

void EraThread::set_last_known_era_number(json::value value) {
  MutexLock lock(mu_);
  last_known_era_number_ = std::move(value);
}

HostRef EraThread::get_token_ref() const {
  MutexLock lock(mu_);
  return get_token_ref_;
}

SearchesFn EraThread::kill_searches_fn() const {
  MutexLock lock(mu_);
  return kill_searches_fn_;
}

SearchesFn EraThread::restart_searches_fn() const {
  MutexLock lock(mu_);
  return restart_searches_fn_;
}

HostRef EraThread::sync_manager_ref() const {
  MutexLock lock(mu_);
  return sync_manager_ref_;
}

bool EraThread::try_collect_host_refs(std::vector<const void*>& out) const {
  if (!mu_.try_lock()) return false;
  MutexLock lock(mu_, MutexLock::adopt);
  for (const HostRef* ref : {&get_token_ref_, &sync_manager_ref_, &kill_searches_fn_.host_ref(),
                             &restart_searches_fn_.host_ref()}) {
    if (*ref) out.push_back(ref->get());
  }
  return true;
}

void EraThread::drop_host_refs() {
  HostRef token, manager;
  SearchesFn kill, restart;  // released after the lock
  MutexLock lock(mu_);
  token = std::exchange(get_token_ref_, nullptr);
  manager = std::exchange(sync_manager_ref_, nullptr);
  kill = std::exchange(kill_searches_fn_, SearchesFn());
  restart = std::exchange(restart_searches_fn_, SearchesFn());
}

void EraThread::set_in_closing(bool value) {
  MutexLock lock(mu_);
  in_closing_ = value;
}

}  // namespace tidewright::sync
