#include "tidewright/sync/transport/bearer_token.hpp"

#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/owned_thread.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/http_request.hpp"

#include <cxxabi.h>
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>

namespace tidewright::sync {

namespace {

constexpr std::string_view kTokenRule = "a token must be a non-empty str without control characters";

// How often a waiting caller looks at its stop requests.
constexpr auto STOP_CHECK_INTERVAL = std::chrono::milliseconds(50);

[[noreturn]] void refuse(const std::string& what) {
  throw AuthError("Bearer token refused, nothing was sent: " + what + "; " + std::string(kTokenRule));
}

std::string code_point_text(unsigned code_point) {
  char text[16];
  std::snprintf(text, sizeof text, "U+%04X", code_point);
  return text;
}

// One call of the token provider on its own thread. The helper holds a
// reference to the call until the provider returns, so a caller that stops
// waiting can drop its own: the last reference, on whichever thread, ends
// the call and its thread (OwnedThread detaches itself when released on its
// own thread).
struct TokenCall {
  Mutex mu;
  CondVar cv;
  bool done GUARDED_BY(mu) = false;
  Host::TokenAnswer answer GUARDED_BY(mu);
  std::exception_ptr error GUARDED_BY(mu);
  OwnedThread thread;           // assigned once, by the caller, before it waits
};

void run_token_call(const std::shared_ptr<TokenCall>& call, const HostRef& provider, const HostRef& context) {
  Host::TokenAnswer answer;
  std::exception_ptr error;
  try {
    // The provider sees the asking thread's backoff context (its surface,
    // its stop test), as it would if it were called there.
    std::optional<ScopedBackoffContext> scope;
    if (context) scope.emplace(context, json::object{});
    answer = host().call_for_token(provider);
  } catch (abi::__forced_unwind&) {
    throw;  // the thread is being ended (the interpreter is finalising)
  } catch (...) {
    error = std::current_exception();
  }
  {
    MutexLock lock(call->mu);
    call->answer = std::move(answer);
    call->error = std::move(error);
    call->done = true;
  }
  call->cv.notify_all();
}

Host::TokenAnswer ask_on_helper_thread(const HostRef& provider) {
  auto call = std::make_shared<TokenCall>();
  HostRef context = host().current_backoff_context();
  // Named after the asking thread, so that the provider sees the name of the
  // engine thread it was asked from (debuggers, logs, py-spy).
  ThreadName name;
  if (!current_thread_name().empty()) {
    char kernel_name[32] = {0};
    pthread_getname_np(pthread_self(), kernel_name, sizeof kernel_name);
    name = ThreadName{current_thread_name(), kernel_name};
  }
  call->thread = OwnedThread(std::move(name), [call, provider, context] { run_token_call(call, provider, context); });

  MutexLock lock(call->mu);
  while (!call->done) {
    if (call->cv.wait_for(call->mu, STOP_CHECK_INTERVAL)) continue;
    lock.unlock();
    const bool stop = sync_backoff_stop_requested();
    lock.lock();
    if (stop && !call->done) throw SyncBackoffCancelled("bearer token request cancelled: stop requested");
  }
  if (call->error) std::rethrow_exception(call->error);
  return std::move(call->answer);
}

}  // namespace

void check_bearer_token(std::string_view token) {
  if (token.empty()) refuse("it is empty");
  for (std::size_t i = 0; i < token.size(); ++i) {
    const auto byte = static_cast<unsigned char>(token[i]);
    if (byte < 0x20 || byte == 0x7F) {
      refuse("it contains the control character " + code_point_text(byte) + " at byte offset " + std::to_string(i));
    }
    // C1 controls U+0080..U+009F are encoded as C2 80..C2 9F in UTF-8.
    if (byte == 0xC2 && i + 1 < token.size()) {
      const auto next = static_cast<unsigned char>(token[i + 1]);
      if (next >= 0x80 && next <= 0x9F) {
        refuse("it contains the control character " + code_point_text(next) + " at byte offset " + std::to_string(i));
      }
    }
  }
}

std::string fetch_bearer_token(const HostRef& provider) {
  if (sync_backoff_stop_requested()) throw SyncBackoffCancelled("bearer token request cancelled: stop requested");
  // A caller holding the interpreter lock would keep the helper from ever
  // running: it asks on its own thread (it could not be stopped anyway).
  Host::TokenAnswer answer =
      host().holds_host_lock() ? host().call_for_token(provider) : ask_on_helper_thread(provider);
  if (!answer.text) refuse("get_token " + answer.problem);
  check_bearer_token(*answer.text);
  return std::move(*answer.text);
}

}  // namespace tidewright::sync
