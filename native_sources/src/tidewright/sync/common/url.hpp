// URL splitting with the host's standard semantics (scheme, network
// location, path, query, fragment), for building and checking service URLs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tidewright::sync {

struct UrlParts {
  std::string scheme;    // lower-cased; empty when the URL has none
  std::string netloc;    // "user@host:port" as written; empty when none
  std::string path;
  std::string query;
  std::string fragment;
  // Lower-cased host name without user info, port or IPv6 brackets.
  std::string hostname() const;
  // The port number, when one is written and valid.
  std::optional<int> port() const;
};

UrlParts split_url(std::string_view url);

// The host names this machine itself: "localhost" (also with a trailing
// dot), 127.0.0.0/8, ::1 and IPv4-mapped loopback addresses; compared
// without case, IPv6 brackets and zone. Plain http is allowed only there.
bool is_loopback_host(std::string_view host);

// Surrounding white space removed, as the host's str.strip() does for ASCII.
std::string strip_ws(std::string_view text);
// Trailing characters `c` removed.
std::string rstrip_char(std::string_view text, char c);

}  // namespace tidewright::sync
