// The tool's entry with what the tests change about its surroundings, each by an environment
// variable: KIV_TIME_FACTOR, how much faster time runs; KIV_AT_DEVICE, the device that stands for
// the AT channel; KIV_DROP_PDC, set for a PDC service that drops every request (the
// "silent" one of modem.conf drops indications alone); KIV_REPORT_TIME, set to have printed on
// standard error at the end two numbers of seconds by the tool's own clock: how long the command's
// thread has waited, and the whole run.
#include <semaphore.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

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

// Waits without a deadline of their own, which another thread or process ends in time, are replaced
// to be counted: for a DIAG answer, for an indication, for the shell of an AT command.
template <typename Wait>
auto counted(Wait wait) {
  const auto begin = steady_clock::now();
  const auto result = wait();
  g_waited_without_deadline += steady_clock::now() - begin;
  return result;
}

int real_sem_wait(sem_t* semaphore) asm("__real_sem_wait");
int counted_sem_wait(sem_t* semaphore) asm("__wrap_sem_wait");
int counted_sem_wait(sem_t* semaphore) {
  return counted([&] { return real_sem_wait(semaphore); });
}

pid_t real_waitpid(pid_t pid, int* status, int options) asm("__real_waitpid");
pid_t counted_waitpid(pid_t pid, int* status, int options) asm("__wrap_waitpid");
pid_t counted_waitpid(pid_t pid, int* status, int options) {
  return counted([&] { return real_waitpid(pid, status, options); });
}

#define CONDITION_WAIT "_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE"
using Condition = std::condition_variable;
using Lock = std::unique_lock<std::mutex>;
void real_condition_wait(Condition* condition, Lock& lock) asm("__real_" CONDITION_WAIT);
void counted_condition_wait(Condition* condition, Lock& lock) asm("__wrap_" CONDITION_WAIT);
void counted_condition_wait(Condition* condition, Lock& lock) {
  counted([&] {
    real_condition_wait(condition, lock);
    return 0;
  });
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
