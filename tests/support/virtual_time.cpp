#include "tests/support/virtual_time.h"

#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

// This file is compiled without sanitizers, and what it shares between threads belongs to the one
// that runs: it needs no lock of its own, and none that ThreadSanitizer would see.

namespace kiv::test {

// Raw, because ThreadSanitizer must not take this for an order of the code under test.
long real_syscall(long number, ...) asm("__real_syscall");

namespace {

long poll_unseen(pollfd* descriptors, nfds_t count, int milliseconds) {
  timespec limit{.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1'000'000L};
  return real_syscall(SYS_ppoll, descriptors, count, &limit, nullptr, 0);
}

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kNever = INT64_MAX;
// What the two clocks show at the start.
constexpr int64_t kMonotonicStart = 1000 * kSecond;
constexpr int64_t kRealtimeStart = 1'700'000'000 * kSecond;
// How long descriptors are watched before time goes on: the kernel's own time to pass bytes on.
constexpr int kDescriptorPatienceMs = 100;
constexpr int kThreadsMax = 512;

struct Thread {
  bool used;
  bool ready;
  int turn;  // a futex word: 1 when the thread is the one to run
  int number;
  uint64_t order;   // of becoming ready, or of having asked for the deadline
  const void* key;  // what it waits for
  int64_t deadline;
  bool timed_out;
  pollfd* descriptors;  // of a poll
  nfds_t descriptor_count;
  pthread_t handle;
  void* (*routine)(void*);
  void* argument;
};

Thread g_threads[kThreadsMax];
int g_threads_end = 0;  // no thread stands there or behind
int g_last_number = 0;
uint64_t g_last_order = 0;
int64_t g_now = 0;
uint64_t g_shuffle = 0;  // the state of the random numbers, 0 for none
bool g_fail_timer_create = false;
bool g_fail_timer_settime = false;
int g_starts_until_failure = -1;

thread_local Thread* g_self = nullptr;

uint64_t random_number() {
  g_shuffle ^= g_shuffle << 13;
  g_shuffle ^= g_shuffle >> 7;
  g_shuffle ^= g_shuffle << 17;
  return g_shuffle;
}

[[noreturn]] void die(const char* text) {
  fprintf(stderr, "virtual time: %s\n", text);
  abort();
}

Thread* add_thread() {
  int i = 0;
  while (i < kThreadsMax && g_threads[i].used) ++i;
  if (i == kThreadsMax) die("too many threads");
  if (i >= g_threads_end) g_threads_end = i + 1;
  g_threads[i] = Thread{};
  g_threads[i].used = true;
  g_threads[i].deadline = kNever;
  return &g_threads[i];
}

void make_ready(Thread& thread, bool timed_out) {
  thread.ready = true;
  thread.timed_out = timed_out;
  thread.key = nullptr;
  thread.deadline = kNever;
  thread.descriptors = nullptr;
  thread.order = ++g_last_order;
}

// Wakes up to `count` of those that wait for the key, the longest waiting first.
int wake(const void* key, int count) {
  int woken = 0;
  while (woken < count) {
    Thread* first = nullptr;
    for (int i = 0; i < g_threads_end; ++i) {
      Thread& each = g_threads[i];
      if (each.used && !each.ready && each.key == key && (!first || each.order < first->order)) {
        first = &each;
      }
    }
    if (first == nullptr) break;
    make_ready(*first, false);
    ++woken;
  }
  return woken;
}

Thread* next_ready() {
  Thread* next = nullptr;
  uint64_t seen = 0;
  for (int i = 0; i < g_threads_end; ++i) {
    Thread& each = g_threads[i];
    if (!each.used || !each.ready) continue;
    ++seen;
    if (next == nullptr ||
        (g_shuffle != 0 ? random_number() % seen == 0 : each.order < next->order)) {
      next = &each;
    }
  }
  return next;
}

// Makes those ready whose poll has something; true when there are any.
bool look_at_descriptors(int milliseconds, bool* any) {
  pollfd all[64];
  nfds_t count = 0;
  for (int i = 0; i < g_threads_end; ++i) {
    const Thread& each = g_threads[i];
    for (nfds_t j = 0; each.used && !each.ready && each.descriptors && j < each.descriptor_count;
         ++j) {
      if (count < 64) all[count++] = each.descriptors[j];
    }
  }
  *any = count != 0;
  if (count == 0 || poll_unseen(all, count, milliseconds) <= 0) return false;
  for (int i = 0; i < g_threads_end; ++i) {
    Thread& each = g_threads[i];
    if (each.used && !each.ready && each.descriptors != nullptr &&
        poll_unseen(each.descriptors, each.descriptor_count, 0) > 0) {
      make_ready(each, false);
    }
  }
  return true;
}

// The thread that runs next. The clock goes on only when none is ready.
Thread& choose_next() {
  for (;;) {
    if (Thread* const ready = next_ready()) return *ready;
    bool descriptors = false;
    if (look_at_descriptors(kDescriptorPatienceMs, &descriptors)) continue;
    Thread* first = nullptr;
    for (int i = 0; i < g_threads_end; ++i) {
      Thread& each = g_threads[i];
      if (!each.used || each.deadline == kNever) continue;
      if (first == nullptr || each.deadline < first->deadline ||
          (each.deadline == first->deadline && each.order < first->order)) {
        first = &each;
      }
    }
    if (first != nullptr) {
      const int64_t deadline = first->deadline;
      g_now = std::max(g_now, deadline);
      make_ready(*first, true);
      // Shuffled, those of one moment run in any order.
      for (int i = 0; i < g_threads_end && g_shuffle != 0; ++i) {
        if (g_threads[i].used && g_threads[i].deadline == deadline) make_ready(g_threads[i], true);
      }
    } else if (!descriptors) {
      die("every thread waits for another one");
    }
  }
}

// Waiting and waking leave errno as it was: the code under test may show it.
class KeptErrno {
 public:
  ~KeptErrno() { errno = kept_; }

 private:
  const int kept_ = errno;
};

void hand_over_to(Thread& next) {
  const KeptErrno kept;
  __atomic_store_n(&next.turn, 1, __ATOMIC_RELEASE);
  real_syscall(SYS_futex, &next.turn, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void await_turn(Thread& self) {
  const KeptErrno kept;
  while (__atomic_load_n(&self.turn, __ATOMIC_ACQUIRE) == 0) {
    real_syscall(SYS_futex, &self.turn, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
  }
  __atomic_store_n(&self.turn, 0, __ATOMIC_RELAXED);
  self.ready = false;
}

void let_others_run(Thread& self) {
  Thread& next = choose_next();
  if (&next != &self) {
    hand_over_to(next);
    await_turn(self);
  } else {
    self.ready = false;
  }
}

// Waits until somebody wakes the key or the deadline comes; true for the deadline. Of two threads
// with one deadline the one with the lower order runs first.
bool wait_for(const void* key, int64_t deadline, uint64_t order = ++g_last_order) {
  Thread& self = *g_self;
  self.key = key;
  self.deadline = deadline;
  self.order = order;
  let_others_run(self);
  return self.timed_out;
}

void sleep_until(int64_t deadline) {
  wait_for(nullptr, deadline);
}

// A moment at which threads may change when they are shuffled.
void shuffle_here() {
  if (g_shuffle == 0 || g_self == nullptr || random_number() % 4 != 0) return;
  make_ready(*g_self, false);
  let_others_run(*g_self);
}

void* run_thread(void* argument) {
  Thread& self = *static_cast<Thread*>(argument);
  g_self = &self;
  await_turn(self);
  void* const result = self.routine(self.argument);
  wake(&self, INT_MAX);
  self.used = false;
  g_self = nullptr;
  hand_over_to(choose_next());
  return result;
}

// The first thread, whatever it calls first.
[[gnu::constructor]] void take_first_thread() {
  g_self = add_thread();
  g_self->handle = pthread_self();
}

int64_t to_nanoseconds(const timespec& time) {
  return time.tv_sec > kNever / kSecond - 1 ? kNever : time.tv_sec * kSecond + time.tv_nsec;
}

timespec to_timespec(int64_t nanoseconds) {
  return {.tv_sec = nanoseconds / kSecond, .tv_nsec = nanoseconds % kSecond};
}

bool is_valid(const timespec* time) {
  return time != nullptr && time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < kSecond;
}

bool is_virtual(clockid_t clock) {
  return clock == CLOCK_MONOTONIC || clock == CLOCK_REALTIME;
}

int64_t start_of(clockid_t clock) {
  return clock == CLOCK_REALTIME ? kRealtimeStart : kMonotonicStart;
}

int64_t deadline_of(clockid_t clock, const timespec& time) {
  const int64_t value = to_nanoseconds(time);
  return value == kNever ? kNever : value - start_of(clock);
}

int fail(int error) {
  errno = error;
  return -1;
}

// An armed timer is a thread that sleeps. It owns this record; the timer points at it until the
// thread is about to call back.
struct Armed {
  void (*callback)(sigval);
  sigval value;
  int64_t deadline;
  uint64_t order;
  bool cancelled;
  Thread* thread;
  struct Timer* timer;
};

struct Timer {
  bool used;
  void (*callback)(sigval);
  sigval value;
  Armed* armed;
};

constexpr int kTimersMax = 4096;
Timer g_timers[kTimersMax];

// Handles are the timers' numbers, from 1 on.
Timer* timer_of(timer_t handle) {
  const auto number = reinterpret_cast<intptr_t>(handle);
  if (number < 1 || number > kTimersMax || !g_timers[number - 1].used) return nullptr;
  return &g_timers[number - 1];
}

void* run_timer(void* argument) {
  Armed* const armed = static_cast<Armed*>(argument);
  if (!armed->cancelled) wait_for(armed, armed->deadline, armed->order);
  if (!armed->cancelled) {
    armed->timer->armed = nullptr;
    armed->callback(armed->value);
  }
  free(armed);
  return nullptr;
}

// Its thread ends at once, before anything else runs: a thread less for each timer that is stopped.
void disarm(Timer& timer) {
  if (timer.armed == nullptr) return;
  Thread& sleeper = *timer.armed->thread;
  timer.armed->cancelled = true;
  timer.armed = nullptr;
  make_ready(*g_self, false);
  g_self->order = 0;
  hand_over_to(sleeper);
  await_turn(*g_self);
}

}  // namespace

// What the linker's --wrap leaves of the libraries, and what takes its place.
#define KIV_WRAPPED(name)                            \
  decltype(::name) real_##name asm("__real_" #name); \
  decltype(::name) virtual_##name asm("__wrap_" #name)
KIV_WRAPPED(pthread_create);
KIV_WRAPPED(pthread_join);
KIV_WRAPPED(pthread_mutex_lock);
KIV_WRAPPED(pthread_mutex_unlock);
KIV_WRAPPED(pthread_cond_wait);
KIV_WRAPPED(pthread_cond_timedwait);
KIV_WRAPPED(pthread_cond_clockwait);
KIV_WRAPPED(pthread_cond_signal);
KIV_WRAPPED(pthread_cond_broadcast);
KIV_WRAPPED(sem_wait);
KIV_WRAPPED(sem_post);
KIV_WRAPPED(sleep);
KIV_WRAPPED(usleep);
KIV_WRAPPED(nanosleep);
KIV_WRAPPED(clock_nanosleep);
KIV_WRAPPED(clock_gettime);
KIV_WRAPPED(poll);
KIV_WRAPPED(timer_create);
KIV_WRAPPED(timer_settime);
KIV_WRAPPED(timer_delete);
#undef KIV_WRAPPED
long virtual_syscall(long number, long a, long b, long c, long d, long e,
                     long f) asm("__wrap_syscall");
void virtual_thread_start(std::thread* thread, std::unique_ptr<std::thread::_State> state, void (*)()) asm(
    "__wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE");
void real_thread_join(std::thread* thread) asm("__real__ZNSt6thread4joinEv");
// Aligned as members are: pointers to members keep a flag in the lowest bit.
[[gnu::aligned(16)]] void virtual_thread_join(std::thread* thread) asm(
    "__wrap__ZNSt6thread4joinEv");
void virtual_condition_wait(
    std::condition_variable* condition,
    std::unique_lock<std::mutex>&
        lock) asm("__wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE");
void virtual_notify_one(std::condition_variable* condition) noexcept
    asm("__wrap__ZNSt18condition_variable10notify_oneEv");
void virtual_notify_all(std::condition_variable* condition) noexcept
    asm("__wrap__ZNSt18condition_variable10notify_allEv");
#define KIV_FUTEX_WAIT(name, mangled)                                                       \
  bool name(                                                                                \
      void* self, unsigned* word, unsigned value, bool has_timeout, std::chrono::seconds s, \
      std::chrono::nanoseconds                                                              \
          ns) asm("__wrap__ZNSt28__atomic_futex_unsigned_base" mangled                      \
                  "EPjjbNSt6chrono8durationIlSt5ratioILl1ELl1EEEENS2_IlS3_ILl1ELl1000000000EEEE")
KIV_FUTEX_WAIT(virtual_futex_wait_until, "19_M_futex_wait_until");
KIV_FUTEX_WAIT(virtual_futex_wait_until_steady, "26_M_futex_wait_until_steady");
#undef KIV_FUTEX_WAIT
void virtual_futex_notify_all(unsigned* word) asm(
    "__wrap__ZNSt28__atomic_futex_unsigned_base19_M_futex_notify_allEPj");
std::chrono::steady_clock::time_point virtual_steady_now() noexcept
    asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::system_clock::time_point virtual_system_now() noexcept
    asm("__wrap__ZNSt6chrono3_V212system_clock3nowEv");

std::chrono::nanoseconds virtual_now() {
  return std::chrono::nanoseconds(g_now);
}

int thread_number() {
  return g_self != nullptr ? g_self->number : -1;
}

Shuffle::Shuffle(uint64_t seed) {
  g_shuffle = seed * 2 + 1;
}

Shuffle::~Shuffle() {
  g_shuffle = 0;
}

void fail_next_timer_create() {
  g_fail_timer_create = true;
}
void fail_next_timer_settime() {
  g_fail_timer_settime = true;
}
void fail_next_pthread_create(int after) {
  g_starts_until_failure = after;
}

// ---- threads ----

// Null without memory for one more.
Thread* start_thread(const pthread_attr_t* attributes, void* (*routine)(void*), void* argument) {
  Thread* const added = add_thread();
  added->number = ++g_last_number;
  added->routine = routine;
  added->argument = argument;
  make_ready(*added, false);
  if (real_pthread_create(&added->handle, attributes, run_thread, added) == 0) return added;
  added->used = false;
  return nullptr;
}

int virtual_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                           void* (*routine)(void*), void* argument) noexcept {
  if (g_starts_until_failure >= 0 && g_starts_until_failure-- == 0) return EAGAIN;
  const Thread* const added = start_thread(attributes, routine, argument);
  if (added == nullptr) return EAGAIN;
  *thread = added->handle;
  return 0;
}

void virtual_thread_start(std::thread* thread, std::unique_ptr<std::thread::_State> state,
                          void (*)()) {
  const auto run = [](void* argument) -> void* {
    const std::unique_ptr<std::thread::_State> owned(static_cast<std::thread::_State*>(argument));
    owned->_M_run();
    return nullptr;
  };
  static_assert(sizeof(std::thread) == sizeof(pthread_t));
  if (virtual_pthread_create(reinterpret_cast<pthread_t*>(thread), nullptr, run, state.get()) !=
      0) {
    die("no thread");
  }
  state.release();
}

void wait_for_end_of(pthread_t thread) {
  for (int i = 0; i < g_threads_end; ++i) {
    Thread& each = g_threads[i];
    if (each.used && pthread_equal(each.handle, thread) != 0) {
      wait_for(&each, kNever);
      return;
    }
  }
}

int virtual_pthread_join(pthread_t thread, void** result) {
  wait_for_end_of(thread);
  return real_pthread_join(thread, result);
}

void virtual_thread_join(std::thread* thread) {
  wait_for_end_of(thread->native_handle());
  real_thread_join(thread);
}

// ---- locks, conditions, semaphores, futures ----

int virtual_pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  if (g_self == nullptr) return real_pthread_mutex_lock(mutex);
  shuffle_here();
  int result = 0;
  while ((result = pthread_mutex_trylock(mutex)) == EBUSY) wait_for(mutex, kNever);
  return result;
}

int virtual_pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  const int result = real_pthread_mutex_unlock(mutex);
  if (g_self != nullptr) {
    wake(mutex, INT_MAX);
    shuffle_here();
  }
  return result;
}

int wait_on_condition(const void* cond, pthread_mutex_t* mutex, int64_t deadline) {
  real_pthread_mutex_unlock(mutex);
  wake(mutex, INT_MAX);
  const bool timed_out = wait_for(cond, deadline);
  virtual_pthread_mutex_lock(mutex);
  return timed_out ? ETIMEDOUT : 0;
}

int virtual_pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  return wait_on_condition(cond, mutex, kNever);
}

int virtual_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                   const timespec* deadline) {
  return wait_on_condition(cond, mutex, deadline_of(CLOCK_REALTIME, *deadline));
}

int virtual_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                                   const timespec* deadline) {
  return wait_on_condition(cond, mutex, deadline_of(clock, *deadline));
}

int virtual_pthread_cond_signal(pthread_cond_t* cond) noexcept {
  wake(cond, 1);
  return 0;
}

int virtual_pthread_cond_broadcast(pthread_cond_t* cond) noexcept {
  wake(cond, INT_MAX);
  return 0;
}

void virtual_condition_wait(std::condition_variable* condition,
                            std::unique_lock<std::mutex>& lock) {
  wait_on_condition(condition, lock.mutex()->native_handle(), kNever);
}

void virtual_notify_one(std::condition_variable* condition) noexcept {
  wake(condition, 1);
}

void virtual_notify_all(std::condition_variable* condition) noexcept {
  wake(condition, INT_MAX);
}

bool wait_on_futex(const unsigned* word, unsigned value, int64_t deadline) {
  return __atomic_load_n(word, __ATOMIC_RELAXED) != value || !wait_for(word, deadline);
}

bool virtual_futex_wait_until(void*, unsigned* word, unsigned value, bool has_timeout,
                              std::chrono::seconds s, std::chrono::nanoseconds ns) {
  const int64_t until = s.count() * kSecond + ns.count() - kRealtimeStart;
  return wait_on_futex(word, value, has_timeout ? until : kNever);
}

bool virtual_futex_wait_until_steady(void*, unsigned* word, unsigned value, bool has_timeout,
                                     std::chrono::seconds s, std::chrono::nanoseconds ns) {
  const int64_t until = s.count() * kSecond + ns.count() - kMonotonicStart;
  return wait_on_futex(word, value, has_timeout ? until : kNever);
}

void virtual_futex_notify_all(unsigned* word) {
  wake(word, INT_MAX);
}

// The waits of std::atomic, and what is built on it.
long virtual_syscall(long number, long a, long b, long c, long d, long e, long f) {
  const long operation = b & ~static_cast<long>(FUTEX_PRIVATE_FLAG);
  if (number != SYS_futex || g_self == nullptr) return real_syscall(number, a, b, c, d, e, f);
  const auto* const word = reinterpret_cast<const unsigned*>(a);
  if (operation == FUTEX_WAKE) return wake(word, static_cast<int>(c));
  if (operation != FUTEX_WAIT || d != 0) die("a futex call that is not replaced");
  wait_on_futex(word, static_cast<unsigned>(c), kNever);
  return 0;
}

int virtual_sem_wait(sem_t* semaphore) {
  while (sem_trywait(semaphore) != 0) wait_for(semaphore, kNever);
  return 0;
}

int virtual_sem_post(sem_t* semaphore) noexcept {
  const int result = real_sem_post(semaphore);
  wake(semaphore, 1);
  return result;
}

// ---- clock, sleeps, polls ----

unsigned int virtual_sleep(unsigned int seconds) {
  sleep_until(g_now + int64_t{seconds} * kSecond);
  return 0;
}

int virtual_usleep(useconds_t microseconds) {
  sleep_until(g_now + int64_t{microseconds} * 1000);
  return 0;
}

int virtual_nanosleep(const timespec* requested, timespec*) {
  if (!is_valid(requested)) return fail(EINVAL);
  const int64_t length = to_nanoseconds(*requested);
  sleep_until(length > kNever - g_now ? kNever : g_now + length);
  return 0;
}

int virtual_clock_nanosleep(clockid_t clock, int flags, const timespec* requested, timespec*) {
  if (!is_valid(requested) || !is_virtual(clock)) return EINVAL;
  if ((flags & TIMER_ABSTIME) == 0) return virtual_nanosleep(requested, nullptr);
  if (deadline_of(clock, *requested) > g_now) sleep_until(deadline_of(clock, *requested));
  return 0;
}

int virtual_clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (!is_virtual(clock)) return real_clock_gettime(clock, now);
  *now = to_timespec(start_of(clock) + g_now);
  return 0;
}

std::chrono::steady_clock::time_point virtual_steady_now() noexcept {
  return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(kMonotonicStart + g_now));
}

std::chrono::system_clock::time_point virtual_system_now() noexcept {
  return std::chrono::system_clock::time_point(std::chrono::nanoseconds(kRealtimeStart + g_now));
}

int virtual_poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  const int64_t deadline = milliseconds < 0 ? kNever : g_now + int64_t{milliseconds} * 1'000'000;
  for (;;) {
    const int result = real_poll(descriptors, count, 0);
    if (result != 0 || g_now >= deadline) return result;
    g_self->descriptors = descriptors;
    g_self->descriptor_count = count;
    wait_for(nullptr, deadline);
  }
}

// ---- timers ----

// Timers call back on a thread or not at all, and expire once: nothing else is in use.
int virtual_timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
  if (g_fail_timer_create) {
    g_fail_timer_create = false;
    return fail(EAGAIN);
  }
  if (!is_virtual(clock) || event == nullptr || event->sigev_notify != SIGEV_THREAD ||
      event->sigev_notify_function == nullptr) {
    return fail(EINVAL);
  }
  int i = 0;
  while (i < kTimersMax && g_timers[i].used) ++i;
  if (i == kTimersMax) die("too many timers");
  g_timers[i] = {.used = true,
                 .callback = event->sigev_notify_function,
                 .value = event->sigev_value,
                 .armed = nullptr};
  *timer = reinterpret_cast<timer_t>(intptr_t{i + 1});
  return 0;
}

int virtual_timer_settime(timer_t handle, int flags, const itimerspec* value,
                          itimerspec* old_value) noexcept {
  if (g_fail_timer_settime) {
    g_fail_timer_settime = false;
    return fail(EAGAIN);
  }
  Timer* const timer = timer_of(handle);
  if (timer == nullptr || flags != 0 || value == nullptr || old_value != nullptr ||
      !is_valid(&value->it_value) || to_nanoseconds(value->it_interval) != 0) {
    return fail(EINVAL);
  }
  disarm(*timer);
  const int64_t length = to_nanoseconds(value->it_value);
  if (length == 0) return 0;
  auto* const armed = static_cast<Armed*>(calloc(1, sizeof(Armed)));
  *armed = {.callback = timer->callback,
            .value = timer->value,
            .deadline = length > kNever - g_now ? kNever : g_now + length,
            .order = ++g_last_order,
            .cancelled = false,
            .thread = start_thread(nullptr, run_timer, armed),
            .timer = timer};
  if (armed->thread == nullptr) die("no thread");
  timer->armed = armed;
  pthread_detach(armed->thread->handle);
  return 0;
}

int virtual_timer_delete(timer_t handle) noexcept {
  Timer* const timer = timer_of(handle);
  if (timer == nullptr) return fail(EINVAL);
  disarm(*timer);
  timer->used = false;
  return 0;
}

}  // namespace kiv::test
