// EraThread: watches the market's era-current endpoint and asks the sync
// manager for an era transition when a close is scheduled or a new era is
// current.
//
// One poll: fetch era-current (a non-200 answer is skipped silently),
// normalise it, then
//   - "active" with next_closing_at: log the announcement;
//   - closing handled before, "active" again with the same era: the close
//     was cancelled, restart searches;
//   - "closing" not yet handled: request one transition (context "closing");
//   - an era number other than the last known one: request a transition
//     (context "new era"); only its success moves the last known number,
//     so a failed attempt is retried on the next poll.
// No error of a poll or a transition ever leaves the thread; failures are
// logged ("Era poll failed: %s", "Trigger era transition (%s) failed: %s")
// and recorded in transition_failed / last_transition_error.
//
// Thread-safety: all methods may be called from any thread. The state below
// is guarded by mu_; polls are serialised by poll_mu_ (the worker's and a
// caller's direct poll_once() never overlap). The worker holds a strong
// reference to the EraThread while it runs, so an EraThread dropped by its
// owner keeps polling until stop() or stop_all().
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/owned_thread.hpp"
#include "tidewright/sync/host/host.hpp"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

inline constexpr double ERA_POLL_INTERVAL_SECONDS = 600.0;

// A kill or restart function handed through an era transition: a native
// function, or a host callable called through host() (kept as given so that
// the host can see it again).
class SearchesFn {
 public:
  SearchesFn() = default;
  static SearchesFn native(std::function<void()> fn);
  static SearchesFn host_callable(HostRef fn);

  explicit operator bool() const { return static_cast<bool>(native_) || static_cast<bool>(host_); }
  // Calls the function; its exceptions (HostError for a host callable) pass.
  void operator()() const;
  const HostRef& host_ref() const { return host_; }
  const std::function<void()>& native_fn() const { return native_; }

 private:
  std::function<void()> native_;
  HostRef host_;
};

// What an era thread needs of its sync manager (SyncManager implements it).
class EraTransitionTarget {
 public:
  virtual ~EraTransitionTarget() = default;
  // The "era_number" of the manifest the manager holds; empty without one.
  virtual std::optional<json::value> held_manifest_era_number() const = 0;
  // Runs an era transition to `new_era_number`; throws on failure.
  virtual void trigger_era_transition(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                                      const SearchesFn& restart_searches_fn) = 0;
};

struct EraThreadOptions {
  std::string server_url;
  std::function<std::string()> get_token;  // asked anew at every poll
  HostRef get_token_ref;                   // the host's token callable, when it gave one (used instead)
  std::shared_ptr<EraTransitionTarget> sync_manager;
  // The host object behind `sync_manager` when the host gave one of its own
  // rather than a SyncManager; the thread owns it (the target should refer
  // to it weakly, so that dropping it here lets it go).
  HostRef sync_manager_ref;
  double era_poll_interval_s = ERA_POLL_INTERVAL_SECONDS;
  SearchesFn kill_searches_fn;
  SearchesFn restart_searches_fn;
  json::value market_id = std::int64_t{1};
  std::string market_id_repr = "1";  // the host's printed form, for the error message
};

class EraThread : public std::enable_shared_from_this<EraThread> {
 public:
  // Checks the server URL with the host's bearer-transport validator (its
  // error passes through) and keeps the URL it returns, then the market id
  // (ValueError "market_id must be a positive integer, got <repr>").
  explicit EraThread(EraThreadOptions options);
  ~EraThread();
  EraThread(const EraThread&) = delete;
  EraThread& operator=(const EraThread&) = delete;

  // Starts the worker (the object must be owned by a shared_ptr). Throws
  // StateError "EraThread already started" when started and not stopped.
  // Takes the held manifest's era number as the last known one.
  void start();
  // Ends the worker: sets the stop request (which also cancels its HTTP
  // requests and a transition's transfers) and waits up to 10 s for it.
  // A worker that outlives the wait is kept (is_alive() reports it).
  void stop();
  bool is_alive() const;

  // One poll of the endpoint, on the calling thread.
  void poll_once();
  void mark_transition_failed(const std::string& context, const std::string& error);
  void clear_transition_failed();

  // Stops every started EraThread of the process (interpreter exit).
  static void stop_all();

  // --- read access for the host ---
  const std::string& server_url() const { return server_url_; }
  const std::function<std::string()>& get_token() const { return get_token_; }
  HostRef get_token_ref() const;
  std::int64_t market_id() const { return market_id_; }
  double poll_interval() const { return poll_interval_; }
  SearchesFn kill_searches_fn() const;
  SearchesFn restart_searches_fn() const;
  const std::shared_ptr<EraTransitionTarget>& sync_manager() const { return sync_manager_; }
  HostRef sync_manager_ref() const;
  bool stop_requested() const { return stop_requested_.load(); }

  // The host objects the thread holds (token callable, kill and restart
  // functions, the host's own sync manager), for the host's garbage
  // collector; never waits: false when the lock is busy.
  bool try_collect_host_refs(std::vector<const void*>& out) const;
  // Lets go of every one of them (interpreter exit, or the host's collector
  // breaking a cycle through the thread); released after the lock.
  void drop_host_refs();

  struct State {
    bool started = false;
    bool has_thread = false;
    json::value last_known_era_number;  // null: none
    json::value last_known_state;       // null: none (reserved)
    bool in_closing = false;
    bool transition_failed = false;
    std::optional<std::string> last_transition_error;
  };
  State state() const;
  void set_last_known_era_number(json::value value);
  void set_in_closing(bool value);

 private:
  void run();
  void poll_locked() REQUIRES(poll_mu_);

  const std::string server_url_;
  const std::int64_t market_id_;
  const std::function<std::string()> get_token_;
  const std::shared_ptr<EraTransitionTarget> sync_manager_;
  const double poll_interval_;

  mutable Mutex mu_;
  HostRef get_token_ref_ GUARDED_BY(mu_);
  HostRef sync_manager_ref_ GUARDED_BY(mu_);
  SearchesFn kill_searches_fn_ GUARDED_BY(mu_);
  SearchesFn restart_searches_fn_ GUARDED_BY(mu_);
  CondVar cv_;  // signals stop requests
  std::atomic<bool> stop_requested_{false};  // written under mu_, read anywhere
  bool started_ GUARDED_BY(mu_) = false;
  std::shared_ptr<OwnedThread> worker_ GUARDED_BY(mu_);
  std::vector<std::shared_ptr<OwnedThread>> lingering_ GUARDED_BY(mu_);  // outlived a stop()
  json::value last_known_era_number_ GUARDED_BY(mu_);
  json::value last_known_state_ GUARDED_BY(mu_);
  bool in_closing_ GUARDED_BY(mu_) = false;
  bool transition_failed_ GUARDED_BY(mu_) = false;
  std::optional<std::string> last_transition_error_ GUARDED_BY(mu_);

  Mutex poll_mu_;  // serialises polls
};

}  // namespace tidewright::sync
