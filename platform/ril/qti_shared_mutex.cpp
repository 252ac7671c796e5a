#include "qti_shared_mutex.h"

namespace qtimutex {

// An error-free plain mutex: neither call can fail.
void QtiSharedMutex::lock() {
  pthread_mutex_lock(&mutex_);
}

void QtiSharedMutex::unlock() {
  pthread_mutex_unlock(&mutex_);
}

}  // namespace qtimutex
