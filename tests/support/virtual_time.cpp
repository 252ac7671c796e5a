#include "tests/support/virtual_time.h"

#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

// This file is compiled without sanitizers, and what it shares between threads belongs to the one
// that runs: it needs no lock of its own, and none that ThreadSanitizer would see.

namespace kiv::test {

using std::chrono::nanoseconds;
using std::chrono::seconds;

// Raw, because ThreadSanitizer must not take this for an order of the code under test.
long real_syscall(long number, ...) asm("__real_syscall");

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kNever = INT64_MAX;
// What the two clocks show at the start.
constexpr int64_t kMonotonicStart = 1000 * kSecond;
constexpr int64_t kRealtimeStart = 1'700'000'000 * kSecond;
// How long descriptors are watched before time goes on: the kernel's own time to pass bytes on.
constexpr int64_t kDescriptorPatience = kSecond / 10;

struct Thread {
  int number = 0;
  void* (*routine)(void*) = nullptr;
  void* argument = nullptr;
  pthread_t handle{};
  bool ready = false;
  int turn = 0;               // a futex word: 1 when the thread is the one to run
  uint64_t order = 0;         // of becoming ready, or of beginning to wait
  const void* key = nullptr;  // what it waits for
  int64_t deadline = kNever;
  bool timed_out = false;
  pollfd* descriptors = nullptr;  // of a poll
  nfds_t descriptor_count = 0;
};

int g_last_number = 0;
uint64_t g_last_order = 0;
int64_t g_now = 0;
uint64_t g_shuffle = 0;  // the state of the random numbers, 0 for none
bool g_fail_timer_create = false;
bool g_fail_timer_settime = false;
int g_starts_until_failure = -1;

thread_local Thread* g_self = nullptr;

// Never destroyed: detached threads may run after main has returned.
std::list<Thread>& threads() {
  static auto& all = *new std::list<Thread>;
  return all;
}

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

// Shuffled, each draws its place among those that are ready and keeps it until it runs: one that is
// held back long lets others finish whole operations in between.
void make_ready(Thread& thread, bool timed_out) {
  thread.ready = true;
  thread.timed_out = timed_out;
  thread.key = nullptr;
  thread.deadline = kNever;
  thread.descriptors = nullptr;
  thread.order = g_shuffle != 0 ? random_number() : ++g_last_order;
}

// The one with the lowest order of those that fit; null when none does.
template <class Fits>
Thread* first_that(Fits fits) {
  Thread* first = nullptr;
  for (Thread& each : threads()) {
    if (fits(each) && (first == nullptr || each.order < first->order)) first = &each;
  }
  return first;
}

// Wakes up to `count` of those that wait for the key, the longest waiting first.
int wake(const void* key, int count) {
  const auto waits = [key](const Thread& each) { return !each.ready && each.key == key; };
  int woken = 0;
  for (Thread* each = nullptr; woken < count && (each = first_that(waits)) != nullptr; ++woken) {
    make_ready(*each, false);
  }
  return woken;
}

// Makes a thread ready whose poll has something; true when there is one.
bool look_at_descriptors(bool* any) {
  for (Thread& each : threads()) {
    if (each.ready || each.descriptors == nullptr) continue;
    *any = true;
    timespec limit{.tv_sec = 0, .tv_nsec = kDescriptorPatience};
    if (real_syscall(SYS_ppoll, each.descriptors, each.descriptor_count, &limit, nullptr, 0) > 0) {
      make_ready(each, false);
      return true;
    }
  }
  return false;
}

// The thread that runs next. The clock goes on only when none is ready.
Thread& choose_next() {
  for (;;) {
    const auto is_ready = [](const Thread& each) { return each.ready; };
    if (Thread* const ready = first_that(is_ready)) return *ready;
    bool descriptors = false;
    if (look_at_descriptors(&descriptors)) continue;
    int64_t deadline = kNever;
    for (const Thread& each : threads()) deadline = std::min(deadline, each.deadline);
    if (deadline == kNever) {
      if (!descriptors) die("every thread waits for another one");
      continue;
    }
    g_now = std::max(g_now, deadline);
    const auto is_due = [deadline](const Thread& each) { return each.deadline == deadline; };
    make_ready(*first_that(is_due), true);
    // Shuffled, those of one moment run in any order.
    while (Thread* const due = g_shuffle != 0 ? first_that(is_due) : nullptr) {
      make_ready(*due, true);
    }
  }
}

// Waiting and waking leave errno as it was: the code under test may show it.
void hand_over_to(Thread& next) {
  const int kept = errno;
  __atomic_store_n(&next.turn, 1, __ATOMIC_RELEASE);
  real_syscall(SYS_futex, &next.turn, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  errno = kept;
}

void await_turn(Thread& self) {
  const int kept = errno;
  while (__atomic_load_n(&self.turn, __ATOMIC_ACQUIRE) == 0) {
    real_syscall(SYS_futex, &self.turn, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
  }
  __atomic_store_n(&self.turn, 0, __ATOMIC_RELAXED);
  self.ready = false;
  errno = kept;
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
// with one deadline the one that asked first runs first.
bool wait_for(const void* key, int64_t deadline) {
  Thread& self = *g_self;
  self.key = key;
  self.deadline = deadline;
  self.order = ++g_last_order;
  let_others_run(self);
  return self.timed_out;
}

int64_t from_now(int64_t nanoseconds) {
  return nanoseconds > kNever - g_now ? kNever : g_now + nanoseconds;
}

void sleep_for(int64_t nanoseconds) {
  wait_for(nullptr, from_now(nanoseconds));
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
  threads().remove_if([&self](const Thread& each) { return &each == &self; });
  g_self = nullptr;
  hand_over_to(choose_next());
  return result;
}

// The first thread, whatever it calls first.
[[gnu::constructor]] void take_first_thread() {
  g_self = &threads().emplace_back();
  g_self->handle = pthread_self();
}

int64_t to_nanoseconds(const timespec& time) {
  return time.tv_sec > kNever / kSecond - 1 ? kNever : time.tv_sec * kSecond + time.tv_nsec;
}

bool is_valid(const timespec& time) {
  return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kSecond;
}

bool is_virtual(clockid_t clock) {
  return clock == CLOCK_MONOTONIC || clock == CLOCK_REALTIME;
}

int64_t start_of(clockid_t clock) {
  return clock == CLOCK_REALTIME ? kRealtimeStart : kMonotonicStart;
}

int fail(int error) {
  errno = error;
  return -1;
}

// An armed timer has a thread that sleeps and then calls back.
struct Timer {
  void (*callback)(sigval) = nullptr;
  sigval value{};
  Thread* sleeper = nullptr;
};

intptr_t g_last_timer = 0;

// By their handles. Never destroyed either.
std::map<intptr_t, Timer>& timers() {
  static auto& all = *new std::map<intptr_t, Timer>;
  return all;
}

// Null for a handle of no timer.
Timer* timer_of(timer_t handle) {
  const auto found = timers().find(reinterpret_cast<intptr_t>(handle));
  return found == timers().end() ? nullptr : &found->second;
}

// The timer of a thread that was woken before its time may be gone.
void* run_timer(void* argument) {
  if (!g_self->timed_out) return nullptr;
  Timer& timer = *static_cast<Timer*>(argument);
  timer.sleeper = nullptr;
  timer.callback(timer.value);
  return nullptr;
}

// Its thread ends at once, before anything else runs: a thread less for each timer that is stopped.
void disarm(Timer& timer) {
  if (timer.sleeper == nullptr) return;
  Thread& sleeper = *std::exchange(timer.sleeper, nullptr);
  make_ready(sleeper, false);
  make_ready(*g_self, false);
  g_self->order = 0;
  hand_over_to(sleeper);
  await_turn(*g_self);
}

}  // namespace

// What the linker's --wrap leaves of the libraries, and what takes its place. That of C functions
// bears the linker's own names.
extern "C" {
decltype(pthread_create) __real_pthread_create;
decltype(pthread_join) __real_pthread_join;
decltype(pthread_mutex_lock) __real_pthread_mutex_lock;
decltype(pthread_mutex_unlock) __real_pthread_mutex_unlock;
decltype(sem_post) __real_sem_post;
decltype(clock_gettime) __real_clock_gettime;
decltype(poll) __real_poll;
}
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
bool virtual_futex_wait_until(void*, unsigned*, unsigned, bool, seconds, nanoseconds) asm(
    "__wrap__ZNSt28__atomic_futex_unsigned_base19_M_futex_wait_until"
    "EPjjbNSt6chrono8durationIlSt5ratioILl1ELl1EEEENS2_IlS3_ILl1ELl1000000000EEEE");
void virtual_futex_notify_all(unsigned* word) asm(
    "__wrap__ZNSt28__atomic_futex_unsigned_base19_M_futex_notify_allEPj");
std::chrono::steady_clock::time_point virtual_steady_now() noexcept
    asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::system_clock::time_point virtual_system_now() noexcept
    asm("__wrap__ZNSt6chrono3_V212system_clock3nowEv");

nanoseconds virtual_now() {
  return nanoseconds(g_now);
}

int thread_number() {
  return g_self != nullptr ? g_self->number : -1;
}

Shuffle::Shuffle(uint64_t seed) {
  g_shuffle = seed * 0x9E3779B97F4A7C15 | 1;  // neighbouring seeds differ in all bits
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

// A thread that waits for being made ready; null without memory for one more.
Thread* start_thread(const pthread_attr_t* attributes, void* (*routine)(void*), void* argument) {
  Thread& added = threads().emplace_back();
  added.number = ++g_last_number;
  added.routine = routine;
  added.argument = argument;
  if (__real_pthread_create(&added.handle, attributes, run_thread, &added) == 0) return &added;
  threads().pop_back();
  return nullptr;
}

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*routine)(void*), void* argument) noexcept {
  if (g_starts_until_failure >= 0 && g_starts_until_failure-- == 0) return EAGAIN;
  Thread* const added = start_thread(attributes, routine, argument);
  if (added == nullptr) return EAGAIN;
  make_ready(*added, false);
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
  if (__wrap_pthread_create(reinterpret_cast<pthread_t*>(thread), nullptr, run, state.get()) != 0) {
    die("no thread");
  }
  state.release();
}

void wait_for_end_of(pthread_t thread) {
  const Thread* const awaited =
      first_that([thread](const Thread& each) { return pthread_equal(each.handle, thread) != 0; });
  if (awaited != nullptr) wait_for(awaited, kNever);
}

extern "C" int __wrap_pthread_join(pthread_t thread, void** result) {
  wait_for_end_of(thread);
  return __real_pthread_join(thread, result);
}

void virtual_thread_join(std::thread* thread) {
  wait_for_end_of(thread->native_handle());
  real_thread_join(thread);
}

// ---- locks, conditions, semaphores, futures ----

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  if (g_self == nullptr) return __real_pthread_mutex_lock(mutex);
  shuffle_here();
  int result = 0;
  while ((result = pthread_mutex_trylock(mutex)) == EBUSY) wait_for(mutex, kNever);
  return result;
}

extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  const int result = __real_pthread_mutex_unlock(mutex);
  if (g_self != nullptr) {
    wake(mutex, INT_MAX);
    shuffle_here();
  }
  return result;
}

int wait_on_condition(const void* cond, pthread_mutex_t* mutex, int64_t deadline) {
  __real_pthread_mutex_unlock(mutex);
  wake(mutex, INT_MAX);
  const bool timed_out = wait_for(cond, deadline);
  __wrap_pthread_mutex_lock(mutex);
  return timed_out ? ETIMEDOUT : 0;
}

extern "C" int __wrap_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             clockid_t clock, const timespec* deadline) {
  return wait_on_condition(cond, mutex, to_nanoseconds(*deadline) - start_of(clock));
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

bool virtual_futex_wait_until(void*, unsigned* word, unsigned value, bool has_timeout, seconds s,
                              nanoseconds ns) {
  const int64_t until = s.count() * kSecond + ns.count() - kRealtimeStart;
  return wait_on_futex(word, value, has_timeout ? until : kNever);
}

void virtual_futex_notify_all(unsigned* word) {
  wake(word, INT_MAX);
}

// The waits of std::atomic, and what is built on it.
extern "C" long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  const long operation = b & ~static_cast<long>(FUTEX_PRIVATE_FLAG);
  if (number != SYS_futex || g_self == nullptr) return real_syscall(number, a, b, c, d, e, f);
  const auto* const word = reinterpret_cast<const unsigned*>(a);
  if (operation == FUTEX_WAKE) return wake(word, static_cast<int>(c));
  if (operation != FUTEX_WAIT || d != 0) die("a futex call that is not replaced");
  wait_on_futex(word, static_cast<unsigned>(c), kNever);
  return 0;
}

extern "C" int __wrap_sem_wait(sem_t* semaphore) {
  while (sem_trywait(semaphore) != 0) wait_for(semaphore, kNever);
  return 0;
}

extern "C" int __wrap_sem_post(sem_t* semaphore) noexcept {
  const int result = __real_sem_post(semaphore);
  wake(semaphore, 1);
  return result;
}

// ---- clock, sleeps, polls ----

extern "C" unsigned int __wrap_sleep(unsigned int length) {
  sleep_for(length * kSecond);
  return 0;
}

extern "C" int __wrap_usleep(useconds_t microseconds) {
  sleep_for(int64_t{microseconds} * 1000);
  return 0;
}

extern "C" int __wrap_nanosleep(const timespec* requested, timespec*) {
  if (!is_valid(*requested)) return fail(EINVAL);
  sleep_for(to_nanoseconds(*requested));
  return 0;
}

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (!is_virtual(clock)) return __real_clock_gettime(clock, now);
  const int64_t shown = start_of(clock) + g_now;
  *now = {.tv_sec = shown / kSecond, .tv_nsec = shown % kSecond};
  return 0;
}

std::chrono::steady_clock::time_point virtual_steady_now() noexcept {
  return std::chrono::steady_clock::time_point(nanoseconds(kMonotonicStart + g_now));
}

std::chrono::system_clock::time_point virtual_system_now() noexcept {
  return std::chrono::system_clock::time_point(nanoseconds(kRealtimeStart + g_now));
}

extern "C" int __wrap_poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  const int64_t deadline = milliseconds < 0 ? kNever : g_now + int64_t{milliseconds} * 1'000'000;
  for (;;) {
    const int result = __real_poll(descriptors, count, 0);
    if (result != 0 || g_now >= deadline) return result;
    g_self->descriptors = descriptors;
    g_self->descriptor_count = count;
    wait_for(nullptr, deadline);
  }
}

// ---- timers ----

// Timers call back on a thread or not at all, and expire once: nothing else is in use.
extern "C" int __wrap_timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept {
  if (std::exchange(g_fail_timer_create, false)) return fail(EAGAIN);
  if (!is_virtual(clock) || event == nullptr || event->sigev_notify != SIGEV_THREAD ||
      event->sigev_notify_function == nullptr) {
    return fail(EINVAL);
  }
  *timer = reinterpret_cast<timer_t>(++g_last_timer);
  timers()[g_last_timer] = {event->sigev_notify_function, event->sigev_value, nullptr};
  return 0;
}

extern "C" int __wrap_timer_settime(timer_t handle, int flags, const itimerspec* value,
                                    itimerspec* old_value) noexcept {
  if (std::exchange(g_fail_timer_settime, false)) return fail(EAGAIN);
  Timer* const timer = timer_of(handle);
  if (timer == nullptr || flags != 0 || value == nullptr || old_value != nullptr ||
      !is_valid(value->it_value) || to_nanoseconds(value->it_interval) != 0) {
    return fail(EINVAL);
  }
  disarm(*timer);
  const int64_t length = to_nanoseconds(value->it_value);
  if (length == 0) return 0;
  timer->sleeper = start_thread(nullptr, run_timer, timer);
  if (timer->sleeper == nullptr) die("no thread");
  timer->sleeper->deadline = from_now(length);
  timer->sleeper->order = ++g_last_order;
  pthread_detach(timer->sleeper->handle);
  return 0;
}

extern "C" int __wrap_timer_delete(timer_t handle) noexcept {
  Timer* const timer = timer_of(handle);
  if (timer == nullptr) return fail(EINVAL);
  disarm(*timer);
  timers().erase(reinterpret_cast<intptr_t>(handle));
  return 0;
}

}  // namespace kiv::test
