#include "tidewright/sync/manager/progress.hpp"

namespace tidewright::sync {

namespace {

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

void ProgressFeed::set_callback(HostRef callback) {
  MutexLock lock(mu_);
  std::swap(callback_, callback);
  // The previous callback is released after the lock (in `callback`'s
  // destructor, declared before the guard): that may wait for the host.
}

bool ProgressFeed::try_callback_object(const void*& out) const {
  if (!mu_.try_lock()) return false;
  out = callback_.get();
  mu_.unlock();
  return true;
}

HostRef ProgressFeed::callback() const {
  MutexLock lock(mu_);
  return callback_;
}

void ProgressFeed::start(const std::string& phase, std::int64_t files, std::int64_t bytes) {
  {
    MutexLock lock(mu_);
    phase_ = phase;
    started_at_ = std::chrono::steady_clock::now();
  }
  files_total_.store(files);
  bytes_total_.store(bytes);
  files_done_.store(0);
  bytes_done_.store(0);
  report(true);
}

void ProgressFeed::add_bytes(std::int64_t bytes) {
  bytes_done_.fetch_add(bytes);
  report(false);
}

void ProgressFeed::file_done() {
  files_done_.fetch_add(1);
  report(false);
}

void ProgressFeed::finish() {
  {
    MutexLock lock(mu_);
    phase_ += ":done";
  }
  report(true);
}

void ProgressFeed::report(bool force) {
  std::int64_t now = now_ns();
  std::int64_t last = last_report_ns_.load();
  if (!force) {
    if (now - last < static_cast<std::int64_t>(kIntervalSeconds * 1e9)) return;
    if (!last_report_ns_.compare_exchange_strong(last, now)) return;  // another thread reports
  } else {
    last_report_ns_.store(now);
  }
  HostRef cb;
  json::object event;
  {
    MutexLock lock(mu_);
    cb = callback_;
    if (!cb) return;
    std::string phase = phase_;
    bool done = phase.size() > 5 && phase.compare(phase.size() - 5, 5, ":done") == 0;
    if (done) phase.resize(phase.size() - 5);
    event["phase"] = phase;
    event["done"] = done;
    event["elapsed_seconds"] = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_at_).count();
  }
  event["files_total"] = files_total_.load();
  event["files_done"] = files_done_.load();
  event["bytes_total"] = bytes_total_.load();
  event["bytes_done"] = bytes_done_.load();
  try {
    host().call(cb, json::array{json::value(std::move(event))});
  } catch (const std::exception& e) {
    log_debug("Progress callback failed: %s", {json::value(e.what())});
  }
}

}  // namespace tidewright::sync
