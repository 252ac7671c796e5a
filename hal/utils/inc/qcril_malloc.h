// Zeroed memory whose failed allocation is told to the RIL's logger in the caller's name. Any
// thread.
#pragma once

#include <cstddef>
#include <memory>

// `size` zeroed bytes, or null (and a line in the log).
[[nodiscard]] void* qcril_malloc_adv(size_t size, const char* function, int line);
// Frees what qcril_malloc_adv gave; null is fine.
void qcril_free_adv(void* memory, const char* function, int line);

// Owns a record of qcril_malloc_adv.
struct qcril_deleter {
  void operator()(void* memory) const { qcril_free_adv(memory, __func__, __LINE__); }
};
template <typename Record>
using qcril_ptr = std::unique_ptr<Record, qcril_deleter>;

// A zeroed record, or null. Records are plain data.
template <typename Record>
[[nodiscard]] qcril_ptr<Record> qcril_make(const char* function, int line) {
  static_assert(std::is_trivially_copyable_v<Record>);
  return qcril_ptr<Record>(static_cast<Record*>(qcril_malloc_adv(sizeof(Record), function, line)));
}
