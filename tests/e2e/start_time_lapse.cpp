// The tool's entry with what the tests change about its surroundings, each by an environment
// variable: KIV_TIME_FACTOR, how much faster time runs; KIV_AT_DEVICE, the device that stands for
// the AT channel; KIV_DROP_PDC, set for a PDC service that drops every request, which modem.conf
// has no word for; KIV_REPORT_TIME, set to have the run's length by its own clock printed on
// standard error at its end, as a number of seconds.
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "platform/modem/pdc_service.h"
#include "platform/qmi/service_bus.h"
#include "tervik_kiv_at_cmd.h"
#include "tervik_kiv_test_main.h"
#include "tests/support/time_lapse.h"

int main(int argc, char** argv) {
  if (const char* factor = getenv("KIV_TIME_FACTOR"); factor != nullptr && atoi(factor) > 0) {
    // Never ended: threads that wait may outlive main.
    static_cast<void>(new kiv::test::TimeLapse(atoi(factor)));
  }
  if (const char* device = getenv("KIV_AT_DEVICE"); device != nullptr) g_at_device_path = device;
  if (getenv("KIV_DROP_PDC") != nullptr) {
    kiv::platform::publish_service(kiv::platform::kPdcServiceId,
                                   [](auto...) { return kiv::platform::ServiceReply::silence(); });
  }
  const auto start = std::chrono::steady_clock::now();
  const int result = tervik_kiv_test_main(argc, argv);
  const std::chrono::duration<double> length = std::chrono::steady_clock::now() - start;
  if (getenv("KIV_REPORT_TIME") != nullptr) fprintf(stderr, "%f\n", length.count());
  return result;
}
