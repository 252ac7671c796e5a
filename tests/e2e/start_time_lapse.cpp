// The tool's entry with what the tests change about its surroundings, each by an environment
// variable: KIV_TIME_FACTOR, how much faster time runs; KIV_AT_DEVICE, the device that stands for
// the AT channel; KIV_DROP_PDC, set for a PDC service that drops every request, which modem.conf
// has no word for; KIV_REPORT_TIME, set to have printed on standard error at the end two numbers
// of seconds by the tool's own clock: how long the command's thread has waited, and the whole run.
#include <semaphore.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "platform/modem/pdc_service.h"
#include "platform/qmi/service_bus.h"
#include "tervik_kiv_at_cmd.h"
#include "tervik_kiv_test_main.h"
#include "tests/support/time_lapse.h"

using Seconds = std::chrono::duration<double>;
using std::chrono::steady_clock;

// Never ended: threads that wait may outlive main.
static const kiv::test::TimeLapse* g_lapse = nullptr;
static thread_local Seconds g_waited_without_deadline{};

// The wait for a DIAG answer, which another thread ends in time: replaced to be counted.
int real_sem_wait(sem_t* semaphore) asm("__real_sem_wait");
int counted_sem_wait(sem_t* semaphore) asm("__wrap_sem_wait");
int counted_sem_wait(sem_t* semaphore) {
  const auto begin = steady_clock::now();
  const int result = real_sem_wait(semaphore);
  g_waited_without_deadline += steady_clock::now() - begin;
  return result;
}

int main(int argc, char** argv) {
  if (const char* factor = getenv("KIV_TIME_FACTOR"); factor != nullptr && atoi(factor) > 0) {
    g_lapse = new kiv::test::TimeLapse(atoi(factor));
  }
  if (const char* device = getenv("KIV_AT_DEVICE"); device != nullptr) g_at_device_path = device;
  if (getenv("KIV_DROP_PDC") != nullptr) {
    kiv::platform::publish_service(kiv::platform::kPdcServiceId,
                                   [](auto...) { return kiv::platform::ServiceReply::silence(); });
  }
  const auto start = steady_clock::now();
  const int result = tervik_kiv_test_main(argc, argv);
  const Seconds whole = steady_clock::now() - start;
  const Seconds waited = kiv::test::waited() + g_waited_without_deadline;
  if (getenv("KIV_REPORT_TIME") != nullptr) {
    fprintf(stderr, "%f %f\n", waited.count(), whole.count());
  }
  return result;
}
