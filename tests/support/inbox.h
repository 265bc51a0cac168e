/// A list that one thread waits on while others fill it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

namespace support {

template <class T>
class Inbox {
 public:
  void Put(T item) {
    const std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }
  /// The next item; a default one and a failure when none comes within half a minute.
  T Take() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(30), [this] { return !items_.empty(); })) {
      ADD_FAILURE() << "nothing arrived";
      return T{};
    }
    T item = std::move(items_.front());
    items_.pop_front();
    return item;
  }
  std::vector<T> TakeAll() {
    const std::lock_guard lock(mutex_);
    const auto all = std::exchange(items_, {});
    return {all.begin(), all.end()};
  }
  size_t Size() {
    const std::lock_guard lock(mutex_);
    return items_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<T> items_;
};

/// The one inbox of this type and number; never destroyed, since tasks may still fill it at the end.
template <class T, uint32_t kNumber = 0>
Inbox<T>& TheInbox() {
  static auto& inbox = *new Inbox<T>;
  return inbox;
}

}  // namespace support
