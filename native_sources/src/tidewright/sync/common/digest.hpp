// A SHA-256 digest kept as its 32 bytes, and its lower-case hex text: the
// form a large table of digests (the hash cache, the manifest's files) keeps
// instead of 64 characters of text each.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tidewright::sync {

using Sha256Digest = std::array<unsigned char, 32>;

namespace digest_detail {
inline constexpr char kHexDigits[] = "0123456789abcdef";
inline int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;  // upper case too: such a digest is kept as written
}
}  // namespace digest_detail

// The bytes of a digest written as 64 lower-case hex digits; nullopt for any
// other text.
inline std::optional<Sha256Digest> sha256_digest_bytes(std::string_view hex) {
  if (hex.size() != 64) return std::nullopt;
  Sha256Digest out{};
  for (std::size_t i = 0; i < out.size(); ++i) {
    const int high = digest_detail::hex_value(hex[2 * i]);
    const int low = digest_detail::hex_value(hex[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    out[i] = static_cast<unsigned char>(high * 16 + low);
  }
  return out;
}

// Appends the 64 lower-case hex digits of `digest`.
inline void append_sha256_hex(std::string& out, const Sha256Digest& digest) {
  for (unsigned char b : digest) {
    out.push_back(digest_detail::kHexDigits[b >> 4]);
    out.push_back(digest_detail::kHexDigits[b & 15]);
  }
}

inline std::string sha256_hex(const Sha256Digest& digest) {
  std::string out;
  out.reserve(64);
  append_sha256_hex(out, digest);
  return out;
}

// Whether `hex` is exactly the lower-case hex text of `digest`.
inline bool sha256_hex_equals(std::string_view hex, const Sha256Digest& digest) {
  if (hex.size() != 64) return false;
  for (std::size_t i = 0; i < digest.size(); ++i) {
    if (hex[2 * i] != digest_detail::kHexDigits[digest[i] >> 4] ||
        hex[2 * i + 1] != digest_detail::kHexDigits[digest[i] & 15]) {
      return false;
    }
  }
  return true;
}

}  // namespace tidewright::sync
