// Consumers: the count of registered consumers of a manager, persisted in
// the data directory's ".consumer_count" file, and whether the consumer
// lifecycle (the threads the first consumer starts) is under way.
//
// Owns the count file's path, the count and the lifecycle flag. mu_
// serialises every change of the count with its write to the file, and the
// manager holds it across starting and stopping its threads for the first
// and the last consumer (acquire() and release()), so that a consumer
// arriving meanwhile waits for the threads to be up or down. The count and
// the flag are atomics: read anywhere without the lock.
//
// Lock order: the class registry lock, then mu_, then the manager's
// lifecycle lock (see sync_manager.hpp).
#pragma once

#include "tidewright/sync/common/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <string>

namespace tidewright::sync {

class Consumers {
 public:
  explicit Consumers(const std::string& data_dir);
  Consumers(const Consumers&) = delete;
  Consumers& operator=(const Consumers&) = delete;

  // Reads the count file (0 when it is missing or unreadable, with a
  // warning), after removing a temporary file a killed writer left.
  void load() EXCLUDES(mu_);

  // The lock a caller holds across a change of the count and what it starts
  // or stops.
  Mutex& mutex() RETURN_CAPABILITY(mu_) { return mu_; }

  // Adds `delta` (+1 or -1) to the count and rewrites the count file;
  // returns the new count.
  std::int64_t change(std::int64_t delta) REQUIRES(mu_);

  std::int64_t count() const { return count_.load(); }
  bool lifecycle_started() const { return lifecycle_started_.load(); }
  void set_lifecycle_started(bool started) { lifecycle_started_.store(started); }
  const std::string& count_path() const { return count_path_; }

 private:
  // Whole or not at all: a reader (or a process killed mid-write) never
  // sees an empty or half-written count. A failure is logged.
  void persist() REQUIRES(mu_);

  const std::string count_path_;
  Mutex mu_;
  std::atomic<std::int64_t> count_{0};  // written under mu_
  std::atomic<bool> lifecycle_started_{false};
};

}  // namespace tidewright::sync
