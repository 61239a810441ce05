// ManifestFiles: the "files" map of a manifest, kept compactly.
//
// A manifest of a large era lists 100,000 files; as parsed JSON each entry
// costs some 800 bytes or more (an object, its key strings, the digest and
// each descriptive field as its own string). An entry in the usual form, an
// object with an integer "size_bytes", a "sha256" of 64 lower-case hex digits
// and text for every other key ("kind", "named_universe", "family", ...), is
// kept as its fields: the size, the digest as its 32 bytes and the other keys
// and texts as indexes into a table of distinct strings, in the entry's key
// order. Any other entry (a size written as a float, a digest in capitals, a
// number or a list among its fields, ...) is kept verbatim and handed out
// unchanged. Paths and the distinct strings are stored once, in blocks that
// never move, and paths are indexed by an open-addressing map. Entries keep
// the manifest's order.
//
// Not thread-safe for writers; const access from many threads is safe.
#pragma once

#include "tidewright/sync/common/json.hpp"

#include <boost/unordered/unordered_flat_map.hpp>

#include <array>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tidewright::sync {

class ManifestFiles {
  static constexpr std::uint32_t kNoKind = 0xFFFFFFFF;
  struct Row {
    std::string_view path;
    std::int64_t size = 0;
    std::array<unsigned char, 32> digest{};
    std::uint32_t fields_begin = 0;  // index of the first pair in fields_
    std::uint32_t kind = kNoKind;     // the string id of "kind", when text
    std::uint32_t verbatim = 0;      // 1 + index into verbatim_, or 0 for a compact row
    std::uint16_t field_count = 0;
  };

 public:
  // A compact entry's fields are pairs (key, value) of string ids, in the
  // entry's order; "size_bytes" and "sha256" stand there with these values.
  static constexpr std::uint32_t kSizeValue = 0xFFFFFFFF;
  static constexpr std::uint32_t kDigestValue = 0xFFFFFFFE;

  // A view of one entry; valid while the table is not changed.
  class Entry {
   public:
    std::string_view path() const { return row().path; }
    // Whether the entry is in the usual form (its fields are all there is).
    bool compact() const { return row().verbatim == 0; }
    // "size_bytes" as an integer when it is one (an integral float too, as
    // the host's int() reads it); none when absent or anything else.
    std::optional<std::int64_t> size_bytes() const;
    // "sha256" when it is text; empty otherwise.
    std::string sha256() const;
    // "kind" when it is text; empty otherwise.
    std::string_view kind() const;
    // The entry as the manifest holds it (built for a compact entry).
    json::value info() const;
    // The verbatim entry, or null for a compact one.
    const json::value* verbatim() const;
    // Same entry contents (not the same path).
    bool same_info(const Entry& other) const;

   private:
    friend class ManifestFiles;
    Entry(const ManifestFiles* table, std::uint32_t index) : table_(table), index_(index) {}
    const Row& row() const { return table_->rows_[index_]; }
    const ManifestFiles* table_;
    std::uint32_t index_;
  };

  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = Entry;
    iterator() = default;
    Entry operator*() const { return Entry(table_, index_); }
    iterator& operator++() {
      ++index_;
      return *this;
    }
    iterator operator++(int) {
      iterator before = *this;
      ++index_;
      return before;
    }
    bool operator==(const iterator& other) const { return index_ == other.index_; }

   private:
    friend class ManifestFiles;
    iterator(const ManifestFiles* table, std::uint32_t index) : table_(table), index_(index) {}
    const ManifestFiles* table_ = nullptr;
    std::uint32_t index_ = 0;
  };

  ManifestFiles() = default;
  ManifestFiles(const ManifestFiles& other);
  ManifestFiles& operator=(const ManifestFiles& other);
  ManifestFiles(ManifestFiles&&) noexcept = default;
  ManifestFiles& operator=(ManifestFiles&&) noexcept = default;

  // Takes the entries of a "files" object, in its order.
  static ManifestFiles from_object(json::object&& files);
  static ManifestFiles from_object(const json::object& files);

  std::size_t size() const { return rows_.size(); }
  bool empty() const { return rows_.empty(); }
  bool contains(std::string_view path) const { return index_.contains(path); }
  std::optional<Entry> find(std::string_view path) const;
  // The entry at `i` (manifest order); REQUIRES i < size().
  Entry at(std::size_t i) const { return Entry(this, static_cast<std::uint32_t>(i)); }
  iterator begin() const { return iterator(this, 0); }
  iterator end() const { return iterator(this, static_cast<std::uint32_t>(rows_.size())); }

  // Sets the entry of `path`: replaced in place when present, appended otherwise.
  void set(std::string_view path, json::value info);

  // The map as a JSON object, in order.
  json::object to_object() const;
  // The (key, value) id pairs of a compact entry; empty for a verbatim one.
  std::span<const std::uint32_t> compact_fields(const Entry& entry) const;
  // The text of a string id.
  std::string_view text(std::uint32_t id) const { return strings_[id]; }
  std::size_t distinct_texts() const { return strings_.size(); }
  // Appends one entry's value as the encoder writes it.
  void append_entry_json(std::string& out, const Entry& entry, const JsonWriteOptions& options) const;

 private:
  std::string_view store_text(std::string_view text);
  void assign(Row& row, json::value&& info);
  bool assign_compact(Row& row, const json::value& info);
  std::uint32_t intern(std::string_view text);

  std::vector<Row> rows_;
  boost::unordered_flat_map<std::string_view, std::uint32_t> index_;  // path -> row
  std::vector<std::unique_ptr<char[]>> text_blocks_;  // paths and strings, never moved
  std::size_t block_used_ = 0;
  std::size_t block_size_ = 0;
  std::vector<std::string_view> strings_;  // distinct keys and texts of compact entries
  boost::unordered_flat_map<std::string_view, std::uint32_t> string_ids_;
  std::vector<std::uint32_t> fields_;  // key, value, key, value, ...
  std::vector<json::value> verbatim_;
};

}  // namespace tidewright::sync
