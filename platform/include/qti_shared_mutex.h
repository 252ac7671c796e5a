// The platform's mutex, a lockable for the guards and condition variables of the standard library.
// Any thread. Static instances need no construction at run time and are not destroyed at exit, so
// that threads of libraries may use them until the process is gone.
#pragma once

#include <pthread.h>

namespace qtimutex {

class QtiSharedMutex {
 public:
  // The name is for the handset's lock statistics; nothing is kept of it here.
  constexpr explicit QtiSharedMutex(const char* = "") {}
  QtiSharedMutex(const QtiSharedMutex&) = delete;
  QtiSharedMutex& operator=(const QtiSharedMutex&) = delete;

  void lock();
  void unlock();

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace qtimutex
