// VocabularyMemo: the last validated vocabulary set of a data directory,
// remembered under a key naming everything the validation read (the era,
// the manifest's pointers and entries, and the identity of each local file),
// so that a no-op sync does not parse the vocabularies again.
//
// Owns: one key and its result. mu_ guards both and is a leaf lock, never
// held while a validation runs (two threads may validate at once; the last
// one to finish is remembered).
#pragma once

#include "tidewright/sync/common/json.hpp"
#include "tidewright/sync/common/mutex.hpp"

#include <memory>
#include <string>

namespace tidewright::sync {

class VocabularyMemo {
 public:
  // The result remembered for `key`; empty when another key is remembered.
  std::shared_ptr<const json::object> find(const std::string& key) const EXCLUDES(mu_) {
    MutexLock lock(mu_);
    return key_ == key ? result_ : nullptr;
  }
  void remember(std::string key, std::shared_ptr<const json::object> result) EXCLUDES(mu_) {
    MutexLock lock(mu_);
    key_ = std::move(key);
    result_ = std::move(result);
  }

 private:
  mutable Mutex mu_;
  std::string key_ GUARDED_BY(mu_);
  std::shared_ptr<const json::object> result_ GUARDED_BY(mu_);
};

}  // namespace tidewright::sync
