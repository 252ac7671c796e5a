#include "tests/support/virtual_time.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace kiv::test {
namespace {

using namespace std::chrono_literals;

TEST(VirtualTime, WaitsOfEveryKindEndAtTheirTimeAndTakeNone) {
  const auto steady = std::chrono::steady_clock::now();
  const auto system = std::chrono::system_clock::now();
  const auto begin = virtual_now();
  sleep(3600);
  usleep(1500);
  std::this_thread::sleep_for(10ms);
  std::this_thread::sleep_until(std::chrono::system_clock::now() + 20ms);
  std::mutex mutex;
  std::condition_variable changed;
  std::unique_lock lock(mutex);
  EXPECT_FALSE(changed.wait_for(lock, 30s, [] { return false; }));
  EXPECT_FALSE(
      changed.wait_until(lock, std::chrono::system_clock::now() + 1s, [] { return false; }));
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  pollfd nothing{.fd = ends[0], .events = POLLIN, .revents = 0};
  EXPECT_EQ(poll(&nothing, 1, 2000), 0);
  const auto passed = 3600s + 1500us + 30ms + 33s;
  EXPECT_EQ(virtual_now() - begin, passed);
  EXPECT_EQ(std::chrono::steady_clock::now() - steady, passed);
  EXPECT_EQ(std::chrono::system_clock::now() - system, passed);
  for (const int end : ends) close(end);
}

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
  EXPECT_GT(orders.size(), 15u);
}

}  // namespace
}  // namespace kiv::test
