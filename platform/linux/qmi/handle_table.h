// The live handles of one kind. A handle is a number in the form of a pointer, never used twice in a process, so a
// stale or made-up handle is not taken for a live one, nor is a parent's in a child of fork().
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "process_fd.h"
#include "qmi_client.h"

namespace pelmar::platform {

template <typename Handle = qmi_client_type>
Handle new_handle() {
  static std::atomic<uintptr_t> last{0};
  constexpr uintptr_t kStep = 16;  // looks like an address to whoever checks alignment
  return reinterpret_cast<Handle>(last.fetch_add(kStep, std::memory_order_relaxed) + kStep);
}

template <typename T, typename Handle = qmi_client_type>
class HandleTable {
 public:
  // A child of fork() begins with an empty table of its own, and never touches its parent's: the locks there may be
  // held by threads that the child does not have. No table is destroyed: threads may use it until the process is gone.
  static HandleTable& of_this_process() {
    constinit static std::atomic<HandleTable*> current{nullptr};
    HandleTable* table = current.load();
    if (table != nullptr && table->forks_ == fork_count()) return *table;
    auto* const own = new HandleTable;
    if (current.compare_exchange_strong(table, own)) return *own;
    delete own;
    return *table;
  }

  void add(Handle handle, std::shared_ptr<T> object) {
    const std::lock_guard lock(mutex_);
    objects_.emplace(handle, std::move(object));
  }

  // Null for a handle that is none.
  std::shared_ptr<T> find(Handle handle) const {
    const std::lock_guard lock(mutex_);
    const auto found = objects_.find(handle);
    return found == objects_.end() ? nullptr : found->second;
  }

  // Of several callers with one handle a single one gets the object.
  std::shared_ptr<T> remove(Handle handle) {
    const std::lock_guard lock(mutex_);
    const auto found = objects_.find(handle);
    if (found == objects_.end()) return nullptr;
    std::shared_ptr<T> object = std::move(found->second);
    objects_.erase(found);
    return object;
  }

  std::vector<std::shared_ptr<T>> all() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<T>> list;
    for (const auto& entry : objects_) list.push_back(entry.second);
    return list;
  }

 private:
  const unsigned forks_ = fork_count();
  mutable std::mutex mutex_;
  std::unordered_map<Handle, std::shared_ptr<T>> objects_;
};

}  // namespace pelmar::platform
