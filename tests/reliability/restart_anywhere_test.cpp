// Every command whose modem goes down before, during and after each of its requests, and comes back
// or not: the run ends, leaves no handle of the framework behind but those that live as long as
// their process, and the next run on the same state directory succeeds.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>

#include "platform/qmi/bus_state.h"
#include "tervik_kiv_test_main.h"
#include "tests/support/process_name.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {

using platform::Service;
using platform::ServiceReply;

// What the linker's --wrap leaves of the bus, and what takes its place.
decltype(platform::publish_service) real_publish asm("__real_" PUBLISH_SERVICE);
decltype(platform::publish_service) watched_publish asm("__wrap_" PUBLISH_SERVICE);

namespace {

using namespace std::chrono_literals;
// Each command that talks to a service of the modem, a category a row.
constexpr const char* kCommands[] = {
    "3 0 1|3 1|3 2|3 3 1 4 0x3|3 4|3 5",
    "4 1 0 550|4 2 0 550 8 10|4 3 0 550|4 4 0 /file|4 5 0 /file 1 2|4 6 0 /file",
    "5 1|5 2 0|5 3 0 1 1|5 4|5 5|5 6 0 5|5 6 1 5 5 7|5 7 20|5 10 1 0|5 10 2 0|5 10 3 0|5 10 4 0|5 10 5 0",
    "6 4 0x02 0x49",
    "7 1 0|7 1 1",
    "9 0 0|9 1 0|9 2 0|9 3 0|9 4 0|9 5 0|9 6 0|9 7 1|9 8 1|9 9 1|9 10 1|9 11 1|9 12 1|9 20 0|9 21 0|9 30 0|9 31 3",
    "10 0 3|10 1 3",
    "11 0|11 1|11 2|11 4 1|11 5 1|11 6 0|11 10|11 11 7",
    "12 0|12 1",
};

using Handles = std::map<uint32_t, int>;  // their number by service

// Whether they belong to the extension client, which has a notifier, and to the UIM, SAR and PDC
// clients: each lives as long as its process.
bool may_stay(const Handles& handles) {
  return std::ranges::includes(Handles{{0x0B, 1}, {0x11, 1}, {0x24, 1}, {0xFFE4, 2}}, handles);
}

Handles open_handles() {
  Handles handles;
  const std::lock_guard lock(platform::bus_state().mutex);
  for (const auto& [key, each] : platform::bus_state().handles) ++handles[each->idl->service_id];
  return handles;
}

enum Moment {
  kNever,
  kAbsent,    // before the run
  kBefore,    // before the request is seen
  kSilent,    // a second after the request was carried out, which nobody answers
  kAnswered,  // before the response leaves
  kAfter,     // soon after the response
};

struct Restart {
  Moment moment = kNever;
  unsigned request = 0;     // of the run, from 1
  bool comes_back = false;  // 100 ms later
};

// Never destroyed: threads that wait for their moment may outlive the run.
struct Modem {
  Restart restart;
  std::atomic<unsigned> requests{0};
  std::mutex mutex;
  std::map<uint32_t, Service> services;  // as they were published last
};
Modem& g_modem = *new Modem;

void set_all(bool up) {
  std::unique_lock lock(g_modem.mutex);
  const auto services = g_modem.services;
  lock.unlock();
  for (const auto& [id, service] : services) {
    up ? real_publish(id, service) : platform::withdraw_service(id);
  }
}

void go_down(std::chrono::milliseconds delay) {
  if (delay == 0ms) set_all(false);
  std::thread([delay] {
    std::this_thread::sleep_for(delay);
    if (delay != 0ms) set_all(false);
    std::this_thread::sleep_for(100ms);
    if (g_modem.restart.comes_back) set_all(true);
  }).detach();
}

ServiceReply answer(const Service& service, uint16_t id, std::span<const uint8_t> request) {
  const bool now = ++g_modem.requests == g_modem.restart.request;
  const Moment moment = now ? g_modem.restart.moment : kNever;
  if (moment == kBefore) {
    go_down(0ms);
    return ServiceReply::transport_error(QMI_SERVICE_ERR);
  }
  ServiceReply reply = service(id, request);
  if (moment == kNever) return reply;
  go_down(moment == kSilent ? 1000ms : moment == kAfter ? 5ms : 0ms);
  return moment == kSilent ? ServiceReply::silence() : reply;
}

struct Outcome {
  unsigned requests = 0;
  Handles handles{};
  std::string printed;
};

class RestartAnywhere : public StateDirectoryTest,
                        public ::testing::WithParamInterface<std::string> {
 protected:
  // A folder with the settings of a run. Traces and errors are not printed: handles differ, and so
  // does whether an indication for which nobody waits comes before the end.
  std::string new_folder() {
    const std::string folder = std::to_string(++folders_);
    write_state_file_text(folder + "/properties",
                          "persist.vendor.radio.adb_log_shell=288\npersist.radio.ssr_wait_s=0\n");
    return folder;
  }

  // Runs the command in a process of its own, on the state directory's folder `folder`. What
  // commands read or delete is there each time, an active configuration among it, which a stopped
  // reactivation takes away. There is no stored EID. All else stays as an earlier run left it.
  Outcome run(const std::string& folder, const Restart& restart = {}) {
    for (const char* file : {"nv/0/550", "efs/0/file", "efs/0/oem/debug/rf_ant_port_config",
                             "efs/0/oem/debug/ant_tx_config", "efs/0/oem/debug/rf_print_mask",
                             "pdc/0/active", "pdc/1/active"}) {
      write_state_file_text(folder + "/" + file, std::string(16, '\1'));
    }
    const std::string path = state_dir() + "/" + folder;
    std::filesystem::remove(path + "/efs/1/nv/item_files/modem/uim/uimdrv/esim_eid");
    fflush(stdout);
    int status = -1;
    const pid_t child = fork();
    if (child == 0) run_in_child(path, restart);
    waitpid(child, &status, 0);
    Outcome outcome{.printed = read_state_file_text(folder + "/printed")};
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << outcome.printed;
    std::istringstream report(read_state_file_text(folder + "/report"));
    report >> outcome.requests;
    for (uint32_t service_id = 0; report >> service_id;) report >> outcome.handles[service_id];
    EXPECT_TRUE(may_stay(outcome.handles)) << report.str();
    return outcome;
  }

  // The modem that stays away, the modem that comes back, and then a healthy one.
  void restart_at(const Outcome& healthy, Moment moment, unsigned request) {
    SCOPED_TRACE(::testing::Message() << "moment " << moment << ", request " << request);
    const std::string folder = new_folder();
    for (const bool comes_back : {false, true}) {
      EXPECT_GE(run(folder, {moment, request, comes_back}).requests, request);
    }
    const Outcome next = run(folder);
    EXPECT_EQ(next.requests, healthy.requests);
    EXPECT_EQ(next.handles, healthy.handles);
    EXPECT_EQ(next.printed, healthy.printed);
  }

 private:
  [[noreturn]] static void run_in_child(const std::string& path, const Restart& restart) {
    alarm(30);  // ends a run that hangs
    setenv("KIV_STATE_DIR", path.c_str(), 1);
    if (freopen((path + "/printed").c_str(), "w", stdout) == nullptr) abort();
    std::istringstream words("kiv " + GetParam());
    std::vector<std::string> arguments(std::istream_iterator<std::string>(words), {});
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    g_modem.restart = restart;
    if (restart.moment == kAbsent) {
      platform::withdraw_service(0);  // has the modem publish what goes down next
      go_down(0ms);
    }
    static_cast<void>(tervik_kiv_test_main(static_cast<int>(argv.size()) - 1, argv.data()));
    Handles handles = open_handles();
    // The extension client's watchdog may just be rebuilding it.
    for (int tick = 0; tick < 5000 && !may_stay(handles); ++tick) {
      usleep(100'000);
      handles = open_handles();
    }
    std::ofstream report(path + "/report");
    report << g_modem.requests;
    for (const auto& [service, count] : handles) report << ' ' << service << ' ' << count;
    report.close();
    exit(0);
  }

  int folders_ = 0;
};

TEST_P(RestartAnywhere, EndsAndTheNextRunSucceeds) {
  const Outcome healthy = run(new_folder());
  EXPECT_GE(healthy.requests, 1u);
  EXPECT_EQ(healthy.printed.find("cmd help"), std::string::npos) << healthy.printed;
  restart_at(healthy, kAbsent, 0);
  for (unsigned request = 1; request <= healthy.requests; ++request) {
    for (const Moment moment : {kBefore, kSilent, kAnswered, kAfter}) {
      restart_at(healthy, moment, request);
    }
  }
}

std::vector<std::string> all_commands() {
  std::vector<std::string> all;
  for (const char* category : kCommands) {
    std::istringstream row(category);
    for (std::string command; std::getline(row, command, '|');) all.push_back(command);
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Kiv, RestartAnywhere, ::testing::ValuesIn(all_commands()),
                         [](const auto& row) {
                           std::string name = row.param;
                           std::erase(name, '/');
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

}  // namespace

void watched_publish(uint32_t service_id, Service service) {
  std::unique_lock lock(g_modem.mutex);
  const Service watched = g_modem.services[service_id] =
      [service = std::move(service)](auto... arguments) { return answer(service, arguments...); };
  lock.unlock();
  real_publish(service_id, watched);
}

}  // namespace kiv::test

// The product admits processes of a few names alone to the statistics: the test is one of them.
int main(int argc, char** argv) {
  if (std::string_view(argv[0]) != "kiv") {
    kiv::test::restart_under_name("kiv", {argv + 1, argv + argc});
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
