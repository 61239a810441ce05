// Sync events: one structured log record per noteworthy moment of a sync
// (retries, resumes, resets, outages, recoveries, supersedes, repairs).
//
// An event is a flat JSON object with at least "event_type", "file", "count"
// and "reason", plus whatever fields the caller adds. It is logged on the
// module's logger ("tidewright.sync") with the message
// "tidewright_sync_event %s" and the event as sorted JSON, and the event
// itself is attached to the record as its "tidewright_sync_event" attribute.
// The level follows from the event's content (sync_event_level_name).
//
// Repetitive info-level events are coalesced: the first
// SYNC_EVENT_COALESCE_LIMIT events with the same non-volatile content are
// logged, later ones are dropped for the rest of the process's life, so an
// outage that lasts hours does not flood the log. Warnings and errors are
// never dropped.
//
// Every function here may be called from any thread; the coalescing counts
// are the only shared state and sit behind one process-wide mutex.
#pragma once

#include "tidewright/sync/common/json.hpp"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tidewright::sync {

inline constexpr std::int64_t SYNC_EVENT_COALESCE_LIMIT = 10;

// Builds {"event_type", "file", "count", "reason", **fields} and emits it.
// Extra fields are copied in after the four fixed ones (a field of the same
// name replaces the fixed one).
void log_sync_event(std::string_view event_type, std::string_view file_path, std::int64_t count,
                    std::string_view reason, const json::object& fields = {});

// Emits a ready-made event (subject to coalescing).
void emit_tidewright_sync_event(const json::object& event);

// "info", "warning" or "error"; first match wins:
//   sync_recovered_status -> info; checksum_repair_exhausted -> warning;
//   sync_unavailable_status mentioning a timeout -> error;
//   next_action contact_tidewright / "contact tidewright" / reauthenticate, or
//   recovery operator_fix_required / reauthenticate (any case) -> warning;
//   sync_unavailable_status with "retryable" exactly false -> warning;
//   everything else -> info.
std::string sync_event_level_name(const json::object& event);

// True when "last_server_error_code" or "error_code" mentions a timeout, or
// "exception_sequence" is an array with an item that does.
bool sync_event_mentions_timeout(const json::object& event);
// The value's text form, lower-cased, contains "timeout".
bool sync_event_value_mentions_timeout(const json::value& value);

// Info-level events of the repetitive types.
bool sync_event_is_coalescible(const json::object& event);

// The event's non-volatile fields ("attempt", "count", "elapsed_seconds",
// "wait_seconds", "bytes_existing", "actual_size", "range_start" and
// "range_end" left out) as (name, stable value) pairs in name order. Events
// with equal non-volatile content have equal keys.
using SyncEventCoalesceKey = std::vector<std::pair<std::string, std::string>>;
SyncEventCoalesceKey sync_event_coalesce_key(const json::object& event);

// Canonical text of a field value: "null" for absent or null, "true"/"false"
// for booleans, JSON with sorted keys for arrays and objects, the host's
// text form for everything else.
std::string sync_event_stable_coalesce_value(const json::value* value);

// Counts the event against its key and says whether it is to be logged:
// always for events that are not coalescible, else only for the first
// SYNC_EVENT_COALESCE_LIMIT of its key.
bool should_emit_sync_event(const json::object& event);

// Forgets every coalescing count, so each key may be logged
// SYNC_EVENT_COALESCE_LIMIT times again. For tests, which share one process.
void reset_sync_event_coalescing();

// A short label of the file a URL refers to, for events: the manifest path
// after ".../data/files/" (percent-decoded) for file downloads, else the
// URL's path, else "".
std::string sync_event_file_from_url(std::string_view url);

// The service a URL addresses, as event fields: "host" (lower-cased, "" when
// none) and "port" (the scheme's default when none is written; null when
// unknown). Outage events carry them so that the outages of two services
// are coalesced apart, however alike their paths and statuses.
json::object sync_event_service_fields(std::string_view url);

// Reports that an endpoint became unavailable ("sync_unavailable_status")
// or came back ("sync_recovered_status") during one request: the endpoint,
// the statuses and failures seen so far, what the server said about the
// outage, the service (sync_event_service_fields), and how long it has
// lasted since `started_at`.
void emit_sync_unavailable_status(std::string_view event_type, const std::string& url,
                                  const std::vector<std::int64_t>& statuses,
                                  const std::vector<std::string>& failures, const json::object& details,
                                  std::chrono::steady_clock::time_point started_at);

// Reports a backoff wait before retry `attempt_index` (0 for the first). The
// surface is the calling thread's backoff context's "surface" when it has
// one, else `default_surface`.
void emit_sync_backoff_wait(std::string_view default_surface, std::int64_t attempt_index, std::string_view reason,
                            std::string_view file_path, double wait_seconds);

}  // namespace tidewright::sync
