#include "tidewright/sync/bindings/lifetime.hpp"

#include "tidewright/sync/era/era_thread.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"

#include <algorithm>
#include <map>
#include "tidewright/sync/common/mutex.hpp"
#include <string>

namespace tidewright::sync::bindings {

namespace {

// Every engine object created for the host, so that interpreter exit can
// let go of the host objects they hold.
struct EngineObjects {
  std::vector<std::weak_ptr<SyncManager>> managers;
  std::vector<std::weak_ptr<EraThread>> threads;
};

Mutex g_mu;
EngineObjects g_objects GUARDED_BY(g_mu);

template <typename T>
void remember(std::vector<std::weak_ptr<T>>& list, const std::shared_ptr<T>& object) {
  std::erase_if(list, [&](const std::weak_ptr<T>& w) { return w.expired() || w.lock() == object; });
  list.push_back(object);
}

template <typename T>
std::vector<std::shared_ptr<T>> live(const std::vector<std::weak_ptr<T>>& list) {
  std::vector<std::shared_ptr<T>> out;
  for (const auto& w : list) {
    if (auto p = w.lock()) out.push_back(std::move(p));
  }
  return out;
}

}  // namespace

void remember_engine_object(const std::shared_ptr<SyncManager>& manager) {
  MutexLock lock(g_mu);
  remember(g_objects.managers, manager);
}

void remember_engine_object(const std::shared_ptr<EraThread>& thread) {
  MutexLock lock(g_mu);
  remember(g_objects.threads, thread);
}

void release_engine_host_objects() {
  std::map<std::string, std::shared_ptr<SyncManager>> registered;  // released last, with the GIL
  {
    // The registry lock may be held by a thread that waits for the GIL.
    nb::gil_scoped_release release;
    registered = SyncManager::instances();
    for (const auto& [key, manager] : registered) SyncManager::evict(key);
  }
  std::vector<std::shared_ptr<EraThread>> threads;
  std::vector<std::shared_ptr<SyncManager>> managers;
  {
    MutexLock lock(g_mu);
    threads = live(g_objects.threads);
    managers = live(g_objects.managers);
  }
  for (const auto& thread : threads) thread->drop_host_refs();
  for (const auto& manager : managers) manager->drop_host_refs();
}

}  // namespace tidewright::sync::bindings
