// EraTransition: brings a data directory from the era it holds to the next
// one without leaving it between the two, for its SyncManager.
//
// The new era is assembled completely in ".transition_era<N>.tmp" (files
// that are unchanged are copied, the others downloaded) while the data
// directory still holds the old era; only then are the staged files put in
// place one by one and the new manifest written. A failure before the switch
// therefore leaves the old era's files and manifest untouched. While an
// attempt runs, ".transition_lock" names this process and the directory lock
// is held, so other processes neither sync nor start a transition meanwhile.
//
// Owns: whether a transition runs in this process (active(), the manager's
// "_in_transition"), the thread running it, the exclusion of two attempts in
// one process, and the count of trigger calls under way. mu_ guards them; it
// is a leaf lock, held only for that book-keeping and never while a
// transition step, a host call or a download runs. An attempt waits for the
// one before it to end (which ends promptly on a stop request) and then
// takes the manager's directory lock.
//
// Borrows: the manager, for its HTTP calls, downloads, hash cache, progress
// feed, rotation planning, era callbacks and the held manifest. The manager
// outlives this object (it is one of the manager's members).
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/era/era_thread.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace tidewright::sync {

class SyncManager;

class EraTransition {
 public:
  EraTransition(SyncManager& manager, std::string data_dir);
  EraTransition(const EraTransition&) = delete;
  EraTransition& operator=(const EraTransition&) = delete;

  // The transition: kill searches, check the library version, stage the new
  // era, switch, write the manifest, notify auth / identity / search
  // tracking, restart searches. A higher era appearing meanwhile restarts it
  // for that era. Errors propagate after the clean-up, with the old era's
  // files in place; a stop request ends it with SyncBackoffCancelled naming
  // the era the directory holds.
  void run(std::int64_t new_era_number, const SearchesFn& kill_searches_fn, const SearchesFn& restart_searches_fn)
      EXCLUDES(mu_);

  // A transition runs in this process.
  bool active() const { return active_.load(); }
  // active(), or another live process holds ".transition_lock". A lock file
  // whose writer is gone (killed mid-way) is taken over: removed, with a
  // warning naming it and the dead process id.
  bool in_progress() const;
  // run() calls under way (an attempt, or one waiting for another).
  bool calls_running() const { return calls_.load() > 0; }

  // What a stop finds: whether the calling thread runs the transition (it
  // cannot be waited for), and whether one running elsewhere ended within
  // `timeout`.
  struct EndWait {
    bool on_transition_thread = false;
    bool ended = true;
  };
  EndWait wait_for_end(std::chrono::milliseconds timeout) EXCLUDES(mu_);

  const std::string& lock_path() const { return lock_path_; }
  std::string staging_path(std::int64_t era_number) const;

  // The gates: the era-current answer re-read during a transition.
  // (active era number, era config); EraError when not 200, unparseable, or
  // in a state other than "active" (and "closing" when allowed).
  std::pair<std::int64_t, json::object> fetch_active_era(bool allow_closing = false);
  // The era config; EraError when the active era is not `expected_era_number`.
  json::object confirm_active_era(std::int64_t expected_era_number, bool allow_closing = false);
  // A higher active era, empty when it is the expected one; EraError when lower.
  std::optional<std::int64_t> check_superseded(std::int64_t expected_era_number, bool allow_closing = false);

 private:
  // One attempt and what its steps hand on to each other (era_transition.cpp).
  struct Run;
  // One attempt under the directory lock; the superseding era when a higher
  // one appeared. `searches_killed` is set once the kill function ran.
  std::optional<std::int64_t> attempt(std::int64_t new_era_number, const SearchesFn& kill_searches_fn,
                                      const SearchesFn& restart_searches_fn, bool& searches_killed);
  void prepare(Run& run);
  std::optional<std::int64_t> stage(Run& run);
  // Copies the files the data directory already holds unchanged into
  // staging and queues the others.
  void copy_unchanged(Run& run);
  // Downloads the queued files into staging; the superseding era when a
  // download failed because a higher era appeared.
  std::optional<std::int64_t> download_queued(Run& run);
  // Reports the restart for `higher` and returns it.
  std::optional<std::int64_t> superseded_by(const Run& run, std::int64_t higher);
  void switch_to_new_era(Run& run);
  void complete(Run& run, const SearchesFn& restart_searches_fn);
  void remove_files_only_the_old_era_had(const Run& run);
  std::optional<json::object> rotation_refresh_payload(const Run& run) const;

  // Waits for the attempt of another thread to end and marks one as ours.
  void begin_attempt() EXCLUDES(mu_);
  void set_active(bool value) EXCLUDES(mu_);
  void end_attempt() EXCLUDES(mu_);
  // A stop request for the manager or for the calling thread.
  bool cancelled() const;
  // SyncBackoffCancelled when cancelled().
  void end_if_cancelled() const;
  // The error text of a cancelled transition: the era the directory holds.
  std::string cancelled_message(std::int64_t era, bool searches_killed) const;

  SyncManager& manager_;
  const std::string data_dir_;
  const std::string lock_path_;

  Mutex mu_;
  CondVar changed_;                       // busy_ or active_ changed
  bool busy_ GUARDED_BY(mu_) = false;     // an attempt runs: one at a time
  std::thread::id owner_ GUARDED_BY(mu_);  // the thread of the active transition
  std::atomic<bool> active_{false};       // written under mu_, read anywhere
  std::atomic<int> calls_{0};
};

}  // namespace tidewright::sync
