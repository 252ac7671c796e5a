#include "tervik_utils_timer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
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
class Firings {
 public:
  void add(uint32_t timer_id, bool stopped) {
    const std::lock_guard lock(mutex_);
    ids_.push_back(timer_id);
    stopped_ += stopped ? 1 : 0;
    changed_.notify_all();
  }
  void reset() {
    const std::lock_guard lock(mutex_);
    ids_.clear();
    stopped_ = 0;
  }
  // False when the callbacks do not come.
  bool wait_for(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::hours(5), [&] { return ids_.size() >= count; });
  }
  std::vector<uint32_t> ids() {
    const std::lock_guard lock(mutex_);
    return ids_;
  }
  size_t stopped() {
    const std::lock_guard lock(mutex_);
    return stopped_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<uint32_t> ids_;
  size_t stopped_ = 0;
};

Firings& firings() {
  static Firings& all = *new Firings;
  return all;
}

void note_firing(sigval value) {
  firings().add(static_cast<uint32_t>(value.sival_int), false);
}

void stop_own_timer(sigval value) {
  const auto timer_id = static_cast<uint32_t>(value.sival_int);
  firings().add(timer_id, tervik_timer_stop(timer_id));
}

class UtilsTimer : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_timer_stop(1);  // loads the masks and makes the mutexes
    firings().reset();
  }
};

// Numbers are counted over the whole process, so this one runs in a process of its own.
TEST(UtilsTimerNumbers, CountFrom501AndAreUsedUpByFailedCreations) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("KIV_STATE_DIR", "/nonexistent", 1);
        tervik_hal_close_print();
        const auto start = [] { fprintf(stderr, "%u ", tervik_timer_start(note_firing, 60)); };
        start();
        start();
        fail_next_timer_create();
        start();
        start();
        fail_next_timer_settime();
        start();
        fprintf(stderr, "%u ", tervik_timer_start(nullptr, 60));
        start();
        fprintf(stderr, "%d%d%d", tervik_timer_stop(503), tervik_timer_stop(504),
                tervik_timer_stop(505));
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "501 502 0 504 0 0 506 010");
}

TEST_F(UtilsTimer, FailedStartsSayWhyAndLeaveNoRecord) {
  LogCapture log;
  EXPECT_FALSE(tervik_timer_start(7, nullptr, 9));
  fail_next_timer_create();
  EXPECT_FALSE(tervik_timer_start(7, note_firing, 9));
  EXPECT_FALSE(tervik_timer_stop(7));
  fail_next_timer_settime();
  EXPECT_FALSE(tervik_timer_start(7, note_firing, 9));
  EXPECT_FALSE(tervik_timer_stop(7));
  fail_next_timer_create();
  EXPECT_EQ(tervik_timer_start(note_firing, 9), 0u);
  Strings lines = log.messages();
  for (std::string& line : lines) {
    const size_t handle = line.find("0x");
    if (handle != std::string::npos) line.replace(handle, line.find(',', handle) - handle, "*");
  }
  const uint32_t used_up = tervik_timer_start(note_firing, 60) - 1;
  EXPECT_EQ(
      lines,
      (Strings{
          "callback is NULL, timer_id = 7, timeout_s = 9", "ret = 21, timeout_s = 9, timer_id = 7",
          "timer_id = 7, is_active = 0", "fail to timer_create, timer_id = 7, timeout_s = 9",
          "tervik_sys_timer_create failed, timer_id = 7, timeout_s = 9",
          "ret = 30, timeout_s = 9, timer_id = 7", "Not find the timer_callback, timer_id = 7",
          "timer_id = 7, is_active = 0", "fail to timer_settime, sys_timerid = *, timeout_s = 9",
          "tervik_sys_timer_create failed, timer_id = 7, timeout_s = 9",
          "ret = 30, timeout_s = 9, timer_id = 7", "Not find the timer_callback, timer_id = 7",
          "fail to timer_create, timer_id = " + std::to_string(used_up) + ", timeout_s = 9",
          "tervik_sys_timer_create failed", "ret = 30, timeout_s = 9, timer_id = 0"}));
  EXPECT_FALSE(tervik_timer_stop(used_up));
  EXPECT_TRUE(tervik_timer_stop(used_up + 1));
}

TEST_F(UtilsTimer, NumberIsTakenUntilStopped) {
  ASSERT_TRUE(tervik_timer_start(7, note_firing, 60));
  ASSERT_TRUE(tervik_timer_start(8, note_firing, 61));
  ASSERT_TRUE(tervik_timer_start(9, note_firing, 62));
  LogCapture log;
  EXPECT_FALSE(tervik_timer_start(8, note_firing, 5));
  EXPECT_EQ(log.messages(),
            (Strings{"timer_id = 8, is_active = 1",
                     "This timer is active, pls stop it before start it, timer_id = 8",
                     "ret = 1, timeout_s = 5, timer_id = 8"}));
  log.clear();
  // From the middle, the head and the tail of the list.
  for (const uint32_t timer_id : {8u, 7u, 9u}) EXPECT_TRUE(tervik_timer_stop(timer_id));
  EXPECT_FALSE(tervik_timer_stop(8));
  EXPECT_EQ(log.messages(), (Strings{"ret = 0, timeout_s = 61, timer_id = 8",
                                     "ret = 0, timeout_s = 60, timer_id = 7",
                                     "ret = 0, timeout_s = 62, timer_id = 9",
                                     "Not find the timer_callback, timer_id = 8"}));
}

TEST_F(UtilsTimer, FiresOnceWhenItIsTimeAndStaysUntilStopped) {
  const TimeLapse lapse(200);
  const auto start = steady_clock::now();
  ASSERT_TRUE(tervik_timer_start(7, note_firing, 2));
  const uint32_t stopped = tervik_timer_start(note_firing, 1);
  ASSERT_TRUE(tervik_timer_stop(stopped));
  ASSERT_TRUE(firings().wait_for(1));
  EXPECT_GE(steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_FALSE(tervik_timer_start(7, note_firing, 2));
  usleep(3'000'000);
  EXPECT_EQ(firings().ids(), std::vector<uint32_t>{7});
  EXPECT_TRUE(tervik_timer_stop(7));
  EXPECT_TRUE(tervik_timer_start(7, stop_own_timer, 0));
  ASSERT_TRUE(firings().wait_for(2));
  EXPECT_EQ(firings().stopped(), 1u);
}

TEST_F(UtilsTimer, CallbackAlwaysFindsItsOwnTimer) {
  for (size_t round = 1; round <= 300; ++round) {
    if (round % 2 == 0) {
      ASSERT_TRUE(tervik_timer_start(9, stop_own_timer, 0));
    } else {
      ASSERT_NE(tervik_timer_start(stop_own_timer, 0), 0u);
    }
    ASSERT_TRUE(firings().wait_for(round));
    ASSERT_EQ(firings().stopped(), round);
  }
}

// Starters and callbacks race for every timer: each is stopped exactly once.
TEST_F(UtilsTimer, ManyThreadsStartStopAndExpireAtOnce) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 60;
  constexpr uint32_t kSharedId = 77;
  const TimeLapse lapse(1000);
  std::atomic<size_t> started{0};
  std::atomic<size_t> stopped{0};
  std::atomic<size_t> to_fire{0};
  const auto work = [&](int seed) {
    for (int round = 0; round < kRounds; ++round) {
      const int kind = (seed + round) % 4;
      if (kind == 3) {
        if (tervik_timer_start(kSharedId, note_firing, 60'000)) ++started;
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
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  while (tervik_timer_stop(kSharedId)) ++stopped;
  ASSERT_TRUE(firings().wait_for(to_fire));
  // A callback that lost the race may still be on its way to find nothing.
  for (int tick = 0; tick < 1000 && stopped + firings().stopped() < started; ++tick)
    usleep(100'000);
  EXPECT_EQ(stopped + firings().stopped(), started);
}

}  // namespace
}  // namespace kiv::test
