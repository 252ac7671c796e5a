// Starts the lapse of time that KIV_TIME_FACTOR asks for, before main.
#include <array>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "tests/support/time_lapse.h"

namespace {

using kiv::test::TimeLapse;

// Lasts as long as the process: threads that wait may outlive main.
alignas(TimeLapse) std::array<std::byte, sizeof(TimeLapse)> g_time_lapse;

[[gnu::constructor]] void start_time_lapse() {
  const char* factor = getenv("KIV_TIME_FACTOR");
  if (factor != nullptr && atoi(factor) > 0) new (g_time_lapse.data()) TimeLapse(atoi(factor));
}

}  // namespace
