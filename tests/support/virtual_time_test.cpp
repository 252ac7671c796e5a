#include "tests/support/virtual_time.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kiv::test {
namespace {

TEST(VirtualTime, ShuffledThreadsMeetInManyOrders) {
  std::set<std::string> orders;
  for (uint64_t seed = 1; seed <= 40; ++seed) {
    const Shuffle shuffle(seed);
    std::mutex mutex;
    std::string names;
    std::vector<std::thread> threads;
    for (const char* name : {"a", "b", "c"}) {
      threads.emplace_back([&, name] {
        for (int i = 0; i < 2; ++i) {
          const std::lock_guard lock(mutex);
          names += name;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    orders.insert(names);
  }
  EXPECT_GT(orders.size(), 10u);
}

}  // namespace
}  // namespace kiv::test
