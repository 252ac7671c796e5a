#include "tests/support/virtual_time.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <future>
#include <latch>
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

// The names of what threads came by, in the order in which they came.
class Meeting {
 public:
  void comes(const std::string& name) {
    const std::lock_guard lock(mutex_);
    names_ += name + " ";
  }
  std::string names() {
    const std::lock_guard lock(mutex_);
    return names_;
  }

 private:
  std::mutex mutex_;
  std::string names_;
};

TEST(VirtualTime, ThreadsMeetInTheOrderOfTheirDeadlines) {
  Meeting meeting;
  sem_t done;
  sem_init(&done, 0, 0);
  std::latch both(2);
  std::thread slow([&] {
    sleep(2);
    meeting.comes("slow");
    both.count_down();
  });
  std::thread fast([&] {
    sleep(1);
    meeting.comes("fast");
    both.count_down();
    sem_post(&done);
  });
  auto later = std::async(std::launch::async, [&] {
    both.wait();
    meeting.comes("both");
    return 7;
  });
  while (sem_wait(&done) != 0) {
  }
  meeting.comes("done");
  EXPECT_EQ(later.get(), 7);
  EXPECT_EQ(meeting.names(), "fast done slow both ");
  slow.join();
  fast.join();
  sem_destroy(&done);
}

TEST(VirtualTime, TimersCallBackOnceUnlessTheyAreStoppedFirst) {
  static Meeting& fired = *new Meeting;
  const auto start = [](int number, time_t seconds) {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_value.sival_int = number;
    event.sigev_notify_function = [](sigval value) {
      fired.comes(std::to_string(value.sival_int));
    };
    timer_t timer{};
    EXPECT_EQ(timer_create(CLOCK_REALTIME, &event, &timer), 0);
    const itimerspec expiry{.it_interval = {}, .it_value = {.tv_sec = seconds, .tv_nsec = 0}};
    EXPECT_EQ(timer_settime(timer, 0, &expiry, nullptr), 0);
    return timer;
  };
  timer_t first = start(1, 3);
  timer_t second = start(2, 3);
  timer_t stopped = start(3, 1);
  EXPECT_EQ(timer_delete(stopped), 0);
  sleep(3);  // it was asked for after the timers
  EXPECT_EQ(fired.names(), "1 2 ");
  for (timer_t timer : {first, second}) EXPECT_EQ(timer_delete(timer), 0);
}

TEST(VirtualTime, ShuffledThreadsMeetInManyOrders) {
  std::set<std::string> orders;
  for (uint64_t seed = 1; seed <= 40; ++seed) {
    const Shuffle shuffle(seed);
    Meeting meeting;
    std::vector<std::thread> threads;
    for (const char* name : {"a", "b", "c"}) {
      threads.emplace_back([&meeting, name] {
        for (int i = 0; i < 2; ++i) meeting.comes(name);
      });
    }
    for (std::thread& thread : threads) thread.join();
    orders.insert(meeting.names());
  }
  EXPECT_GT(orders.size(), 15u);
}

}  // namespace
}  // namespace kiv::test
