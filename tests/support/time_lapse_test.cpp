#include "tests/support/time_lapse.h"

#include <gtest/gtest.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace kiv::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Real time, by a clock that is left alone.
nanoseconds real_now() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

TEST(TimeLapse, WaitsOfTenSecondsTakeATick) {
  std::mutex mutex;
  std::condition_variable never;
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  const std::function<void()> waits[] = {
      [] { sleep(10); },
      [] { usleep(10'000'000); },
      [] { std::this_thread::sleep_until(steady_clock::now() + seconds(10)); },
      [&] {
        std::unique_lock lock(mutex);
        EXPECT_FALSE(never.wait_for(lock, seconds(10), [] { return false; }));
      },
      [&] {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 10;
        EXPECT_EQ(sem_timedwait(&semaphore, &until), -1);
      },
  };
  const TimeLapse lapse(1000);
  for (const auto& wait : waits) {
    SCOPED_TRACE(&wait - waits);
    const auto start = steady_clock::now();
    const auto real_start = real_now();
    const auto waited_before = waited();
    wait();
    EXPECT_GE(steady_clock::now() - start, milliseconds(9'990));
    EXPECT_LE(waited() - waited_before, seconds(10));
    EXPECT_GE(waited() - waited_before, seconds(5));
    EXPECT_LT(real_now() - real_start, seconds(5));
  }
  EXPECT_EQ(lapse.slept().front(), seconds(10));
}

}  // namespace
}  // namespace kiv::test
