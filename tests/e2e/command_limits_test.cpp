// docs/commands.md against the tool: the table has the commands of the tool's own help, with their
// arguments and names, and no command takes longer than its row says, whatever the modem does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/e2e/program_runner.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Strings = std::vector<std::string>;

// In the place of a number of seconds.
constexpr double kEndless = std::numeric_limits<double>::infinity();

struct CommandRow {
  std::string title;  // of its category, with the number
  std::string command;
  Strings arguments;  // their names
  std::string name;
  Strings example;  // from the category on
  std::string longest;

  // As the help shows the command line.
  std::string usage() const {
    std::string text = "kiv " + title.substr(0, title.find(' '));
    if (command != "-") text += " " + command;
    for (const std::string& argument : arguments) text += " " + argument;
    return text;
  }
};

std::string trimmed(std::string_view text) {
  const size_t begin = std::min(text.find_first_not_of(' '), text.size());
  return std::string(text.substr(begin, text.find_last_not_of(' ') + 1 - begin));
}

Strings words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// What stands between the outer bars of a row, cell by cell.
Strings cells_of(const std::string& line) {
  Strings cells{""};
  for (size_t i = 1; i + 1 < line.size(); ++i) {
    if (line[i] == '|') {
      cells.emplace_back();
    } else {
      if (line.compare(i, 2, "\\|") == 0) ++i;
      cells.back() += line[i];
    }
  }
  for (std::string& cell : cells) cell = trimmed(cell);
  return cells;
}

// What stands between back quotes.
Strings quoted(const std::string& cell) {
  Strings texts;
  for (size_t begin = 0, end = 0; (begin = cell.find('`', begin)) != std::string::npos &&
                                  (end = cell.find('`', begin + 1)) != std::string::npos;
       begin = end + 1) {
    texts.push_back(cell.substr(begin + 1, end - begin - 1));
  }
  return texts;
}

std::vector<CommandRow> read_table() {
  std::istringstream text(read_file_text(KIV_COMMAND_TABLE));
  std::vector<CommandRow> rows;
  std::string title;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("## ")) title = line.substr(3);
    if (!line.starts_with("| ") || line.starts_with("| command |")) continue;
    const Strings cells = cells_of(line);
    if (cells.size() != 6 || quoted(cells[4]).size() != 1) {
      ADD_FAILURE() << "not a row: " << line;
      continue;
    }
    const Strings example = words(quoted(cells[4])[0]);
    EXPECT_EQ(example[0], "kiv") << line;
    rows.push_back({title,
                    cells[0],
                    quoted(cells[1]),
                    cells[2].substr(0, cells[2].find(':')),
                    {example.begin() + 1, example.end()},
                    cells[5]});
  }
  return rows;
}

// A row's longest duration in seconds: a sum of numbers and of the example's values.
double seconds_of(const CommandRow& row) {
  if (row.longest == "endless") return kEndless;
  double sum = 0;
  const Strings terms = words(row.longest);
  for (size_t i = 0; i + 1 < terms.size(); i += 3) {
    const auto argument = std::find(row.arguments.begin(), row.arguments.end(), terms[i]);
    const auto place = static_cast<size_t>(argument - row.arguments.begin());
    const std::string& number =
        argument == row.arguments.end() ? terms[i] : row.example.at(2 + place);
    EXPECT_NE(isdigit(number[0]), 0) << row.usage() << ": " << row.longest;
    EXPECT_TRUE(terms[i + 1] == "s" || terms[i + 1] == "ms") << row.longest;
    sum += atof(number.c_str()) / (terms[i + 1] == "ms" ? 1000 : 1);
  }
  EXPECT_EQ(terms.size() % 3, 2u) << row.usage() << ": " << row.longest;
  return sum;
}

// How long a run took by the tool's own clock: the waits of the command's thread, and the whole
// with what the machine needed.
struct Length {
  double waited = kEndless;
  double whole = 0;
};

// How a modem does not answer.
struct Silence {
  std::string name;
  std::string fault;      // of every service; empty for none
  Strings environment{};  // of the tool
};

constexpr const char* kServices[] = {"extension", "uim", "nas", "sar", "pdc", "vs", "diag"};

class CommandLimits : public StateDirectoryTest {
 protected:
  // A terminal whose other end is open, but silent: the AT channel of a modem that is silent.
  void SetUp() override {
    StateDirectoryTest::SetUp();
    ASSERT_EQ(grantpt(terminal_), 0);
    ASSERT_EQ(unlockpt(terminal_), 0);
    silences_ = {{"healthy", "", {"KIV_AT_DEVICE=" + state_dir() + "/none"}},
                 {"down", "down", {"KIV_AT_DEVICE=" + state_dir() + "/none"}},
                 {"silent",
                  "silent",
                  {std::string("KIV_AT_DEVICE=") + ptsname(terminal_), "KIV_DROP_PDC=1"}}};
  }
  void TearDown() override {
    close(terminal_);
    StateDirectoryTest::TearDown();
  }

  // Runs a row's example on a state directory of its own.
  ProgramRun run_example(const CommandRow& row, const Silence& silence, const std::string& folder,
                         int factor) const {
    std::string conf;
    for (const std::string service : kServices) {
      if (!silence.fault.empty()) conf += "fault." + service + " = " + silence.fault + "\n";
    }
    write_state_file_text(folder + "/modem.conf", conf);
    write_state_file_text(folder + "/properties",
                          "persist.vendor.radio.adb_log_shell=296\n"
                          "persist.vendor.radio.adb_log_tk=0\n");
    // ThreadSanitizer would have each run linger for a second at its end.
    const char* const options = getenv("TSAN_OPTIONS");
    Strings environment = silence.environment;
    environment.push_back(std::string("TSAN_OPTIONS=") + (options != nullptr ? options : "") +
                          " atexit_sleep_ms=0");
    environment.insert(environment.end(),
                       {"KIV_STATE_DIR=" + state_dir() + "/" + folder, "KIV_REPORT_TIME=1",
                        "KIV_TIME_FACTOR=" + std::to_string(factor)});
    return run_program(KIV_TIME_LAPSE_BINARY, row.example, environment);
  }

  // The example's length. Where threads of the tool wait for each other, what the machine adds
  // grows with the factor: a run that is too long is tried again with less of it.
  Length length_of(const CommandRow& row, const Silence& silence, const std::string& folder) const {
    const double limit = seconds_of(row) + 1;
    Length length;
    int factor = static_cast<int>(std::min(50 + 25 * limit, 10000.0));
    for (int attempt = 0; attempt < 5 && length.waited > limit;
         ++attempt, factor = factor / 4 + 1) {
      const ProgramRun run =
          run_example(row, silence, folder + "-" + std::to_string(attempt), factor);
      EXPECT_EQ(run.exit_status, 0) << row.usage();
      // The example's arguments are such as the command wants them.
      EXPECT_EQ(run.standard_output.find("Pls refer to the following cmd"), std::string::npos)
          << row.usage();
      int used = 0;
      EXPECT_EQ(
          sscanf(run.standard_error.c_str(), "%lf %lf\n%n", &length.waited, &length.whole, &used),
          2);
      EXPECT_EQ(run.standard_error.substr(static_cast<size_t>(used)), "") << row.usage();
    }
    return length;
  }

  const int terminal_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  std::vector<Silence> silences_;
};

TEST_F(CommandLimits, NoCommandTakesLongerThanItsRowSays) {
  const std::vector<CommandRow> rows = read_table();
  ASSERT_GT(rows.size(), 60u);
  std::vector<std::vector<Length>> lengths(rows.size(), std::vector<Length>(silences_.size()));
  std::atomic<size_t> next{0};
  const auto work = [&] {
    for (size_t i = 0; (i = next++) < rows.size() * silences_.size();) {
      const size_t row = i / silences_.size();
      const size_t silence = i % silences_.size();
      if (rows[row].longest == "endless") continue;
      lengths[row][silence] = length_of(rows[row], silences_[silence], std::to_string(i));
    }
  };
  std::thread other(work);
  work();
  other.join();
  for (size_t row = 0; row < rows.size(); ++row) {
    if (rows[row].longest == "endless") continue;
    const double longest = seconds_of(rows[row]);
    double reached = 0;
    for (size_t silence = 0; silence < silences_.size(); ++silence) {
      EXPECT_LE(lengths[row][silence].waited, longest + 1)
          << rows[row].usage() << ", " << silences_[silence].name;
      reached = std::max(reached, lengths[row][silence].whole);
    }
    // Nor does the row promise far less than the tool keeps.
    EXPECT_GE(reached, std::min(longest - 1, longest / 2)) << rows[row].usage();
  }
}

TEST_F(CommandLimits, EndlessAndLongCommandsAreNamed) {
  const std::string text = read_file_text(KIV_COMMAND_TABLE);
  Strings named;
  for (const CommandRow& row : read_table()) {
    const double longest = seconds_of(row);
    if (longest < 120) continue;
    named.push_back(row.usage());
    EXPECT_NE(text.find("\n" + row.command + " is " + (longest == kEndless ? "endless" : "long") +
                        " by nature"),
              std::string::npos)
        << row.usage();
    if (longest != kEndless) continue;
    // Printing still when nobody wants to read any more.
    const ProgramRun run = run_example(row, silences_[0], "endless", 1);
    EXPECT_EQ(run.exit_status, -1);
    EXPECT_FALSE(run.timed_out);
    EXPECT_GT(run.standard_output.size(), size_t{1} << 20);
  }
  EXPECT_EQ(named, (Strings{"kiv 10 31 flag", "kiv 11 9 timeout_s"}));
}

// The commands of the combined help: the category's title, the command line and the name.
Strings commands_of_help(const std::string& help) {
  Strings commands;
  std::string title;
  bool named = true;
  std::istringstream text(help);
  for (std::string line; std::getline(text, line);) {
    const size_t comment = std::min(line.find("/*"), line.size());
    if (isdigit(line[0]) != 0) {
      title = trimmed(line.replace(line.find(':'), 1, "").substr(0, line.find(':')));
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
    const std::string category = row.title.substr(0, row.title.find(' '));
    // These two are in no line of the help.
    if (category == "0" || category == "2") continue;
    commands.push_back(row.title + ": " + row.usage() + ": " + row.name);
    EXPECT_EQ(row.example.at(0), category) << row.usage();
    EXPECT_EQ(row.command == "-" ? "-" : row.example.at(1), row.command) << row.usage();
  }
  EXPECT_EQ(commands, commands_of_help(run.standard_output));
}

}  // namespace
}  // namespace kiv::test
