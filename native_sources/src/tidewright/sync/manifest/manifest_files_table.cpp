#include "tidewright/sync/manifest/manifest_files_table.hpp"

#include "tidewright/sync/common/digest.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

namespace tidewright::sync {

namespace {

constexpr std::size_t kTextBlockSize = 64 * 1024;
constexpr std::size_t kMaxCompactFields = 64;


}  // namespace

std::optional<std::int64_t> ManifestFiles::Entry::size_bytes() const {
  if (const json::value* v = verbatim()) {
    const json::object* e = v->if_object();
    const json::value* size = e ? e->if_contains("size_bytes") : nullptr;
    return size ? to_int(*size) : std::nullopt;
  }
  return row().size;
}

std::string ManifestFiles::Entry::sha256() const {
  if (const json::value* v = verbatim()) {
    const json::object* e = v->if_object();
    const json::value* sha = e ? e->if_contains("sha256") : nullptr;
    return sha && sha->is_string() ? std::string(sha->get_string()) : std::string();
  }
  return sha256_hex(row().digest);
}

std::string_view ManifestFiles::Entry::kind() const {
  if (const json::value* v = verbatim()) {
    const json::object* e = v->if_object();
    const json::value* kind = e ? e->if_contains("kind") : nullptr;
    return kind && kind->is_string() ? std::string_view(kind->get_string()) : std::string_view();
  }
  const std::uint32_t kind = row().kind;
  return kind == kNoKind ? std::string_view() : table_->strings_[kind];
}

const json::value* ManifestFiles::Entry::verbatim() const {
  const std::uint32_t v = row().verbatim;
  return v == 0 ? nullptr : &table_->verbatim_[v - 1];
}

json::value ManifestFiles::Entry::info() const {
  if (const json::value* v = verbatim()) return *v;
  const std::span<const std::uint32_t> fields = table_->compact_fields(*this);
  json::object e;
  e.reserve(fields.size() / 2);
  for (std::size_t i = 0; i < fields.size(); i += 2) {
    const std::string_view key = table_->strings_[fields[i]];
    const std::uint32_t value = fields[i + 1];
    if (value == kSizeValue) {
      e.emplace(key, row().size);
    } else if (value == kDigestValue) {
      e.emplace(key, sha256_hex(row().digest));
    } else {
      e.emplace(key, table_->strings_[value]);
    }
  }
  return e;
}

bool ManifestFiles::Entry::same_info(const Entry& other) const {
  if (!verbatim() && !other.verbatim()) {
    const std::span<const std::uint32_t> mine = table_->compact_fields(*this);
    const std::span<const std::uint32_t> theirs = other.table_->compact_fields(other);
    if (mine.size() == theirs.size()) {
      bool same = row().size == other.row().size && row().digest == other.row().digest;
      for (std::size_t i = 0; same && i < mine.size(); ++i) {
        const bool marked = mine[i] == kSizeValue || mine[i] == kDigestValue || theirs[i] == kSizeValue ||
                            theirs[i] == kDigestValue;
        same = (i % 2 == 1 && marked) ? mine[i] == theirs[i]
                                      : table_->strings_[mine[i]] == other.table_->strings_[theirs[i]];
      }
      if (same) return true;
    }
  }
  return info() == other.info();  // as JSON values compare: keys in any order
}

ManifestFiles::ManifestFiles(const ManifestFiles& other) { *this = other; }

ManifestFiles& ManifestFiles::operator=(const ManifestFiles& other) {
  if (this == &other) return *this;
  ManifestFiles copy;
  copy.rows_.reserve(other.rows_.size());
  copy.index_.reserve(other.rows_.size());
  copy.strings_.reserve(other.strings_.size());
  for (std::string_view text : other.strings_) {
    copy.strings_.push_back(copy.store_text(text));
    copy.string_ids_.emplace(copy.strings_.back(), static_cast<std::uint32_t>(copy.strings_.size() - 1));
  }
  copy.fields_ = other.fields_;
  copy.verbatim_ = other.verbatim_;
  for (const Row& row : other.rows_) {
    Row r = row;
    r.path = copy.store_text(row.path);
    copy.index_.emplace(r.path, static_cast<std::uint32_t>(copy.rows_.size()));
    copy.rows_.push_back(r);
  }
  *this = std::move(copy);
  return *this;
}

ManifestFiles ManifestFiles::from_object(json::object&& files) {
  ManifestFiles table;
  table.rows_.reserve(files.size());
  table.index_.reserve(files.size());
  for (auto& kv : files) {
    table.set(kv.key(), std::move(kv.value()));
    kv.value() = nullptr;  // the entry's memory goes back as it is taken
  }
  table.fields_.shrink_to_fit();
  return table;
}

ManifestFiles ManifestFiles::from_object(const json::object& files) {
  ManifestFiles table;
  table.rows_.reserve(files.size());
  table.index_.reserve(files.size());
  for (const auto& kv : files) table.set(kv.key(), kv.value());
  table.fields_.shrink_to_fit();
  return table;
}

std::optional<ManifestFiles::Entry> ManifestFiles::find(std::string_view path) const {
  auto it = index_.find(path);
  if (it == index_.end()) return std::nullopt;
  return Entry(this, it->second);
}

std::span<const std::uint32_t> ManifestFiles::compact_fields(const Entry& entry) const {
  const Row& row = rows_[entry.index_];
  if (row.verbatim != 0) return {};
  return std::span<const std::uint32_t>(fields_.data() + row.fields_begin, std::size_t{row.field_count} * 2);
}

std::string_view ManifestFiles::store_text(std::string_view text) {
  if (text_blocks_.empty() || text.size() > block_size_ - block_used_) {
    block_size_ = std::max(kTextBlockSize, text.size());
    text_blocks_.push_back(std::make_unique<char[]>(block_size_));
    block_used_ = 0;
  }
  char* at = text_blocks_.back().get() + block_used_;
  if (!text.empty()) std::memcpy(at, text.data(), text.size());
  block_used_ += text.size();
  return std::string_view(at, text.size());
}

std::uint32_t ManifestFiles::intern(std::string_view text) {
  if (auto it = string_ids_.find(text); it != string_ids_.end()) return it->second;
  const auto id = static_cast<std::uint32_t>(strings_.size());
  strings_.push_back(store_text(text));
  string_ids_.emplace(strings_.back(), id);
  return id;
}

bool ManifestFiles::assign_compact(Row& row, const json::value& info) {
  const json::object* e = info.if_object();
  if (!e || e->size() > kMaxCompactFields) return false;
  if (fields_.size() + e->size() * 2 > std::numeric_limits<std::uint32_t>::max() - 2) return false;
  bool has_size = false;
  bool has_digest = false;
  for (const auto& kv : *e) {
    const json::value& v = kv.value();
    if (kv.key() == "size_bytes") {
      if (!v.is_int64()) return false;
      has_size = true;
    } else if (kv.key() == "sha256") {
      if (!v.is_string() || !sha256_digest_bytes(v.get_string())) return false;
      has_digest = true;
    } else if (!v.is_string()) {
      return false;
    }
  }
  if (!has_size || !has_digest) return false;
  const auto begin = static_cast<std::uint32_t>(fields_.size());
  row.kind = kNoKind;
  for (const auto& kv : *e) {
    const std::uint32_t key = intern(kv.key());
    std::uint32_t value;
    if (kv.key() == "size_bytes") {
      row.size = kv.value().get_int64();
      value = kSizeValue;
    } else if (kv.key() == "sha256") {
      row.digest = *sha256_digest_bytes(kv.value().get_string());
      value = kDigestValue;
    } else {
      value = intern(kv.value().get_string());
      if (kv.key() == "kind") row.kind = value;
    }
    fields_.push_back(key);
    fields_.push_back(value);
  }
  row.fields_begin = begin;
  row.field_count = static_cast<std::uint16_t>(e->size());
  row.verbatim = 0;
  return true;
}

void ManifestFiles::assign(Row& row, json::value&& info) {
  // A replaced compact entry leaves its old pairs unused in fields_: only
  // the vocabulary repair replaces entries, a handful per manifest.
  if (assign_compact(row, info)) return;
  if (row.verbatim != 0) {
    verbatim_[row.verbatim - 1] = std::move(info);
    return;
  }
  verbatim_.push_back(std::move(info));
  row.verbatim = static_cast<std::uint32_t>(verbatim_.size());
}

void ManifestFiles::set(std::string_view path, json::value info) {
  if (auto it = index_.find(path); it != index_.end()) {
    assign(rows_[it->second], std::move(info));
    return;
  }
  Row row;
  row.path = store_text(path);
  assign(row, std::move(info));
  index_.emplace(row.path, static_cast<std::uint32_t>(rows_.size()));
  rows_.push_back(row);
}

json::object ManifestFiles::to_object() const {
  json::object out;
  out.reserve(rows_.size());
  for (const Entry entry : *this) out.emplace(entry.path(), entry.info());
  return out;
}

void ManifestFiles::append_entry_json(std::string& out, const Entry& entry, const JsonWriteOptions& options) const {
  if (const json::value* v = entry.verbatim(); v || options.sort_keys) {
    tidewright::sync::append_json(out, v ? *v : entry.info(), options);
    return;
  }
  const char* item_sep = options.compact ? "," : ", ";
  const char* key_sep = options.compact ? ":" : ": ";
  const std::span<const std::uint32_t> fields = compact_fields(entry);
  out.push_back('{');
  for (std::size_t i = 0; i < fields.size(); i += 2) {
    if (i != 0) out += item_sep;
    append_json_string(out, strings_[fields[i]]);
    out += key_sep;
    const std::uint32_t value = fields[i + 1];
    if (value == kSizeValue) {
      out += std::to_string(entry.row().size);
    } else if (value == kDigestValue) {
      out.push_back('"');
      append_sha256_hex(out, entry.row().digest);
      out.push_back('"');
    } else {
      append_json_string(out, strings_[value]);
    }
  }
  out.push_back('}');
}

}  // namespace tidewright::sync
