// HostHooks: what the host gives a manager to call and to tune its
// transfers with: the bearer-token provider (with the token itself when the
// host gave text instead of a callable), the runtime freshness guard, and
// the three runtime knobs (HTTP transport, chunk bytes, concurrency) as
// resolved.
//
// Owns all of them. mu_ guards every one and is a leaf lock: it is never
// held while host code runs (the knobs are resolved and the token provider
// called outside it), and a host reference replaced or dropped is released
// after it (releasing one may wait for the host).
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/host/host.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tidewright::sync {

// The three runtime knobs as given by the caller: empty means "not given"
// (keep what the instance holds, else the module default).
struct SyncKnobs {
  std::optional<json::value> sync_http_transport;
  std::optional<json::value> sync_http_chunk_bytes;
  std::optional<json::value> sync_max_concurrency;
};

class HostHooks {
 public:
  HostHooks(HostRef get_token, std::optional<std::string> token_text, HostRef freshness_guard);
  HostHooks(const HostHooks&) = delete;
  HostHooks& operator=(const HostHooks&) = delete;

  HostRef get_token() const EXCLUDES(mu_);
  void set_get_token(HostRef fn, std::optional<std::string> token_text) EXCLUDES(mu_);
  // A fresh, checked bearer token: the text given, or the provider's answer
  // (see fetch_bearer_token).
  std::string fetch_token() const EXCLUDES(mu_);

  HostRef freshness_guard() const EXCLUDES(mu_);
  void set_freshness_guard(HostRef guard) EXCLUDES(mu_);

  // A knob left out keeps what is held, else the module default.
  void set_knobs(const SyncKnobs& knobs) EXCLUDES(mu_);
  std::string transport() const EXCLUDES(mu_);
  std::int64_t chunk_bytes() const EXCLUDES(mu_);
  std::int64_t max_concurrency() const EXCLUDES(mu_);

  // The host objects held, for the host's garbage collector; false when the
  // lock is busy (never waits).
  bool try_collect(std::vector<const void*>& out) const EXCLUDES(mu_);
  // Moves every host object held into `dropped` (the caller releases them).
  void drop_into(std::vector<HostRef>& dropped) EXCLUDES(mu_);

 private:
  mutable Mutex mu_;
  HostRef get_token_ GUARDED_BY(mu_);
  std::optional<std::string> token_text_ GUARDED_BY(mu_);  // what get_token_ answers, when known
  HostRef freshness_guard_ GUARDED_BY(mu_);
  std::string transport_ GUARDED_BY(mu_);
  std::int64_t chunk_bytes_ GUARDED_BY(mu_) = 0;
  std::int64_t max_concurrency_ GUARDED_BY(mu_) = 0;
};

}  // namespace tidewright::sync
