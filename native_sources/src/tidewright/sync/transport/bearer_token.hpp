// The bearer token of authenticated requests: asked of the host's token
// provider for every request, and checked before it goes into a header.
#pragma once

#include "tidewright/sync/host/host.hpp"

#include <string>
#include <string_view>

namespace tidewright::sync {

// Throws AuthError unless `token` can be sent as "Authorization: Bearer
// <token>": it must be non-empty and hold no control character (C0, DEL,
// C1). A CR or LF would end the header and start one of the token's
// choosing; a NUL would cut the token short on the wire. The message names
// the offending character and its offset, never the token.
void check_bearer_token(std::string_view token);

// Calls the host's token provider (`get_token`) and returns its checked
// token. Anything but a str is refused with AuthError, as is a str that
// fails check_bearer_token, so a request is never made with "Bearer None".
//
// The provider runs on a helper thread (one per calling thread, kept
// between requests) while the calling thread waits and observes its stop
// requests (those of sync_backoff_stop_requested): a provider that blocks
// cannot hold up a stop. The wait then ends with SyncBackoffCancelled; that
// helper ends whenever the provider returns, its answer discarded, and the
// thread's next request starts another. (A caller that holds the host's interpreter lock
// asks on its own thread: the helper could not run before it lets go.) An
// error raised by the provider passes through unchanged.
std::string fetch_bearer_token(const HostRef& provider);

}  // namespace tidewright::sync
