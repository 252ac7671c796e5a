#include "tervik_utils_cmn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <future>

#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {
namespace {

using Strings = std::vector<std::string>;

constexpr tervik_log_place kPlace{"a.cpp", 12, "do_it"};

class UtilsCmn : public StateDirectoryTest {
 protected:
  // What a child process wrote to the system log, each line behind its priority ("3: text"), and
  // to standard output.
  struct ChildRun {
    Strings log;
    std::string out;
  };

  // Masks, trace switch and process cache are loaded once in a process: each run has its own.
  // An expectation that fails in `run` fails the test.
  ChildRun run_in_child(const std::function<void()>& run) const {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      const LogCapture log;
      write_state_file_text("out", captured_stdout(run));
      std::string text;
      for (const auto& line : log.lines()) {
        text += std::to_string(line.priority) + ": " + line.text + "\n";
      }
      write_state_file_text("log", text);
      _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    ChildRun result{.log = {}, .out = read_state_file_text("out")};
    EXPECT_EQ(status, 0) << result.out;
    std::istringstream log(read_state_file_text("log"));
    for (std::string line; std::getline(log, line);) result.log.push_back(line);
    return result;
  }
};

TEST_F(UtilsCmn, AnyPropertyTextIsAMask) {
  // Both properties, the shell mask that is set before them (0: none), and the masks.
  const std::tuple<const char*, const char*, uint32_t, uint32_t, uint32_t> rows[] = {
      {"8", "128x", 0, 0x8, 0x80},
      {"-1", "296", 0x1A0, 0xFFFF, 0x120},
      {"", "131072", 0x20000, 0xFFFF, 0x20000},
  };
  for (const auto& [logcat_property, shell_property, before, logcat, shell] : rows) {
    write_state_file_text("properties",
                          std::string("persist.vendor.radio.adb_log_tk=") + logcat_property +
                              "\npersist.vendor.radio.adb_log_shell=" + shell_property + "\n");
    run_in_child([&, set = before, expected = std::pair(logcat, shell)] {
      if (set != 0) tervik_hal_set_shell_print_mask(set);
      tervik_log_error("masks are loaded");
      EXPECT_EQ(std::pair(g_tervik_logcat_print_mask.load(), g_tervik_shell_print_mask.load()),
                expected);
    });
  }
}

TEST_F(UtilsCmn, ArgumentsAreEvaluatedForAnOpenMaskAlone) {
  const ChildRun child = run_in_child([] {
    int evaluated = 0;
    const auto say = [&evaluated](const char* text) {
      tervik_log_print(LOG_CLASS_HELP, 0, "%s", (++evaluated, text));
    };
    tervik_log_error("masks are loaded");
    tervik_hal_remove_shell_print_mask(LOG_CLASS_HELP);
    say("one");
    tervik_hal_set_shell_print_mask(0xFFFF);
    say("two");
    tervik_hal_close_print();
    say("three");
    EXPECT_EQ(evaluated, 2);
    tervik_hal_set_shell_print_mask(LOG_CLASS_HELP);
    say("four");
  });
  EXPECT_TRUE(child.out.ends_with("\ntwo\nfour\n")) << child.out;
}

TEST_F(UtilsCmn, StatementsOfAnyLengthArriveWhole) {
  const std::string place = "[a.cpp:12] do_it: ";
  for (const std::string& text : {std::string("100%s%n%d"), std::string(1023, 'x'),
                                  std::string(1024, 'x'), std::string(70000, 'x')}) {
    const ChildRun child =
        run_in_child([&text] { tervik_log_write(kPlace, LOG_CLASS_DEBUG, 2, "%s", text.c_str()); });
    EXPECT_EQ(std::count(child.log.begin(), child.log.end(), "7: " + place + text), 1);
    EXPECT_EQ(child.out, "RIL" + place + text + "\n");
  }
}

TEST_F(UtilsCmn, ThreadIsDetached) {
  static std::promise<int> detach_state;
  const auto routine = [](void*) -> void* {
    pthread_attr_t attributes;
    int state = -1;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getdetachstate(&attributes, &state);
    pthread_attr_destroy(&attributes);
    detach_state.set_value(state);
    return nullptr;
  };
  EXPECT_NE(tervik_create_pthread(nullptr, routine, nullptr), 0u);
  EXPECT_EQ(detach_state.get_future().get(), PTHREAD_CREATE_DETACHED);
}

TEST_F(UtilsCmn, HexTextStaysInItsBuffer) {
  const uint8_t data[] = {0x01, 0xAB, 0x0C, 0xFF, 0x10};
  for (const auto& [out_max, data_len, text] :
       {std::tuple{5, 3, " 01"}, {7, 5, " 01"}, {8, 5, " 01 AB"}, {19, -1, ""}}) {
    char out[] = "###################";
    EXPECT_EQ(tervik_get_hex_str(out, out_max, data, data_len), 1);
    std::string expected = text;
    expected.resize(static_cast<size_t>(out_max), '\0');
    expected.resize(sizeof out - 1, '#');
    EXPECT_EQ(std::string(out, sizeof out - 1), expected) << out_max;
  }
}

}  // namespace
}  // namespace kiv::test
