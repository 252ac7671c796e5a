#include "tervik_utils_outcome.h"

namespace {

tervik_outcome_observer g_observer;

}  // namespace

void tervik_set_outcome_observer(const tervik_outcome_observer& observer) {
  g_observer = observer;
}

void tervik_tell_outcome(int code, const char* said) {
  if (code != 0 && g_observer.failed != nullptr) {
    g_observer.failed(code, said);
  }
}

void tervik_tell_answer(const qmi_result& answer, const char* said) {
  if (answer.result != 0) {
    tervik_tell_outcome(answer.error != 0 ? static_cast<int>(answer.error) : -1, said);
  }
}

void tervik_tell_bytes(const char* name, std::span<const uint8_t> bytes) {
  if (g_observer.read != nullptr) {
    g_observer.read(name, bytes);
  }
}
