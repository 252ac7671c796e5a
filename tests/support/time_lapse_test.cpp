#include "tests/support/time_lapse.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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
using std::chrono::system_clock;

constexpr int64_t kFactor = 1000;

// Real time, by a clock that is left alone.
nanoseconds real_now() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

timespec in_ten_seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  time.tv_sec += 10;
  return time;
}

TEST(TimeLapse, EveryWaitOfTenSecondsTakesATick) {
  std::mutex mutex;
  std::condition_variable never;
  pthread_mutex_t posix_mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t posix_never = PTHREAD_COND_INITIALIZER;
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  const timespec ten{.tv_sec = 10, .tv_nsec = 0};
  const struct {
    const char* name;
    std::function<void()> wait;
  } rows[] = {
      {"sleep", [] { EXPECT_EQ(sleep(10), 0u); }},
      {"usleep", [] { EXPECT_EQ(usleep(10'000'000), 0); }},
      {"nanosleep", [&] { EXPECT_EQ(nanosleep(&ten, nullptr), 0); }},
      {"clock_nanosleep",
       [&] { EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 0, &ten, nullptr), 0); }},
      {"clock_nanosleep until",
       [] {
         const timespec until = in_ten_seconds(CLOCK_REALTIME);
         EXPECT_EQ(clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr), 0);
       }},
      {"sleep_for", [] { std::this_thread::sleep_for(seconds(10)); }},
      {"sleep_until", [] { std::this_thread::sleep_until(steady_clock::now() + seconds(10)); }},
      {"wait_for",
       [&] {
         std::unique_lock lock(mutex);
         EXPECT_FALSE(never.wait_for(lock, seconds(10), [] { return false; }));
       }},
      {"wait_until steady",
       [&] {
         std::unique_lock lock(mutex);
         EXPECT_FALSE(
             never.wait_until(lock, steady_clock::now() + seconds(10), [] { return false; }));
       }},
      {"wait_until system",
       [&] {
         std::unique_lock lock(mutex);
         EXPECT_FALSE(
             never.wait_until(lock, system_clock::now() + seconds(10), [] { return false; }));
       }},
      {"pthread_cond_timedwait",
       [&] {
         const timespec until = in_ten_seconds(CLOCK_REALTIME);
         pthread_mutex_lock(&posix_mutex);
         EXPECT_EQ(pthread_cond_timedwait(&posix_never, &posix_mutex, &until), ETIMEDOUT);
         pthread_mutex_unlock(&posix_mutex);
       }},
      {"sem_timedwait",
       [&] {
         const timespec until = in_ten_seconds(CLOCK_REALTIME);
         EXPECT_EQ(sem_timedwait(&semaphore, &until), -1);
         EXPECT_EQ(errno, ETIMEDOUT);
       }},
      {"sem_clockwait",
       [&] {
         const timespec until = in_ten_seconds(CLOCK_MONOTONIC);
         EXPECT_EQ(sem_clockwait(&semaphore, CLOCK_MONOTONIC, &until), -1);
         EXPECT_EQ(errno, ETIMEDOUT);
       }},
  };
  const TimeLapse lapse(kFactor);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto steady_start = steady_clock::now();
    const auto system_start = system_clock::now();
    const auto real_start = real_now();
    row.wait();
    EXPECT_GE(real_now() - real_start, milliseconds(10) - milliseconds(1));
    EXPECT_LT(real_now() - real_start, seconds(5));
    EXPECT_GE(steady_clock::now() - steady_start, milliseconds(9'990));
    EXPECT_GE(system_clock::now() - system_start, milliseconds(9'990));
  }
  sem_destroy(&semaphore);
}

TEST(TimeLapse, RecordsWhatWasSleptWhileItLives) {
  usleep(1);
  const TimeLapse lapse(kFactor);
  sleep(3);
  usleep(20'000);
  std::this_thread::sleep_for(nanoseconds(5));
  EXPECT_EQ(lapse.slept(),
            (std::vector<nanoseconds>{seconds(3), milliseconds(20), nanoseconds(5)}));
}

TEST(TimeLapse, ClocksNeitherJumpNorRunBackwards) {
  const auto system_start = system_clock::now();
  const auto real_start = real_now();
  auto last = steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    const TimeLapse lapse(kFactor);
    const auto now = steady_clock::now();
    EXPECT_GE(now, last);
    last = now;
  }
  const auto most = (real_now() - real_start) * kFactor;
  EXPECT_LE(system_clock::now() - system_start, most);
  EXPECT_GE(steady_clock::now(), last);
}

// The callbacks run on threads of their own; a test is over when they have said so.
struct Expiries {
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<int> values;
};

Expiries& expiries() {
  static Expiries& all = *new Expiries;
  return all;
}

void record_expiry(sigval value) {
  const std::lock_guard lock(expiries().mutex);
  expiries().values.push_back(value.sival_int);
  expiries().arrived.notify_all();
}

timer_t make_timer(int value) {
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD;
  event.sigev_notify_function = record_expiry;
  event.sigev_value.sival_int = value;
  timer_t timer{};
  EXPECT_EQ(timer_create(CLOCK_REALTIME, &event, &timer), 0);
  return timer;
}

int arm(timer_t timer, time_t timeout_s, long timeout_ns = 0) {
  const itimerspec value{.it_interval = {},
                         .it_value = {.tv_sec = timeout_s, .tv_nsec = timeout_ns}};
  return timer_settime(timer, 0, &value, nullptr);
}

TEST(EmulatedTimers, ExpireOnceInTheOrderOfTheirTime) {
  expiries().values.clear();
  const TimeLapse lapse(kFactor);
  const timer_t late = make_timer(3);
  const timer_t disarmed = make_timer(4);
  const timer_t deleted = make_timer(5);
  const timer_t early = make_timer(1);
  const timer_t at_once = make_timer(0);
  EXPECT_EQ(arm(late, 60), 0);
  EXPECT_EQ(arm(disarmed, 20), 0);
  EXPECT_EQ(arm(deleted, 20), 0);
  EXPECT_EQ(arm(early, 30), 0);
  EXPECT_EQ(arm(at_once, 0, 1), 0);
  EXPECT_EQ(arm(disarmed, 0), 0);
  EXPECT_EQ(timer_delete(deleted), 0);
  {
    std::unique_lock lock(expiries().mutex);
    expiries().arrived.wait_for(lock, seconds(20'000),
                                [] { return expiries().values.size() == 3; });
    EXPECT_EQ(expiries().values, (std::vector<int>{0, 1, 3}));
  }
  for (const timer_t timer : {late, disarmed, early, at_once}) EXPECT_EQ(timer_delete(timer), 0);
}

TEST(EmulatedTimers, FailAsToldAndForUnknownHandles) {
  const timer_t timer = make_timer(9);
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD;
  event.sigev_notify_function = record_expiry;
  timer_t another{};
  fail_next_timer_create();
  EXPECT_EQ(timer_create(CLOCK_REALTIME, &event, &another), -1);
  fail_next_timer_settime();
  EXPECT_EQ(arm(timer, 100), -1);
  EXPECT_EQ(timer_delete(timer), 0);
  EXPECT_EQ(arm(timer, 100), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(timer_delete(timer), -1);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
}  // namespace kiv::test
