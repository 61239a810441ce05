#include "tidewright/sync/common/url.hpp"

#include <arpa/inet.h>

#include <cctype>
#include <cstring>

namespace tidewright::sync {

namespace {

bool is_scheme_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

std::string strip_ws(std::string_view text) {
  auto is_ws = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v' || c == '\x1c' || c == '\x1d' || c == '\x1e' || c == '\x1f'; };
  std::size_t b = 0, e = text.size();
  while (b < e && is_ws(text[b])) ++b;
  while (e > b && is_ws(text[e - 1])) --e;
  return std::string(text.substr(b, e - b));
}

std::string rstrip_char(std::string_view text, char c) {
  std::size_t e = text.size();
  while (e > 0 && text[e - 1] == c) --e;
  return std::string(text.substr(0, e));
}

UrlParts split_url(std::string_view url) {
  UrlParts parts;
  std::string_view rest = url;
  std::size_t colon = rest.find(':');
  if (colon != std::string_view::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(rest[0]))) {
    bool ok = true;
    for (std::size_t i = 0; i < colon; ++i) {
      if (!is_scheme_char(rest[i])) {
        ok = false;
        break;
      }
    }
    if (ok) {
      parts.scheme = lower(rest.substr(0, colon));
      rest.remove_prefix(colon + 1);
    }
  }
  if (rest.size() >= 2 && rest[0] == '/' && rest[1] == '/') {
    rest.remove_prefix(2);
    std::size_t end = rest.find_first_of("/?#");
    parts.netloc = std::string(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
  }
  std::size_t hash = rest.find('#');
  if (hash != std::string_view::npos) {
    parts.fragment = std::string(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
  }
  std::size_t q = rest.find('?');
  if (q != std::string_view::npos) {
    parts.query = std::string(rest.substr(q + 1));
    rest = rest.substr(0, q);
  }
  parts.path = std::string(rest);
  return parts;
}

bool is_loopback_host(std::string_view host) {
  std::string name = lower(host);
  if (name.size() >= 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  name = name.substr(0, name.find('%'));
  if (name == "localhost" || name == "localhost.") return true;
  unsigned char address[16];
  if (::inet_pton(AF_INET, name.c_str(), address) == 1) return address[0] == 127;
  if (::inet_pton(AF_INET6, name.c_str(), address) != 1) return false;
  static constexpr unsigned char kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  static constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (std::memcmp(address, kLoopback, sizeof kLoopback) == 0) return true;
  return std::memcmp(address, kMappedPrefix, sizeof kMappedPrefix) == 0 && address[12] == 127;
}

std::string UrlParts::hostname() const {
  std::string_view n = netloc;
  std::size_t at = n.rfind('@');
  if (at != std::string_view::npos) n.remove_prefix(at + 1);
  if (!n.empty() && n[0] == '[') {
    std::size_t close = n.find(']');
    return lower(n.substr(1, close == std::string_view::npos ? n.size() - 1 : close - 1));
  }
  std::size_t c = n.find(':');
  return lower(n.substr(0, c));
}

std::optional<int> UrlParts::port() const {
  std::string_view n = netloc;
  std::size_t at = n.rfind('@');
  if (at != std::string_view::npos) n.remove_prefix(at + 1);
  if (!n.empty() && n[0] == '[') {
    std::size_t close = n.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    n.remove_prefix(close + 1);
  } else {
    std::size_t c = n.find(':');
    if (c == std::string_view::npos) return std::nullopt;
    n.remove_prefix(c);
  }
  if (n.empty() || n[0] != ':' || n.size() == 1) return std::nullopt;
  int port = 0;
  for (char ch : n.substr(1)) {
    if (!std::isdigit(static_cast<unsigned char>(ch))) return std::nullopt;
    port = port * 10 + (ch - '0');
    if (port > 65535) return std::nullopt;
  }
  return port;
}

}  // namespace tidewright::sync
