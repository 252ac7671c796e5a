// What a run of kiv spends its time on, piece by piece. Compare ratios between rows of one run, not
// times between machines.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "modem_lyrax_mgr.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "tervik_extend_idl.h"
#include "tervik_extend_nvefs.h"
#include "tervik_kiv_lyrax_test.h"
#include "tervik_kiv_lyrax_unpk.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_timer.h"

namespace {

constexpr uint32_t EFS_FILE_LEN = TERVIK_EFS_DATA_MAX;

// ---- log statement ----

void log_statement_off(benchmark::State& state) {
  for (auto _ : state) {
    tervik_log_debug("value %d, %s", 42, "text");
  }
}
BENCHMARK(log_statement_off);

// The floor of the row above: the system log's own early return.
void syslog_below_mask(benchmark::State& state) {
  const int previous = setlogmask(LOG_UPTO(LOG_ERR));
  for (auto _ : state) {
    syslog(LOG_DEBUG, "value %d, %s", 42, "text");
  }
  setlogmask(previous);
}
BENCHMARK(syslog_below_mask);

// Standard output goes to /dev/null while it lives; the report comes afterwards.
class silenced_stdout {
 public:
  silenced_stdout() : saved_(dup(STDOUT_FILENO)) {
    fflush(stdout);
    const int null_device = open("/dev/null", O_WRONLY);
    dup2(null_device, STDOUT_FILENO);
    close(null_device);
  }
  ~silenced_stdout() {
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  silenced_stdout(const silenced_stdout&) = delete;
  silenced_stdout& operator=(const silenced_stdout&) = delete;

 private:
  const int saved_;
};

void log_statement_to_stdout(benchmark::State& state) {
  const silenced_stdout silence;
  tervik_hal_set_shell_print_mask(0xFFFF);
  for (auto _ : state) {
    tervik_log_debug("value %d, %s", 42, "text");
  }
  tervik_hal_set_shell_print_mask(0);
}
BENCHMARK(log_statement_to_stdout);

// ---- extension message ----

void extension_message_encode_decode(benchmark::State& state) {
  const qmi_idl_service_object_type service =
      tervik_extend_get_service_object_internal_v01(1, 1, 6);
  const qmi_idl_message& message =
      *kiv::platform::find_message(*service, QMI_IDL_REQUEST, TERVIK_EXTEND_DATA_MSG_ID);
  tervik_extend_data_msg sent = {.id = 2, .len = 544, .payload_valid = 1, .payload = {}};
  tervik_extend_data_msg received = {};
  for (auto _ : state) {
    const auto encoded = kiv::platform::encode_message(
        message, {reinterpret_cast<const uint8_t*>(&sent), sizeof(sent)});
    const bool decoded = kiv::platform::decode_message(
        message, *encoded, {reinterpret_cast<uint8_t*>(&received), sizeof(received)});
    benchmark::DoNotOptimize(decoded);
    benchmark::DoNotOptimize(received);
  }
}
BENCHMARK(extension_message_encode_decode);

// The floor of the row above.
void extension_message_two_copies(benchmark::State& state) {
  tervik_extend_data_msg from = {};
  tervik_extend_data_msg between = {};
  tervik_extend_data_msg to = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(from);
    memcpy(&between, &from, sizeof(from));
    benchmark::DoNotOptimize(between);
    memcpy(&to, &between, sizeof(to));
    benchmark::DoNotOptimize(to);
  }
}
BENCHMARK(extension_message_two_copies);

// ---- utilities ----

void property_read(benchmark::State& state) {
  char value[TERVIK_TEXT_SIZE];
  for (auto _ : state) {
    benchmark::DoNotOptimize(tervik_get_property_value("persist.radio.ssr_wait_s", value, "5"));
  }
}
BENCHMARK(property_read);

void timer_start_stop(benchmark::State& state) {
  for (auto _ : state) {
    const uint32_t timer_id = tervik_timer_start([](union sigval) {}, 60);
    tervik_timer_stop(timer_id);
  }
}
BENCHMARK(timer_start_stop);

// ---- whole stack ----

void nv_read(benchmark::State& state) {
  std::array<uint8_t, 365> data = {};
  for (auto _ : state) {
    uint32_t len = data.size();
    if (tervik_nv_read(0, 550, data.data(), &len) != 0) {
      state.SkipWithError("nv read failed");
      return;
    }
  }
}
BENCHMARK(nv_read);

constexpr char EFS_PATH[] = "/bench/file";
constexpr uint32_t EFS_PATH_LEN = sizeof(EFS_PATH) - 1;

void efs_write(benchmark::State& state) {
  const std::vector<uint8_t> data(EFS_FILE_LEN, 0xA5);
  for (auto _ : state) {
    if (tervik_efs_write(0, EFS_PATH, EFS_PATH_LEN, data.data(), EFS_FILE_LEN) != 0) {
      state.SkipWithError("efs write failed");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * EFS_FILE_LEN);
}
BENCHMARK(efs_write);

void efs_read(benchmark::State& state) {
  std::vector<uint8_t> data(EFS_FILE_LEN, 0xA5);
  if (tervik_efs_write(0, EFS_PATH, EFS_PATH_LEN, data.data(), EFS_FILE_LEN) != 0) {
    state.SkipWithError("efs write failed");
    return;
  }
  data.resize(EFS_FILE_LEN + 1);  // a file that just fits counts as cut
  for (auto _ : state) {
    auto len = static_cast<uint32_t>(data.size());
    if (tervik_efs_read(0, EFS_PATH, EFS_PATH_LEN, data.data(), &len) != 0) {
      state.SkipWithError("efs read failed");
      return;
    }
  }
  state.SetBytesProcessed(state.iterations() * EFS_FILE_LEN);
}
BENCHMARK(efs_read);

// ---- statistics ----

void stats_getter(benchmark::State& state) {
  modem_lyrax_lte_srv_meas_info record = {};
  for (auto _ : state) {
    if (modem_lyrax_lte_srv_meas_info_get_for_pcc(0, &record) == 0) {
      state.SkipWithError("getter failed");
      return;
    }
  }
  modem_lyrax_api_deinit();
}
BENCHMARK(stats_getter);

// The built-in record with the trace off; the two lines that it always prints are part of it.
void unpacker(benchmark::State& state) {
  const silenced_stdout silence;
  char category[] = "7";
  char command[] = "0";
  char print_off[] = "0";
  char* argv[] = {category, category, command, print_off, nullptr};
  for (auto _ : state) {
    tervik_test_modem_stats_do(4, argv);
  }
}
BENCHMARK(unpacker);

// A decode without the two lines that tell its result.
void unpacker_steps(benchmark::State& state) {
  const std::array<uint8_t, 48> record = {1, 0, 3};
  modem_stats_cell cell = {};
  for (auto _ : state) {
    bool decoded = unpk_start(record, 0x123) && unpk_cell(cell);
    benchmark::DoNotOptimize(decoded);
    benchmark::DoNotOptimize(cell);
  }
}
BENCHMARK(unpacker_steps);

// The floor of the rows above, but for the lines.
void record_copy(benchmark::State& state) {
  std::array<uint8_t, 48> from = {};
  std::array<uint8_t, 48> to = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(from);
    to = from;
    benchmark::DoNotOptimize(to);
  }
}
BENCHMARK(record_copy);

// A state directory on a memory file system where there is one, removed by the caller's shell.
bool use_fresh_state_directory(std::string& directory) {
  directory = access("/dev/shm", W_OK) == 0 ? "/dev/shm/kiv_bench.XXXXXX" : "/tmp/kiv_bench.XXXXXX";
  return mkdtemp(directory.data()) != nullptr && setenv("KIV_STATE_DIR", directory.c_str(), 1) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The statistics admit processes of known names alone.
  char admitted_name[] = "kiv";
  if (strcmp(argv[0], admitted_name) != 0) {
    argv[0] = admitted_name;
    execv("/proc/self/exe", argv);
    fprintf(stderr, "cannot start anew\n");
    return 1;
  }
  std::string directory;
  if (!use_fresh_state_directory(directory)) {
    fprintf(stderr, "no state directory\n");
    return 1;
  }
  tervik_hal_close_print();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  const std::string remove = "rm -rf '" + directory + "'";
  return system(remove.c_str()) == 0 ? 0 : 1;
}
