#include "tidewright/sync/manager/host_hooks.hpp"

#include "tidewright/sync/transport/bearer_token.hpp"
#include "tidewright/sync/transport/settings.hpp"

#include <utility>

namespace tidewright::sync {

HostHooks::HostHooks(HostRef get_token, std::optional<std::string> token_text, HostRef freshness_guard)
    : get_token_(std::move(get_token)),
      token_text_(std::move(token_text)),
      freshness_guard_(std::move(freshness_guard)) {}

HostRef HostHooks::get_token() const {
  MutexLock lock(mu_);
  return get_token_;
}

void HostHooks::set_get_token(HostRef fn, std::optional<std::string> token_text) {
  MutexLock lock(mu_);
  std::swap(get_token_, fn);
  token_text_ = std::move(token_text);
  // The previous provider is released after the lock, with the argument.
}

std::string HostHooks::fetch_token() const {
  HostRef provider;
  std::optional<std::string> token;
  {
    MutexLock lock(mu_);
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

HostRef HostHooks::freshness_guard() const {
  MutexLock lock(mu_);
  return freshness_guard_;
}

void HostHooks::set_freshness_guard(HostRef guard) {
  MutexLock lock(mu_);
  std::swap(freshness_guard_, guard);
}

void HostHooks::set_knobs(const SyncKnobs& knobs) {
  // An argument left out keeps what the instance already holds.
  json::value transport, chunk, concurrency;
  {
    MutexLock lock(mu_);
    transport = knobs.sync_http_transport
                    ? *knobs.sync_http_transport
                    : (transport_.empty() ? json::value(nullptr) : json::value(transport_));
    chunk = knobs.sync_http_chunk_bytes ? *knobs.sync_http_chunk_bytes
                                        : (chunk_bytes_ > 0 ? json::value(chunk_bytes_) : json::value(nullptr));
    concurrency = knobs.sync_max_concurrency
                      ? *knobs.sync_max_concurrency
                      : (max_concurrency_ > 0 ? json::value(max_concurrency_) : json::value(nullptr));
  }
  // Resolved without the lock: a resolver the host replaced runs host code.
  std::string new_transport = sync_http_transport(transport.is_null() ? nullptr : &transport);
  std::int64_t new_chunk = sync_http_chunk_bytes(chunk.is_null() ? nullptr : &chunk);
  std::int64_t new_concurrency = sync_max_concurrency(concurrency.is_null() ? nullptr : &concurrency);
  MutexLock lock(mu_);
  transport_ = std::move(new_transport);
  chunk_bytes_ = new_chunk;
  max_concurrency_ = new_concurrency;
}

std::string HostHooks::transport() const {
  MutexLock lock(mu_);
  return transport_;
}

std::int64_t HostHooks::chunk_bytes() const {
  MutexLock lock(mu_);
  return chunk_bytes_;
}

std::int64_t HostHooks::max_concurrency() const {
  MutexLock lock(mu_);
  return max_concurrency_;
}

bool HostHooks::try_collect(std::vector<const void*>& out) const {
  if (!mu_.try_lock()) return false;
  MutexLock lock(mu_, MutexLock::adopt);
  out.push_back(get_token_.get());
  out.push_back(freshness_guard_.get());
  return true;
}

void HostHooks::drop_into(std::vector<HostRef>& dropped) {
  MutexLock lock(mu_);
  dropped.push_back(std::exchange(get_token_, nullptr));
  dropped.push_back(std::exchange(freshness_guard_, nullptr));
}

}  // namespace tidewright::sync
