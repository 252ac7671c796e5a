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

class CommandLineTest : public ExtensionClientTest {
 protected:
  using Handler = int (*)(int argc, char** argv);

  void SetUp() override {
    ExtensionClientTest::SetUp();
    tervik_hal_set_shell_print_mask(LOG_CLASS_ERROR | LOG_CLASS_NOTICE | LOG_CLASS_HELP);
  }

  // The lines that a run of the tool prints, without their prefixes.
  static Strings run(Strings arguments, Handler handler = tervik_kiv_test_main) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    return printed_by(
        [&] { EXPECT_EQ(handler(static_cast<int>(arguments.size()), argv.data()), 0); });
  }

  // `notes`, then the help of a category (0: all of it).
  static Strings with_help(int category, Strings notes = {}) {
    const Strings help = printed_by([category] { show_help(category); });
    EXPECT_GE(help.size(), 4u);
    notes.insert(notes.end(), help.begin(), help.end());
    return notes;
  }

 private:
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
