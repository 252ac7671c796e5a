#include "qti_shared_mutex.h"

namespace qtimutex {

// A plain mutex, which is neither recursive nor error-checking: neither call can fail.
void QtiSharedMutex::lock() {
  pthread_mutex_lock(&mutex_);
}

void QtiSharedMutex::unlock() {
  pthread_mutex_unlock(&mutex_);
}

}  // namespace qtimutex
