// docs/commands.md against the tool: the table has the commands of the tool's own help, with their
// arguments and names, and no command takes longer than its row says, whatever the modem does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/program_runner.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Strings = std::vector<std::string>;

constexpr double kEndless = std::numeric_limits<double>::infinity();  // as a number of seconds

struct CommandRow {
  std::string title;  // of its category, with the number
  std::string start;  // the tool, the category and the command
  std::string usage;  // the command line as the help shows it
  std::string name;
  std::string example;
  double longest;  // in seconds
};

std::string trimmed(const std::string& text) {
  const size_t begin = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

Strings words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// The parts of a text between marks; a mark behind a backslash is part of the text.
Strings split(const std::string& text, char mark) {
  Strings parts{""};
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == mark) {
      parts.emplace_back();
    } else {
      if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == mark) ++i;
      parts.back() += text[i];
    }
  }
  return parts;
}

// What stands between back quotes, with a blank before each.
std::string back_quoted(const std::string& cell) {
  const Strings parts = split(cell, '`');
  std::string all;
  for (size_t i = 1; i < parts.size(); i += 2) all += " " + parts[i];
  return all;
}

// A sum such as "time_out ms + 2 s": of numbers and of arguments, as the example has them.
double seconds_of(const std::string& longest, const Strings& arguments, const Strings& values) {
  if (longest == "endless") return kEndless;
  double sum = 0;
  for (const std::string& term : split(longest, '+')) {
    const Strings parts = words(term);
    EXPECT_TRUE(parts.size() == 2 && (parts[1] == "s" || parts[1] == "ms")) << longest;
    std::string number = parts.at(0);
    if (isdigit(number[0]) == 0) {
      const auto place = std::find(arguments.begin(), arguments.end(), number);
      number = values.at(static_cast<size_t>(place - arguments.begin()));
    }
    sum += atof(number.c_str()) / (parts.at(1) == "ms" ? 1000 : 1);
  }
  return sum;
}

std::vector<CommandRow> read_table() {
  std::istringstream text(read_file_text(KIV_COMMAND_TABLE));
  std::vector<CommandRow> rows;
  std::string title;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("## ")) title = line.substr(3);
    if (!line.starts_with("| ") || line.starts_with("| command |")) continue;
    Strings cells = split(line, '|');
    EXPECT_EQ(cells.size(), 8u) << line;
    cells.resize(8);
    for (std::string& cell : cells) cell = trimmed(cell);
    std::string start = "kiv " + title.substr(0, title.find(' '));
    if (cells[1] != "-") start += " " + cells[1];
    const std::string usage = start + back_quoted(cells[2]);
    const std::string example = trimmed(back_quoted(cells[5]));
    rows.push_back({title, start, usage, cells[3].substr(0, cells[3].find(':')), example,
                    seconds_of(cells[6], words(usage), words(example))});
  }
  EXPECT_GT(rows.size(), 60u);
  return rows;
}

// What is wrong with every service: it drops each request; or it answers, but indications do not
// come.
constexpr const char* kSilent = "silent";
constexpr const char* kNoIndications = "no indications";

class CommandLimits : public StateDirectoryTest {
 protected:
  void TearDown() override {
    close(terminal_);
    StateDirectoryTest::TearDown();
  }

  // Runs a row's example on a state directory of its own, with `fault` on every service. The AT
  // channel of a silent modem is a terminal whose other end says nothing; others have none.
  ProgramRun run_example(const CommandRow& row, const std::string& fault, int factor) {
    const std::string folder = std::to_string(++last_folder_);
    const bool silent = fault == kSilent;
    const bool no_indications = fault == kNoIndications;
    std::string conf = no_indications ? "fault.pdc = silent\n" : "";
    for (const char* service : {"extension", "uim", "nas", "sar", "pdc", "vs", "diag"}) {
      if (fault.empty() || no_indications) break;
      conf += std::string("fault.") + service + " = " + fault + "\n";
    }
    write_state_file_text(folder + "/modem.conf", conf);
    write_state_file_text(folder + "/properties",
                          "persist.vendor.radio.adb_log_shell=296\n"
                          "persist.vendor.radio.adb_log_tk=0\n");
    // ThreadSanitizer would have each run linger for a second at its end.
    const char* const options = getenv("TSAN_OPTIONS");
    Strings environment{
        std::string("TSAN_OPTIONS=") + (options != nullptr ? options : "") + " atexit_sleep_ms=0",
        "KIV_STATE_DIR=" + state_dir() + "/" + folder, "KIV_REPORT_TIME=1",
        "KIV_TIME_FACTOR=" + std::to_string(factor),
        "KIV_AT_DEVICE=" + (silent ? terminal_name_ : state_dir() + "/none")};
    if (silent) environment.emplace_back("KIV_DROP_PDC=1");
    Strings arguments = words(row.example);
    arguments.erase(arguments.begin());  // the tool's own name
    return run_program(KIV_TIME_LAPSE_BINARY, arguments, environment);
  }

  // Holds the example's waits against its row; returns how long the run was as a whole, with what
  // the machine needed. Where threads of the tool wait for each other, that shows in the waits, the
  // more the higher the factor: a run that is too long is tried again with less of it.
  double check_length(const CommandRow& row, const std::string& fault) {
    double waited = kEndless;
    double whole = 0;
    int factor = static_cast<int>(std::min(50 + 25 * row.longest, 10000.0));
    for (int attempt = 0; attempt < 5 && waited > row.longest + 1; ++attempt) {
      const ProgramRun run = run_example(row, fault, factor);
      EXPECT_EQ(run.exit_status, 0) << row.usage;
      // The example's arguments are such as the command wants them.
      EXPECT_EQ(run.standard_output.find("Pls refer to the following cmd"), std::string::npos);
      EXPECT_EQ(words(run.standard_error).size(), 2u) << run.standard_error;
      std::istringstream(run.standard_error) >> waited >> whole;
      factor = factor / 4 + 1;
    }
    EXPECT_LE(waited, row.longest + 1) << row.usage << ", fault \"" << fault << '"';
    return whole;
  }

  std::atomic<int> last_folder_{0};
  const int terminal_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  const bool unlocked_ = grantpt(terminal_) == 0 && unlockpt(terminal_) == 0;
  const std::string terminal_name_ = unlocked_ ? ptsname(terminal_) : "";
};

TEST_F(CommandLimits, NoCommandTakesLongerThanItsRowSays) {
  const std::vector<CommandRow> rows = read_table();
  std::atomic<size_t> next{0};
  const auto work = [&] {
    for (size_t i = 0; (i = next++) < rows.size();) {
      const CommandRow& row = rows[i];
      if (row.longest == kEndless) continue;
      const double reached =
          std::max({check_length(row, ""), check_length(row, "down"), check_length(row, kSilent),
                    check_length(row, kNoIndications)});
      // Nor does the row promise far less than the tool keeps.
      EXPECT_GE(reached, std::min(row.longest - 1, row.longest / 2)) << row.usage;
    }
  };
  std::thread other(work);
  work();
  other.join();
}

TEST_F(CommandLimits, EndlessAndLongCommandsAreNamed) {
  const std::string text = read_file_text(KIV_COMMAND_TABLE);
  Strings named;
  for (const CommandRow& row : read_table()) {
    if (row.longest < 120) continue;
    named.push_back(row.usage);
    const std::string kind = row.longest == kEndless ? "endless" : "long";
    const std::string command = words(row.start).back();
    EXPECT_NE(text.find("\n" + command + " is " + kind + " by nature"), std::string::npos);
    if (kind == "long") continue;
    // Printing still when nobody wants to read any more.
    const ProgramRun run = run_example(row, "", 1);
    EXPECT_EQ(run.signal, SIGPIPE);
    EXPECT_GT(run.standard_output.size(), size_t{16} << 20);
  }
  EXPECT_EQ(named, (Strings{"kiv 10 31 flag", "kiv 11 9 timeout_s"}));
}

// The commands of the combined help: the category's title, the command line and the name.
Strings commands_of_help(const std::string& help) {
  Strings commands;
  std::string title;
  bool named = true;
  for (const std::string& line : split(help, '\n')) {
    const size_t comment = std::min(line.find("/*"), line.size());
    if (const size_t colon = line.find(':'); isdigit(line[0]) != 0) {
      const std::string text = line.substr(colon + 1);
      title = line.substr(0, colon) + " " + trimmed(text.substr(0, text.find(':')));
    } else if (line.starts_with("   kiv ")) {
      commands.push_back(title + ": " + trimmed(line.substr(0, comment)));
      named = false;
    }
    if (!named && comment != line.size()) {
      const size_t end = line.find_first_of(",:(*", comment + 2);
      commands.back() += ": " + trimmed(line.substr(comment + 2, end - comment - 2));
      named = true;
    }
  }
  return commands;
}

TEST_F(CommandLimits, TableHasTheCommandsOfTheHelp) {
  write_state_file_text("properties", "persist.vendor.radio.adb_log_shell=256\n");
  const ProgramRun run = run_program(KIV_BINARY, {}, {"KIV_STATE_DIR=" + state_dir()});
  Strings commands;
  for (const CommandRow& row : read_table()) {
    // These two are in no line of the help.
    if (row.title.starts_with("0 ") || row.title.starts_with("2 ")) continue;
    commands.push_back(row.title + ": " + row.usage + ": " + row.name);
    EXPECT_TRUE((row.example + " ").starts_with(row.start + " ")) << row.example;
  }
  EXPECT_EQ(commands, commands_of_help(run.standard_output));
}

}  // namespace
}  // namespace kiv::test
