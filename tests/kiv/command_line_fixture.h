// Runs of the whole tool inside the test's process. Standard output shows errors, results and help
// texts, but no traces.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tervik_kiv_test_args.h"
#include "tervik_kiv_test_main.h"
#include "tests/qmi/extension_client_fixture.h"

namespace kiv::test {

inline std::string error_code(int code) {
  return "note: Error happen! error_code(" + std::to_string(code) + ")";
}

// The words of a command line, with the tool's name before them and `data_bytes` numbers behind.
inline Strings command(const std::string& line, size_t data_bytes = 0) {
  Strings arguments{"kiv"};
  std::string word;
  for (const char c : line + " ") {
    if (c != ' ') {
      word += c;
    } else {
      arguments.push_back(std::exchange(word, ""));
    }
  }
  for (size_t i = 0; i < data_bytes; ++i) arguments.push_back(std::to_string(i + 1));
  return arguments;
}

inline size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

class CommandLineTest : public ExtensionClientTest {
 protected:
  using Handler = std::function<void(int argc, char** argv)>;

  void SetUp() override {
    ExtensionClientTest::SetUp();
    tervik_hal_set_shell_print_mask(LOG_CLASS_ERROR | LOG_CLASS_NOTICE | LOG_CLASS_HELP);
  }

  // The lines that a run of the tool prints, without their prefixes.
  static Strings run(Strings arguments, const Handler& handler = run_tool) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    return printed_by([&] { handler(static_cast<int>(arguments.size()), argv.data()); });
  }

  // `notes`, then the help of a category (0: all of it).
  static Strings with_help(int category, Strings notes = {}) {
    const Strings help = printed_by([category] { show_help(category); });
    EXPECT_GE(help.size(), 4u);
    notes.insert(notes.end(), help.begin(), help.end());
    return notes;
  }

  // The line prints `notes` (with '|' between them), then its category's help.
  static void expect_help(const std::string& line, const std::string& notes) {
    EXPECT_EQ(run(command(line)), with_help(std::stoi(line), split(notes))) << line;
  }

 private:
  static void run_tool(int argc, char** argv) { EXPECT_EQ(tervik_kiv_test_main(argc, argv), 0); }

  static Strings printed_by(const std::function<void()>& print) {
    const std::string text = captured_stdout(print);
    Strings lines;
    for (size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
      lines.emplace_back(message_of(std::string_view(text).substr(begin, end - begin)));
    }
    return lines;
  }
};

}  // namespace kiv::test
