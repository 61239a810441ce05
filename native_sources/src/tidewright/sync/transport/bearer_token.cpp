#include "tidewright/sync/transport/bearer_token.hpp"

#include "tidewright/sync/common/mutex.hpp"
#include "tidewright/sync/common/owned_thread.hpp"
#include "tidewright/sync/reporting/errors.hpp"
#include "tidewright/sync/transport/http_request.hpp"

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

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

// The token provider's helper for one engine thread, kept between requests
// (a thread started per request cost more than asking the provider). The
// helper holds a reference to this state while it runs, so a caller that
// gives up on a provider that does not return can let go of it: the helper
// ends when the provider returns, and the caller's next request starts a new
// one. (OwnedThread detaches itself when released on its own thread.)
struct TokenHelper {
  Mutex mu;
  CondVar cv;
  HostRef provider GUARDED_BY(mu);  // the request posted, until the helper takes it
  HostRef context GUARDED_BY(mu);
  bool posted GUARDED_BY(mu) = false;
  bool busy GUARDED_BY(mu) = false;  // posted and not answered yet
  bool quit GUARDED_BY(mu) = false;  // the owner let go: end when idle
  Host::TokenAnswer answer GUARDED_BY(mu);
  std::exception_ptr error GUARDED_BY(mu);
  OwnedThread thread;  // assigned once, by the owner, right after creation
};

void serve_token_requests(const std::shared_ptr<TokenHelper>& helper) {
  while (true) {
    HostRef provider, context;
    {
      MutexLock lock(helper->mu);
      while (!helper->posted && !helper->quit) helper->cv.wait(helper->mu);
      if (!helper->posted) return;
      provider = std::move(helper->provider);
      context = std::move(helper->context);
      helper->posted = false;
    }
    Host::TokenAnswer answer;
    std::exception_ptr error;
    try {
      // The provider sees the asking thread's backoff context (its surface,
      // its stop test), as it would if it were called there.
      answer = host().call_for_token(provider, context);
    } catch (abi::__forced_unwind&) {
      throw;  // the thread is being ended (the interpreter is finalising)
    } catch (...) {
      error = std::current_exception();
    }
    provider = nullptr;  // the host's objects are let go here, not by the caller
    context = nullptr;
    {
      MutexLock lock(helper->mu);
      helper->answer = std::move(answer);
      helper->error = std::move(error);
      helper->busy = false;
      if (helper->quit) return;
    }
    helper->cv.notify_all();
  }
}

// The calling thread's helper, started on its first request.
class TokenHelperSlot {
 public:
  TokenHelperSlot() = default;
  TokenHelperSlot(const TokenHelperSlot&) = delete;
  TokenHelperSlot& operator=(const TokenHelperSlot&) = delete;
  ~TokenHelperSlot() { let_go(); }

  // An idle helper: the one kept, or a new one when the kept one still runs
  // a request its caller gave up on.
  TokenHelper& idle_helper() {
    if (helper_ && owner_pid_ != ::getpid()) {
      // A forked child has no helper thread behind the kept state, and
      // cannot join or release it: it is forgotten on purpose.
      (void)std::make_unique<std::shared_ptr<TokenHelper>>(std::move(helper_)).release();
    }
    if (helper_) {
      MutexLock lock(helper_->mu);
      if (!helper_->busy) return *helper_;
    }
    let_go();
    helper_ = std::make_shared<TokenHelper>();
    owner_pid_ = ::getpid();
    helper_->thread = OwnedThread(name_for_helper(), [helper = helper_] { serve_token_requests(helper); });
    return *helper_;
  }

 private:
  // Named after the asking thread, so that the provider sees the name of the
  // engine thread it was asked from (debuggers, logs, py-spy).
  static ThreadName name_for_helper() {
    if (current_thread_name().empty()) return {};
    char kernel_name[32] = {0};
    pthread_getname_np(pthread_self(), kernel_name, sizeof kernel_name);
    return ThreadName{current_thread_name(), kernel_name};
  }

  void let_go() {
    if (!helper_ || owner_pid_ != ::getpid()) return;
    {
      MutexLock lock(helper_->mu);
      helper_->quit = true;
    }
    helper_->cv.notify_all();
    helper_.reset();
  }

  std::shared_ptr<TokenHelper> helper_;
  pid_t owner_pid_ = 0;
};

thread_local TokenHelperSlot t_token_helper;

Host::TokenAnswer ask_on_helper_thread(const HostRef& provider) {
  HostRef context = host().current_backoff_context();
  TokenHelper& helper = t_token_helper.idle_helper();
  MutexLock lock(helper.mu);
  helper.provider = provider;
  helper.context = std::move(context);
  helper.posted = true;
  helper.busy = true;
  helper.cv.notify_all();
  while (helper.busy) {
    if (helper.cv.wait_for(helper.mu, STOP_CHECK_INTERVAL)) continue;
    lock.unlock();
    const bool stop = sync_backoff_stop_requested();
    lock.lock();
    // The helper is left to finish; the next request starts another.
    if (stop && helper.busy) throw SyncBackoffCancelled("bearer token request cancelled: stop requested");
  }
  if (helper.error) std::rethrow_exception(std::exchange(helper.error, nullptr));
  return std::move(helper.answer);
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
