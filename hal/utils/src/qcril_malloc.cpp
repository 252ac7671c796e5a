#include "qcril_malloc.h"

#include <cstdlib>

#include "ril_logger.h"

void* qcril_malloc_adv(size_t size, const char* function, int line) {
  void* memory = calloc(1, size);
  if (memory == nullptr) {
    constexpr int LEVEL_ERROR = 3;
    qti::ril::logger::Logger::log(LEVEL_ERROR, "malloc", qti::ril::logger::qcril_get_thread_name(),
                                  function, line, "Fail to allocate memory");
  }
  return memory;
}

void qcril_free_adv(void* memory, const char* /*function*/, int /*line*/) {
  free(memory);
}
