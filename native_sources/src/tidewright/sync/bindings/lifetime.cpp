#include "tidewright/sync/bindings/lifetime.hpp"

#include "tidewright/sync/era/era_thread.hpp"
#include "tidewright/sync/manager/sync_manager.hpp"

#include <algorithm>
#include <map>
#include <mutex>
#include <string>

namespace tidewright::sync::bindings {

namespace {

std::mutex g_mu;
std::vector<std::weak_ptr<SyncManager>> g_managers;  // guarded by g_mu
std::vector<std::weak_ptr<EraThread>> g_threads;     // guarded by g_mu

template <typename T>
void remember(std::vector<std::weak_ptr<T>>& list, const std::shared_ptr<T>& object) {
  std::lock_guard<std::mutex> lock(g_mu);
  std::erase_if(list, [&](const std::weak_ptr<T>& w) { return w.expired() || w.lock() == object; });
  list.push_back(object);
}

template <typename T>
std::vector<std::shared_ptr<T>> live(const std::vector<std::weak_ptr<T>>& list) {
  std::vector<std::shared_ptr<T>> out;
  std::lock_guard<std::mutex> lock(g_mu);
  for (const auto& w : list) {
    if (auto p = w.lock()) out.push_back(std::move(p));
  }
  return out;
}

}  // namespace

void remember_engine_object(const std::shared_ptr<SyncManager>& manager) { remember(g_managers, manager); }

void remember_engine_object(const std::shared_ptr<EraThread>& thread) { remember(g_threads, thread); }

void release_engine_host_objects() {
  std::map<std::string, std::shared_ptr<SyncManager>> registered;  // released last, with the GIL
  {
    // The registry lock may be held by a thread that waits for the GIL.
    nb::gil_scoped_release release;
    registered = SyncManager::instances();
    for (const auto& [key, manager] : registered) SyncManager::evict(key);
  }
  for (const auto& thread : live(g_threads)) thread->drop_host_refs();
  for (const auto& manager : live(g_managers)) manager->drop_host_refs();
}

}  // namespace tidewright::sync::bindings
