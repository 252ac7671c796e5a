// docs/commands.md against the tool: the table has the commands of the tool with their arguments,
// and no command takes longer than its row says, whatever the modem does.

#include <algorithm>
#include <limits>

#include "tervik_kiv_test_main.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/transcripts/scenes.h"
#include "tests/transcripts/transcript.h"

namespace kiv::test {
namespace {

constexpr double kEndless = std::numeric_limits<double>::infinity();  // as a number of seconds

struct CommandRow {
  std::string title;  // of its category, with the number
  std::string start;  // the tool, the category and the command
  std::string arguments;
  std::string usage;  // the command line as the help shows it
  std::string example;
  double longest;  // in seconds
};

// What stands between back quotes, with a blank before each.
std::string back_quoted(const std::string& cell) {
  const Strings parts = split(cell, "`");
  std::string all;
  for (size_t i = 1; i < parts.size(); i += 2) all += " " + parts[i];
  return all;
}

// A sum such as "time_out ms + 2 s": of numbers and of arguments, as the example has them.
double seconds_of(const std::string& longest, const Strings& arguments, const Strings& values) {
  if (longest == "endless") return kEndless;
  double sum = 0;
  for (const std::string& term : split(longest, " + ")) {
    const Strings parts = split(term, " ");
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
  std::vector<CommandRow> rows;
  std::string title;
  for (const std::string& line : split(read_file_text(KIV_COMMAND_TABLE), "\n")) {
    if (line.starts_with("## ")) title = line.substr(3);
    if (!line.starts_with("| ") || line.starts_with("| command |")) continue;
    Strings cells = split(line.substr(2, line.rfind(" |") - 2), " | ");
    EXPECT_EQ(cells.size(), 6u) << line;
    cells.resize(6);
    std::string start = "kiv " + title.substr(0, title.find(' '));
    if (cells[0] != "-") start += " " + cells[0];
    const std::string usage = start + back_quoted(cells[1]);
    const std::string example = back_quoted(cells[4]).substr(1);
    rows.push_back({title, start, cells[1], usage, example,
                    seconds_of(cells[5], split(usage, " "), split(example, " "))});
  }
  EXPECT_GT(rows.size(), 60u);
  return rows;
}

// What is wrong with every service: it is not there; it drops each request, and the AT channel says
// nothing; it answers, but its indications do not come.
std::string faults(const std::string& fault) {
  std::string conf;
  for (const char* service : {"extension", "uim", "nas", "sar", "pdc", "vs", "diag"}) {
    conf += std::string(conf.empty() ? "" : "; ") + "fault." + service + " = " + fault;
  }
  return conf;
}

// How long the example takes, in seconds.
double length(const CommandRow& row, const std::string& modem, void (*scene)() = nullptr) {
  const std::string line = row.example.substr(std::min(row.example.size(), size_t{4}));
  const Transcript run =
      record({.about = "", .line = line.c_str(), .modem = modem.c_str(), .scene = scene});
  for (const std::string& each : run.lines) {
    EXPECT_FALSE(each.starts_with("ended with")) << row.usage << each;
    // The example's arguments are such as the command wants them.
    EXPECT_TRUE(row.example == "kiv" || each.find("Pls refer") == std::string::npos) << each;
  }
  return std::chrono::duration<double>(run.took).count();
}

TEST(CommandLimits, NoCommandTakesLongerThanItsRowSaysNorFarLess) {
#ifdef KIV_SANITIZED
  GTEST_SKIP() << "time is the same in every form";
#endif
  for (const CommandRow& row : read_table()) {
    if (row.longest == kEndless) continue;
    const double reached =
        std::max({length(row, ""), length(row, faults("down")),
                  length(row, faults("silent"), all_is_silent), length(row, "fault.pdc = silent")});
    EXPECT_LE(reached, row.longest + 0.5) << row.usage;
    EXPECT_GE(reached, std::min(row.longest - 1, row.longest / 2)) << row.usage;
  }
}

// What the table says of an argument.
std::string described(const command_argument& argument) {
  std::string text;
  if (argument.kind == argument_kind::UNUSED) {
    text = " is not looked at";
  } else if (argument.meaning != nullptr) {
    text = (*argument.meaning == '\0' ? "" : " ") + std::string(argument.meaning);
  } else {
    const bool is_list = argument.words_max > 1;
    text = is_list ? " 1 to " + std::to_string(argument.words_max)
                   : " " + std::to_string(argument.min) + " to " + std::to_string(argument.max);
    if (is_list || argument.kind == argument_kind::TEXT) text += " bytes";
    if (is_list) text += ", a number each";
    if (argument.kind == argument_kind::HEX_OR_DECIMAL) text += ", decimal or behind 0x";
  }
  text = "`" + std::string(argument.name) + "`" + text;
  return argument.words_min == 0 ? "[" + text + "]" : text;
}

TEST(CommandLimits, TableHasTheCommandsOfTheToolWithTheirArguments) {
  std::string wanted;  // a line a command, so that a failure shows the lines that differ
  for (const command_category* category : tervik_kiv_categories()) {
    for (const category_command& command : category->commands) {
      std::string row = "kiv " + std::to_string(category->number);
      if (command.number != NO_COMMAND_NUMBER) row += " " + std::to_string(command.number);
      const char* separator = ": ";
      for (const command_argument& argument : command.takes) {
        if (argument.name == nullptr) break;
        row += separator + described(argument);
        separator = "; ";
      }
      wanted += row + "\n";
    }
  }
  std::string listed;
  for (const CommandRow& row : read_table()) {
    // These two have no command.
    if (row.title.starts_with("0 ") || row.title.starts_with("2 ")) continue;
    EXPECT_TRUE((row.example + " ").starts_with(row.start + " ")) << row.example;
    listed += row.start + (row.arguments == "-" ? "" : ": " + row.arguments) + "\n";
  }
  EXPECT_EQ(listed, wanted);
}

}  // namespace
}  // namespace kiv::test
