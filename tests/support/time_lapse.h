// Time under the tests' control: while a TimeLapse lives, the clock of the whole process runs
// faster, and with it everything that the code under test waits by. The functions are replaced at
// link time, in every object of the test binary; calls that stay inside shared libraries are not.
// POSIX timers are always the replacement, lapse or not, because ThreadSanitizer cannot follow the
// threads that the C library makes for them. Made and ended while no thread is in a timed wait;
// everything else from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace kiv::test {

// Makes the monotonic and the realtime clock run `factor` times faster. A wait until a point of
// that time ends at the corresponding real moment, a sleep and a poll take the factor's part of
// their length.
// Neither clock jumps when a lapse starts or ends. A condition variable's pthread_cond_timedwait
// counts as realtime.
class TimeLapse {
 public:
  explicit TimeLapse(int64_t factor);
  ~TimeLapse();
  TimeLapse(const TimeLapse&) = delete;
  TimeLapse& operator=(const TimeLapse&) = delete;

  // The lengths asked of sleep, usleep, nanosleep and relative clock_nanosleep by any thread since
  // this lapse started, in the order of the calls.
  std::vector<std::chrono::nanoseconds> slept() const;

 private:
  int64_t outer_factor_;
  size_t first_sleep_;
};

// How long the calling thread has been in timed waits, by the clock that it sees. A wait that ended
// by its deadline counts up to there, however much later the thread came to run: what a busy
// machine adds, and a lapse makes long, does not count.
std::chrono::nanoseconds waited();

// The next timer_create, or timer_settime, of any thread fails with EAGAIN.
void fail_next_timer_create();
void fail_next_timer_settime();

}  // namespace kiv::test
