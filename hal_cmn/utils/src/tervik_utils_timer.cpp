#include "tervik_utils_timer.h"

#include <pthread.h>

#include <memory>
#include <mutex>
#include <new>

#include "tervik_utils_cmn.h"

namespace {

// What the debug line of a start or stop shows as "ret".
enum timer_result : int {
  TIMER_SUCCESS = 0,
  TIMER_ACTIVE = 1,
  TIMER_NO_MEMORY = 15,
  TIMER_NO_CALLBACK = 21,
  TIMER_SYSTEM_FAILURE = 30,
};

struct timer_record {
  uint32_t timer_id;
  tervik_timer_callback callback;
  unsigned long timeout_s;
  timer_t sys_timerid{};
  std::unique_ptr<timer_record> next{};
};
using record_link = std::unique_ptr<timer_record>;

// A mutex that says how its creation went. Never destroyed: callbacks may still come at exit.
class timer_mutex {
 public:
  void init(const char* func, const char* name) {
    const int ret = pthread_mutex_init(&mutex_, nullptr);
    tervik_log_debug_as(func, "pthread_mutex_init for %s, ret = %d", name, ret);
  }
  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_{};
};

// Lock order: the id mutex before the list mutex.
timer_mutex g_tervik_timer_id_mutex;
timer_mutex g_tervik_timer_callback_list_mutex;
std::once_flag g_timer_mutexes_once;

uint32_t g_last_timer_id = 500;  // under g_tervik_timer_id_mutex
// Under g_tervik_timer_callback_list_mutex. Never destroyed, as the mutexes.
record_link& g_tervik_timer_callback_list = *new record_link;

void init_mutexes_once(const char* func) {
  std::call_once(g_timer_mutexes_once, [func] {
    g_tervik_timer_id_mutex.init(func, "g_tervik_timer_id_mutex");
    g_tervik_timer_callback_list_mutex.init(func, "g_tervik_timer_callback_list_mutex");
  });
}

// The link that owns the first such record, or the null link at the end. The list mutex is held.
template <typename Matches>
record_link& find_link(Matches matches) {
  record_link* link = &g_tervik_timer_callback_list;
  while (*link != nullptr && !matches(**link)) {
    link = &(*link)->next;
  }
  return *link;
}

record_link& link_of(uint32_t timer_id) {
  return find_link([timer_id](const timer_record& each) { return each.timer_id == timer_id; });
}

// The low half of a system timer's handle, for the log.
unsigned shown_handle(timer_t sys_timerid) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(sys_timerid));
}

// Arms the record's system timer and enters the record in the registry. The list mutex is held
// over both, so that the callback of a timer that fires at once finds the record to stop.
int arm_and_register(record_link record) {
  const std::lock_guard list_lock(g_tervik_timer_callback_list_mutex);
  const int result = tervik_sys_timer_create(record->callback, record->timeout_s, record->timer_id,
                                             &record->sys_timerid);
  if (result == TIMER_SUCCESS) {
    find_link([](const timer_record&) { return false; }) = std::move(record);
  }
  return result;
}

int tervik_sys_timer_clear(timer_t sys_timerid) {
  const itimerspec disarmed = {};
  if (timer_settime(sys_timerid, 0, &disarmed, nullptr) != 0) {
    tervik_log_error("fail to timer_settime, sys_timerid = 0x%x", shown_handle(sys_timerid));
  }
  if (timer_delete(sys_timerid) != 0) {
    tervik_log_error("fail to timer_delete, sys_timerid = 0x%x", shown_handle(sys_timerid));
    return TIMER_SYSTEM_FAILURE;
  }
  return TIMER_SUCCESS;
}

void log_outcome(const char* func, int ret, unsigned long timeout_s, uint32_t timer_id) {
  tervik_log_debug_as(func, "ret = %d, timeout_s = %lu, timer_id = %d", ret, timeout_s, timer_id);
}

// Starts a timer under the next identifier, stored in `*timer_id`.
int start_numbered(const char* func, tervik_timer_callback callback, unsigned long timeout_s,
                   uint32_t* timer_id) {
  const std::lock_guard id_lock(g_tervik_timer_id_mutex);
  if (callback == nullptr) {
    tervik_log_error_as(func, "callback is NULL, timeout_s = %lu", timeout_s);
    return TIMER_NO_CALLBACK;
  }
  record_link record(new (std::nothrow) timer_record{0, callback, timeout_s});
  if (record == nullptr) {
    tervik_log_error_as(func, "Failed to allocate memory for tcbinfo, timeout_s = %lu", timeout_s);
    return TIMER_NO_MEMORY;
  }
  record->timer_id = ++g_last_timer_id;
  const int result = arm_and_register(std::move(record));
  if (result == TIMER_SUCCESS) {
    *timer_id = g_last_timer_id;
  } else {
    tervik_log_error_as(func, "tervik_sys_timer_create failed");
  }
  return result;
}

bool is_active(uint32_t timer_id) {
  const std::lock_guard list_lock(g_tervik_timer_callback_list_mutex);
  return link_of(timer_id) != nullptr;
}

int start_under_id(const char* func, uint32_t timer_id, tervik_timer_callback callback,
                   unsigned long timeout_s) {
  if (callback == nullptr) {
    tervik_log_error_as(func, "callback is NULL, timer_id = %d, timeout_s = %lu", timer_id,
                        timeout_s);
    return TIMER_NO_CALLBACK;
  }
  const bool active = is_active(timer_id);
  tervik_log_debug_as(func, "timer_id = %u, is_active = %d", timer_id, active ? 1 : 0);
  if (active) {
    tervik_log_error_as(func, "This timer is active, pls stop it before start it, timer_id = %d",
                        timer_id);
    return TIMER_ACTIVE;
  }
  record_link record(new (std::nothrow) timer_record{timer_id, callback, timeout_s});
  if (record == nullptr) {
    tervik_log_error_as(func,
                        "Failed to allocate memory for tcbinfo, timer_id = %d, timeout_s = %lu",
                        timer_id, timeout_s);
    return TIMER_NO_MEMORY;
  }
  const int result = arm_and_register(std::move(record));
  if (result != TIMER_SUCCESS) {
    tervik_log_error_as(func, "tervik_sys_timer_create failed, timer_id = %d, timeout_s = %lu",
                        timer_id, timeout_s);
  }
  return result;
}

}  // namespace

int tervik_sys_timer_create(tervik_timer_callback callback, unsigned long timeout_s,
                            uint32_t timer_id, timer_t* out) {
  sigevent event = {};
  event.sigev_notify = SIGEV_THREAD;
  event.sigev_value.sival_int = static_cast<int>(timer_id);
  event.sigev_notify_function = callback;
  timer_t sys_timerid = {};
  if (timer_create(CLOCK_REALTIME, &event, &sys_timerid) != 0) {
    tervik_log_error("fail to timer_create, timer_id = %u, timeout_s = %lu", timer_id, timeout_s);
    return TIMER_SYSTEM_FAILURE;
  }
  itimerspec expiry = {};
  expiry.it_value.tv_sec = static_cast<time_t>(timeout_s);
  // An all-zero expiry would disarm the timer.
  expiry.it_value.tv_nsec = timeout_s == 0 ? 1 : 0;
  // One that cannot be armed is not deleted.
  if (timer_settime(sys_timerid, 0, &expiry, nullptr) != 0) {
    tervik_log_error("fail to timer_settime, sys_timerid = 0x%x, timeout_s = %lu",
                     shown_handle(sys_timerid), timeout_s);
    return TIMER_SYSTEM_FAILURE;
  }
  *out = sys_timerid;
  return TIMER_SUCCESS;
}

uint32_t tervik_timer_start(tervik_timer_callback callback, unsigned long timeout_s) {
  init_mutexes_once(__func__);
  uint32_t timer_id = 0;
  const int result = start_numbered(__func__, callback, timeout_s, &timer_id);
  log_outcome(__func__, result, timeout_s, timer_id);
  return timer_id;
}

bool tervik_timer_start(uint32_t timer_id, tervik_timer_callback callback,
                        unsigned long timeout_s) {
  init_mutexes_once(__func__);
  const int result = start_under_id(__func__, timer_id, callback, timeout_s);
  log_outcome(__func__, result, timeout_s, timer_id);
  return result == TIMER_SUCCESS;
}

bool tervik_timer_stop(uint32_t timer_id) {
  init_mutexes_once(__func__);
  record_link record;
  {
    const std::lock_guard list_lock(g_tervik_timer_callback_list_mutex);
    record_link& link = link_of(timer_id);
    record = std::move(link);
    if (record != nullptr) {
      link = std::move(record->next);
    }
  }
  if (record == nullptr) {
    tervik_log_error("Not find the timer_callback, timer_id = %u", timer_id);
    return false;
  }
  const int ret = tervik_sys_timer_clear(record->sys_timerid);
  log_outcome(__func__, ret, record->timeout_s, timer_id);
  return true;
}
