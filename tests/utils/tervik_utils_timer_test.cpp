#include "tervik_utils_timer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using std::chrono::steady_clock;
using Strings = std::vector<std::string>;

// What the timer callbacks did. Never destroyed: their threads may outlive main.
struct Firings {
  std::mutex mutex;
  std::condition_variable changed;
  size_t count = 0;
  std::atomic<size_t> stopped{0};

  // False when the callbacks do not come.
  bool wait_for(size_t expected) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::hours(5), [&] { return count >= expected; });
  }
};

Firings& firings() {
  static Firings& all = *new Firings;
  return all;
}

void note_firing(sigval) {
  const std::lock_guard lock(firings().mutex);
  ++firings().count;
  firings().changed.notify_all();
}

void stop_own_timer(sigval value) {
  firings().stopped += tervik_timer_stop(static_cast<uint32_t>(value.sival_int)) ? 1 : 0;
  note_firing(value);
}

class UtilsTimer : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_timer_stop(1);  // loads the masks and makes the mutexes
    firings().count = 0;
    firings().stopped = 0;
  }
};

TEST_F(UtilsTimer, NumbersCountFrom501AndAreUsedUpByFailedCreations) {
  const uint32_t first = tervik_timer_start(note_firing, 60);
  EXPECT_GE(first, 501u);
  fail_next_timer_create();
  EXPECT_EQ(tervik_timer_start(note_firing, 60), 0u);
  fail_next_timer_settime();
  EXPECT_EQ(tervik_timer_start(note_firing, 60), 0u);
  EXPECT_EQ(tervik_timer_start(nullptr, 60), 0u);
  EXPECT_EQ(tervik_timer_start(note_firing, 60), first + 3);
  for (const uint32_t timer_id : {first, first + 3}) EXPECT_TRUE(tervik_timer_stop(timer_id));
  for (const uint32_t timer_id : {first + 1, first + 2}) EXPECT_FALSE(tervik_timer_stop(timer_id));
}

TEST_F(UtilsTimer, FailedStartsSayWhyAndLeaveNoRecord) {
  const LogCapture log;
  EXPECT_FALSE(tervik_timer_start(7, nullptr, 9));
  fail_next_timer_create();
  EXPECT_FALSE(tervik_timer_start(7, note_firing, 9));
  EXPECT_FALSE(tervik_timer_stop(7));
  fail_next_timer_settime();
  EXPECT_FALSE(tervik_timer_start(7, note_firing, 9));
  EXPECT_FALSE(tervik_timer_stop(7));
  Strings lines = log.messages();
  for (std::string& line : lines) {
    const size_t handle = line.find("0x");
    if (handle != std::string::npos) line.replace(handle, line.find(',', handle) - handle, "*");
  }
  EXPECT_EQ(
      lines,
      (Strings{
          "callback is NULL, timer_id = 7, timeout_s = 9", "ret = 21, timeout_s = 9, timer_id = 7",
          "timer_id = 7, is_active = 0", "fail to timer_create, timer_id = 7, timeout_s = 9",
          "tervik_sys_timer_create failed, timer_id = 7, timeout_s = 9",
          "ret = 30, timeout_s = 9, timer_id = 7", "Not find the timer_callback, timer_id = 7",
          "timer_id = 7, is_active = 0", "fail to timer_settime, sys_timerid = *, timeout_s = 9",
          "tervik_sys_timer_create failed, timer_id = 7, timeout_s = 9",
          "ret = 30, timeout_s = 9, timer_id = 7", "Not find the timer_callback, timer_id = 7"}));
}

TEST_F(UtilsTimer, NumberIsTakenUntilStopped) {
  ASSERT_TRUE(tervik_timer_start(7, note_firing, 60));
  ASSERT_TRUE(tervik_timer_start(8, note_firing, 61));
  ASSERT_TRUE(tervik_timer_start(9, note_firing, 62));
  const LogCapture log;
  EXPECT_FALSE(tervik_timer_start(8, note_firing, 5));
  // From the middle, the head and the tail of the list.
  for (const uint32_t timer_id : {8u, 7u, 9u}) EXPECT_TRUE(tervik_timer_stop(timer_id));
  EXPECT_FALSE(tervik_timer_stop(8));
  EXPECT_EQ(
      log.messages(),
      (Strings{"timer_id = 8, is_active = 1",
               "This timer is active, pls stop it before start it, timer_id = 8",
               "ret = 1, timeout_s = 5, timer_id = 8", "ret = 0, timeout_s = 61, timer_id = 8",
               "ret = 0, timeout_s = 60, timer_id = 7", "ret = 0, timeout_s = 62, timer_id = 9",
               "Not find the timer_callback, timer_id = 8"}));
}

TEST_F(UtilsTimer, FiresOnceWhenItIsTimeAndStaysUntilStopped) {
  const TimeLapse lapse(200);
  const auto start = steady_clock::now();
  ASSERT_TRUE(tervik_timer_start(7, note_firing, 2));
  ASSERT_TRUE(tervik_timer_stop(tervik_timer_start(note_firing, 1)));
  ASSERT_TRUE(firings().wait_for(1));
  EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_FALSE(tervik_timer_start(7, note_firing, 2));
  usleep(3'000'000);
  EXPECT_EQ(firings().count, 1u);
  EXPECT_TRUE(tervik_timer_stop(7));
}

TEST_F(UtilsTimer, CallbackAlwaysFindsItsOwnTimer) {
  for (size_t round = 1; round <= 300; ++round) {
    if (round % 2 == 0) {
      ASSERT_TRUE(tervik_timer_start(9, stop_own_timer, 0));
    } else {
      ASSERT_NE(tervik_timer_start(stop_own_timer, 0), 0u);
    }
    ASSERT_TRUE(firings().wait_for(round));
    ASSERT_EQ(firings().stopped, round);
  }
}

// Starters and callbacks race for every timer: each is stopped exactly once.
TEST_F(UtilsTimer, ManyThreadsStartStopAndExpireAtOnce) {
  constexpr uint32_t kSharedId = 77;
  const TimeLapse lapse(1000);
  std::atomic<size_t> started{0};
  std::atomic<size_t> stopped{0};
  std::atomic<size_t> to_fire{0};
  const auto work = [&](int seed) {
    for (int round = 0; round < 60; ++round) {
      const int kind = (seed + round) % 4;
      if (kind == 3) {
        started += tervik_timer_start(kSharedId, note_firing, 60'000) ? 1 : 0;
        stopped += tervik_timer_stop(kSharedId) ? 1 : 0;
        continue;
      }
      const uint32_t timer_id =
          tervik_timer_start(stop_own_timer, static_cast<unsigned long>(round % 2));
      ++started;
      if (kind == 0) {
        ++to_fire;
      } else {
        if (kind == 1) std::this_thread::yield();
        stopped += tervik_timer_stop(timer_id) ? 1 : 0;
      }
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  while (tervik_timer_stop(kSharedId)) ++stopped;
  ASSERT_TRUE(firings().wait_for(to_fire));
  // A callback that lost the race may still be on its way to find nothing.
  for (int tick = 0; tick < 1000 && stopped + firings().stopped < started; ++tick) usleep(100'000);
  EXPECT_EQ(stopped + firings().stopped, started);
}

}  // namespace
}  // namespace kiv::test
