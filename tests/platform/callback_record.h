// What the callbacks of one client brought. Each takes `duration`, and none may still be at work
// when the client's end has returned.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/virtual_time.h"

namespace kiv::test {

template <class Value>
class CallbackRecord {
 public:
  explicit CallbackRecord(std::chrono::milliseconds duration = {}) : duration_(duration) {}

  void add(Value value) {
    std::this_thread::sleep_for(duration_);
    const std::lock_guard lock(mutex_);
    EXPECT_FALSE(over_) << "a callback that nobody waited for";
    values_.push_back(std::move(value));
  }
  void end() {
    const std::lock_guard lock(mutex_);
    over_ = true;
  }
  // All that came, once everything had its time to come.
  std::vector<Value> received() {
    std::this_thread::sleep_for(std::chrono::seconds(10));
    const std::lock_guard lock(mutex_);
    return values_;
  }

 private:
  const std::chrono::milliseconds duration_;
  std::mutex mutex_;
  std::vector<Value> values_;
  bool over_ = false;
};

// What `run` takes of the time.
inline std::chrono::milliseconds time_of(const std::function<void()>& run) {
  const auto begin = virtual_now();
  run();
  return std::chrono::duration_cast<std::chrono::milliseconds>(virtual_now() - begin);
}

}  // namespace kiv::test
