#include "tests/support/time_lapse.h"

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace kiv::test {

// What the linker's --wrap leaves of the C library.
int real_nanosleep(const timespec* requested, timespec* remaining) asm("__real_nanosleep");
int real_clock_nanosleep(clockid_t clock, int flags, const timespec* requested,
                         timespec* remaining) asm("__real_clock_nanosleep");
int real_clock_gettime(clockid_t clock, timespec* now) asm("__real_clock_gettime");
int real_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                        const timespec* deadline) asm("__real_pthread_cond_clockwait");
int real_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                        const timespec* deadline) asm("__real_pthread_cond_timedwait");
int real_sem_timedwait(sem_t* semaphore, const timespec* deadline) asm("__real_sem_timedwait");
int real_poll(pollfd* descriptors, nfds_t count, int milliseconds) asm("__real_poll");

// What takes its place.
unsigned int lapsed_sleep(unsigned int seconds) asm("__wrap_sleep");
int lapsed_usleep(useconds_t microseconds) asm("__wrap_usleep");
int lapsed_nanosleep(const timespec* requested, timespec* remaining) asm("__wrap_nanosleep");
int lapsed_clock_nanosleep(clockid_t clock, int flags, const timespec* requested,
                           timespec* remaining) asm("__wrap_clock_nanosleep");
int lapsed_clock_gettime(clockid_t clock, timespec* now) asm("__wrap_clock_gettime");
std::chrono::steady_clock::time_point lapsed_steady_now() noexcept
    asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::system_clock::time_point lapsed_system_now() noexcept
    asm("__wrap__ZNSt6chrono3_V212system_clock3nowEv");
int lapsed_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                          const timespec* deadline) asm("__wrap_pthread_cond_clockwait");
int lapsed_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                          const timespec* deadline) asm("__wrap_pthread_cond_timedwait");
int lapsed_sem_timedwait(sem_t* semaphore, const timespec* deadline) asm("__wrap_sem_timedwait");
int lapsed_sem_clockwait(sem_t* semaphore, clockid_t clock,
                         const timespec* deadline) asm("__wrap_sem_clockwait");
int lapsed_poll(pollfd* descriptors, nfds_t count, int milliseconds) asm("__wrap_poll");
int emulated_timer_create(clockid_t clock, sigevent* event,
                          timer_t* timer) asm("__wrap_timer_create");
int emulated_timer_settime(timer_t timer, int flags, const itimerspec* value,
                           itimerspec* old_value) asm("__wrap_timer_settime");
int emulated_timer_delete(timer_t timer) asm("__wrap_timer_delete");

namespace {

constexpr int64_t kSecond = 1'000'000'000;
// Deadlines beyond this many seconds are "never": far enough, and safe to multiply.
constexpr time_t kNever = 8'000'000'000;

int64_t to_nanoseconds(const timespec& time) {
  return std::clamp<time_t>(time.tv_sec, -kNever, kNever) * kSecond + time.tv_nsec;
}

timespec to_timespec(int64_t nanoseconds) {
  return {.tv_sec = nanoseconds / kSecond, .tv_nsec = nanoseconds % kSecond};
}

bool is_valid(const timespec* time) {
  return time != nullptr && time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < kSecond;
}

// Rounded up, so that whoever waits is never woken before the time it waits for.
int64_t divide_up(int64_t value, int64_t divisor) {
  return value / divisor + (value % divisor > 0 ? 1 : 0);
}

int64_t real_now(clockid_t clock) {
  timespec now{};
  real_clock_gettime(clock, &now);
  return to_nanoseconds(now);
}

// A straight line from real time to the time that the process sees.
struct ClockLine {
  int64_t real_base = 0;
  int64_t seen_base = 0;
};

// Both clocks since the last change of the factor. Never changed once it is in use and never
// freed: a new one keeps the old one reachable.
struct ClockMap {
  int64_t factor = 1;
  ClockLine monotonic{};
  ClockLine realtime{};
  const ClockMap* previous = nullptr;

  const ClockLine& line(clockid_t clock) const {
    return clock == CLOCK_REALTIME ? realtime : monotonic;
  }
  int64_t seen(clockid_t clock, int64_t real) const {
    return line(clock).seen_base + (real - line(clock).real_base) * factor;
  }
  int64_t real(clockid_t clock, int64_t seen) const {
    return line(clock).real_base + divide_up(seen - line(clock).seen_base, factor);
  }
};

constinit ClockMap g_real_time;
constinit std::atomic<const ClockMap*> g_clock_map{&g_real_time};
constinit std::atomic<int> g_lapses{0};
constinit std::atomic<bool> g_fail_timer_create{false};
constinit std::atomic<bool> g_fail_timer_settime{false};

const ClockMap& clock_map() {
  return *g_clock_map.load(std::memory_order_acquire);
}

bool is_lapsed(clockid_t clock) {
  return clock == CLOCK_MONOTONIC || clock == CLOCK_REALTIME;
}

int64_t seen_now(clockid_t clock) {
  return clock_map().seen(clock, real_now(clock));
}

thread_local int64_t g_waited = 0;

// A timed wait of this thread, for waited(). The deadline is of the seen time.
struct TimedWait {
  ~TimedWait() { g_waited += std::max<int64_t>(std::min(seen_now(clock), deadline) - begin, 0); }

  clockid_t clock;
  int64_t deadline;
  int64_t begin = seen_now(clock);
};

// The real deadline of a deadline of the seen time; one that is not valid stays so.
timespec real_deadline(clockid_t clock, const timespec& seen) {
  if (!is_valid(&seen)) return seen;
  return to_timespec(std::max<int64_t>(clock_map().real(clock, to_nanoseconds(seen)), 0));
}

struct Timer {
  void (*callback)(sigval);
  sigval value;
  std::chrono::steady_clock::time_point expiry;
  bool armed = false;
};

// Never destroyed: threads that sleep, and the timers' own, may outlive main.
struct SharedState {
  std::mutex mutex;
  std::condition_variable changed;  // a timer or the factor
  std::vector<std::chrono::nanoseconds> sleeps;
  std::map<timer_t, Timer> timers;
  uintptr_t last_timer = 0;
};

SharedState& shared_state() {
  static SharedState& state = *new SharedState;
  return state;
}

void record_sleep(int64_t nanoseconds) {
  if (g_lapses.load() == 0) return;
  SharedState& state = shared_state();
  const std::lock_guard lock(state.mutex);
  state.sleeps.emplace_back(nanoseconds);
}

// Sleeps the factor's part of `nanoseconds`. 0, or -1 and errno with the rest in `*remaining`.
int sleep_for(int64_t nanoseconds, int64_t* remaining) {
  record_sleep(nanoseconds);
  const TimedWait wait{CLOCK_MONOTONIC, seen_now(CLOCK_MONOTONIC) + nanoseconds};
  const int64_t factor = clock_map().factor;
  const timespec real = to_timespec(divide_up(nanoseconds, factor));
  timespec left{};
  const int result = real_nanosleep(&real, &left);
  *remaining = to_nanoseconds(left) * factor;
  return result;
}

void change_factor(int64_t factor) {
  SharedState& state = shared_state();
  const std::lock_guard lock(state.mutex);
  const ClockMap& present = clock_map();
  const auto from_now = [&present](clockid_t clock) {
    const int64_t now = real_now(clock);
    return ClockLine{.real_base = now, .seen_base = present.seen(clock, now)};
  };
  g_clock_map.store(new ClockMap{.factor = factor,
                                 .monotonic = from_now(CLOCK_MONOTONIC),
                                 .realtime = from_now(CLOCK_REALTIME),
                                 .previous = &present},
                    std::memory_order_release);
  state.changed.notify_all();
}

// Runs every callback that is due on a thread of its own, for ever. The wait below goes through
// the replaced functions and so keeps the seen time.
void run_timers() {
  SharedState& state = shared_state();
  std::unique_lock lock(state.mutex);
  for (;;) {
    Timer* next = nullptr;
    for (auto& [handle, timer] : state.timers) {
      if (timer.armed && (next == nullptr || timer.expiry < next->expiry)) next = &timer;
    }
    if (next == nullptr) {
      state.changed.wait(lock);
    } else if (const auto expiry = next->expiry; expiry > std::chrono::steady_clock::now()) {
      state.changed.wait_until(lock, expiry);
    } else {
      next->armed = false;
      std::thread(next->callback, next->value).detach();
    }
  }
}

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

TimeLapse::TimeLapse(int64_t factor) : outer_factor_(clock_map().factor) {
  {
    SharedState& state = shared_state();
    const std::lock_guard lock(state.mutex);
    first_sleep_ = state.sleeps.size();
  }
  ++g_lapses;
  change_factor(factor);
}

TimeLapse::~TimeLapse() {
  change_factor(outer_factor_);
  --g_lapses;
}

std::vector<std::chrono::nanoseconds> TimeLapse::slept() const {
  SharedState& state = shared_state();
  const std::lock_guard lock(state.mutex);
  return {state.sleeps.begin() + static_cast<std::ptrdiff_t>(first_sleep_), state.sleeps.end()};
}

std::chrono::nanoseconds waited() {
  return std::chrono::nanoseconds(g_waited);
}

void fail_next_timer_create() {
  g_fail_timer_create = true;
}
void fail_next_timer_settime() {
  g_fail_timer_settime = true;
}

unsigned int lapsed_sleep(unsigned int seconds) {
  int64_t remaining = 0;
  if (sleep_for(seconds * kSecond, &remaining) == 0) return 0;
  return static_cast<unsigned int>(divide_up(remaining, kSecond));
}

int lapsed_usleep(useconds_t microseconds) {
  int64_t remaining = 0;
  return sleep_for(int64_t{microseconds} * 1000, &remaining);
}

int lapsed_nanosleep(const timespec* requested, timespec* remaining) {
  if (!is_valid(requested)) return fail(EINVAL);
  int64_t left = 0;
  const int result = sleep_for(to_nanoseconds(*requested), &left);
  if (result != 0 && remaining != nullptr) *remaining = to_timespec(left);
  return result;
}

int lapsed_clock_nanosleep(clockid_t clock, int flags, const timespec* requested,
                           timespec* remaining) {
  if (!is_lapsed(clock)) return real_clock_nanosleep(clock, flags, requested, remaining);
  if ((flags & TIMER_ABSTIME) == 0) {
    return lapsed_nanosleep(requested, remaining) == 0 ? 0 : errno;
  }
  const TimedWait wait{clock, to_nanoseconds(*requested)};
  const timespec deadline = real_deadline(clock, *requested);
  return real_clock_nanosleep(clock, flags, &deadline, remaining);
}

int lapsed_clock_gettime(clockid_t clock, timespec* now) {
  if (!is_lapsed(clock)) return real_clock_gettime(clock, now);
  *now = to_timespec(seen_now(clock));
  return 0;
}

std::chrono::steady_clock::time_point lapsed_steady_now() noexcept {
  return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(seen_now(CLOCK_MONOTONIC)));
}

std::chrono::system_clock::time_point lapsed_system_now() noexcept {
  return std::chrono::system_clock::time_point(std::chrono::nanoseconds(seen_now(CLOCK_REALTIME)));
}

int lapsed_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                          const timespec* deadline) {
  if (!is_lapsed(clock)) return real_cond_clockwait(cond, mutex, clock, deadline);
  const TimedWait wait{clock, to_nanoseconds(*deadline)};
  const timespec real = real_deadline(clock, *deadline);
  return real_cond_clockwait(cond, mutex, clock, &real);
}

int lapsed_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline) {
  const TimedWait wait{CLOCK_REALTIME, to_nanoseconds(*deadline)};
  const timespec real = real_deadline(CLOCK_REALTIME, *deadline);
  return real_cond_timedwait(cond, mutex, &real);
}

int lapsed_sem_timedwait(sem_t* semaphore, const timespec* deadline) {
  const TimedWait wait{CLOCK_REALTIME, to_nanoseconds(*deadline)};
  const timespec real = real_deadline(CLOCK_REALTIME, *deadline);
  return real_sem_timedwait(semaphore, &real);
}

// By way of sem_timedwait, because ThreadSanitizer does not know sem_clockwait.
int lapsed_sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) {
  if (!is_lapsed(clock)) return fail(EINVAL);
  const TimedWait wait{clock, to_nanoseconds(*deadline)};
  timespec real = real_deadline(clock, *deadline);
  if (clock == CLOCK_MONOTONIC && is_valid(&real)) {
    const int64_t offset = real_now(CLOCK_REALTIME) - real_now(CLOCK_MONOTONIC);
    real = to_timespec(to_nanoseconds(real) + offset);
  }
  return real_sem_timedwait(semaphore, &real);
}

int lapsed_poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  const TimedWait wait{CLOCK_MONOTONIC,
                       seen_now(CLOCK_MONOTONIC) + int64_t{milliseconds} * 1'000'000};
  const auto real = static_cast<int>(divide_up(milliseconds, clock_map().factor));
  return real_poll(descriptors, count, milliseconds < 0 ? milliseconds : real);
}

// Timers call back on a thread or not at all, and expire once: nothing else is in use.
int emulated_timer_create(clockid_t clock, sigevent* event, timer_t* timer) {
  if (g_fail_timer_create.exchange(false)) return fail(EAGAIN);
  if (!is_lapsed(clock) || event == nullptr || event->sigev_notify != SIGEV_THREAD ||
      event->sigev_notify_function == nullptr) {
    return fail(EINVAL);
  }
  SharedState& state = shared_state();
  const std::lock_guard lock(state.mutex);
  if (++state.last_timer == 1) std::thread(run_timers).detach();
  *timer = reinterpret_cast<timer_t>(state.last_timer);
  state.timers[*timer] = Timer{.callback = event->sigev_notify_function,
                               .value = event->sigev_value,
                               .expiry = {},
                               .armed = false};
  return 0;
}

int emulated_timer_settime(timer_t timer, int flags, const itimerspec* value,
                           itimerspec* old_value) {
  if (g_fail_timer_settime.exchange(false)) return fail(EAGAIN);
  SharedState& state = shared_state();
  const std::lock_guard lock(state.mutex);
  const auto found = state.timers.find(timer);
  if (found == state.timers.end() || flags != 0 || value == nullptr || old_value != nullptr ||
      !is_valid(&value->it_value) || to_nanoseconds(value->it_interval) != 0) {
    return fail(EINVAL);
  }
  const std::chrono::nanoseconds timeout(to_nanoseconds(value->it_value));
  found->second.armed = timeout.count() != 0;
  found->second.expiry = std::chrono::steady_clock::now() + timeout;
  state.changed.notify_all();
  return 0;
}

int emulated_timer_delete(timer_t timer) {
  SharedState& state = shared_state();
  const std::lock_guard lock(state.mutex);
  return state.timers.erase(timer) == 1 ? 0 : fail(EINVAL);
}

}  // namespace kiv::test
