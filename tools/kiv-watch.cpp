// kiv-watch: repeats a measurement of category 9. A line a sample, with a bar for each antenna on a
// terminal; a row a sample in a file of comma-separated values.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "modem_lyrax_mgr.h"
#include "program.h"
#include "tervik_kiv_argument_check.h"
#include "tervik_kiv_lyrax_data.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr const char* USAGE =
    "usage: kiv-watch OPT SUB [-i SECONDS] [-n COUNT] [-o FILE.csv]\n"
    "OPT and SUB are those of \"kiv 9\"; kiv-check help 9 lists them.";

// ---- a sample ----

// Values with their names.
using sample = std::vector<std::pair<std::string, std::string>>;

sample g_sample;
std::string g_failure;
std::string g_last_statement;

// Takes apart the result line: "TITLE: name: value, name = value, ...".
void see_statement(const tervik_log_place& /*place*/, uint32_t log_class, uint32_t /*sub*/,
                   const char* /*format*/, const char* text) {
  g_last_statement = text;
  std::string_view line = text;
  if (log_class != LOG_CLASS_HELP) {
    return;
  }
  g_sample.clear();
  for (line.remove_prefix(line.find(": ") + 2); !line.empty();) {
    const std::string_view each = line.substr(0, line.find(", "));
    g_sample.emplace_back(each.substr(0, each.find_first_of(": ")),
                          each.substr(each.rfind(' ') + 1));
    line.remove_prefix(std::min(each.size() + 2, line.size()));
  }
}

void see_failure(int /*code*/, const char* /*said*/) {
  g_failure = g_last_statement;
}

// ---- showing it ----

// The families of values that stand for antennas, and the values at the ends of their bars.
struct antenna_family {
  std::string_view prefix;
  double low;
  double high;
};
constexpr antenna_family FAMILIES[] = {
    {"rsrp_rx", -140, -40}, {"rssi_rx", -110, -20}, {"snr_rx", -20, 30}, {"rx_", -110, -20}};

std::string bar_of(const antenna_family& family, double value) {
  constexpr int WIDTH = 12;
  const double share = (value - family.low) / (family.high - family.low);
  std::string bar(WIDTH, '.');
  std::fill_n(bar.begin(), std::lround(std::clamp(share, 0.0, 1.0) * WIDTH), '#');
  return bar;
}

// All values; on a terminal the first family that the sample has, with bars.
std::string line_of(const sample& values) {
  const auto has = [&values](const antenna_family& family) {
    return std::any_of(values.begin(), values.end(), [&family](const auto& each) {
      return each.first.starts_with(family.prefix);
    });
  };
  const auto* const family = std::find_if(std::begin(FAMILIES), std::end(FAMILIES), has);
  const bool with_bars = family != std::end(FAMILIES) && isatty(STDOUT_FILENO) != 0;
  std::string line;
  for (const auto& [name, value] : values) {
    if (!with_bars || name.starts_with(family->prefix)) {
      line.append("  ").append(name).append(" ").append(value);
      line.append(with_bars ? ' ' + bar_of(*family, atof(value.c_str())) : "");
    }
  }
  return line;
}

// Appends the sample to the file, behind the names when it is the first one.
bool write_rows(int file, const std::string& time, bool with_names) {
  std::string names = "time";
  std::string values = time;
  for (const auto& [name, value] : g_sample) {
    names.append(",").append(name);
    values.append(",").append(value);
  }
  return write_all(file, (with_names ? names + '\n' : "") + values + '\n');
}

// ---- the command line ----

struct options {
  double interval_s = 1;
  long count = LONG_MAX;
  const char* file = nullptr;
};

options read_options(int argc, char** argv) {
  options read;
  char* end = nullptr;
  opterr = 0;
  for (int option = 0; (option = getopt(argc, argv, "i:n:o:h")) != -1;) {
    switch (option) {
      case 'i':
        read.interval_s = seconds_of(optarg);
        break;
      case 'n':
        read.count = strtol(optarg, &end, 10);
        read.count = *end == '\0' ? read.count : 0;
        break;
      case 'o':
        read.file = optarg;
        break;
      case 'h':
        end_with(USAGE);
      default:
        end_program(NO_VERDICT, USAGE);
    }
  }
  if (read.interval_s <= 0 || read.interval_s > 1e6 || read.count < 1) {
    end_program(NO_VERDICT, "-i takes a number of seconds above 0, -n a count from 1");
  }
  return read;
}

// Takes the samples.
exit_status measure(const options& wanted, int opt, int sub, int file) {
  exit_status status = SUCCESS;
  bool is_first = true;
  auto next = std::chrono::steady_clock::now();
  for (long i = 0; i < wanted.count; ++i) {
    std::this_thread::sleep_until(next);
    next += std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(wanted.interval_s));
    g_failure.clear();
    tervik_test_qmi_modem_stats_hdl(opt, sub);
    const std::string time = time_now();
    const std::string clock = time.substr(time.find('T') + 1, sizeof("12:00:00") - 1);
    if (!g_failure.empty()) {
      status = FAILURE;
      fprintf(stderr, "kiv-watch: %s %s\n", clock.c_str(), g_failure.c_str());
      continue;
    }
    if (file >= 0 && !write_rows(file, time, std::exchange(is_first, false))) {
      end_for_file(NO_VERDICT, wanted.file);
    }
    if (!write_all(STDOUT_FILENO, clock + line_of(g_sample) + '\n')) {
      if (errno == EPIPE) {
        break;  // the reader has seen enough
      }
      end_program(NO_VERDICT, "the output could not be delivered");
    }
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  prepare_program("kiv-watch");
  const options wanted = read_options(argc, argv);
  if (argc - optind != 2) {
    end_program(NO_VERDICT, USAGE);
  }
  if (const std::string wrong = tervik_kiv_what_is_wrong({"9", argv[optind], argv[optind + 1]});
      !wrong.empty()) {
    end_program(NO_VERDICT, wrong);
  }
  // The statistics client serves a program of this name alone.
  if (strcmp(argv[0], "kiv") != 0) {
    static char name[] = "kiv";
    argv[0] = name;
    execv("/proc/self/exe", argv);
    end_program(NO_VERDICT, strerror(errno));
  }
  const int file = wanted.file != nullptr ? open_file(wanted.file, O_EXCL) : -1;
  tervik_hal_close_print();
  tervik_set_log_observer(see_statement);
  tervik_set_outcome_observer({.failed = see_failure});
  // A failed connection shows in the measurement.
  static_cast<void>(modem_lyrax_api_init());
  static_cast<void>(modem_lyrax_stats_start());
  const exit_status status = measure(wanted, atoi(argv[optind]), atoi(argv[optind + 1]), file);
  modem_lyrax_api_deinit();
  return status;
}
