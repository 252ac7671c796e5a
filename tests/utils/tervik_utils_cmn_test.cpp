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
  const ChildRun child = run_in_child([] {
    tervik_utils_syslog(6, "fine");
    tervik_utils_syslog(8, "bad %d", 8);
  });
  EXPECT_EQ(child.log, (Strings{"6: fine", "7: invalid tk_log_tag, tk_log_tag 8", "7: bad 8"}));
}

TEST_F(UtilsCmn, PropertiesAreCheckedAndCut) {
  run_in_child([] {
    const LogCapture log;
    char value[TERVIK_TEXT_SIZE];
    const std::string longest(92, 'v');
    const std::string long_name(300, 'n');
    EXPECT_EQ(tervik_get_property_value(nullptr, value, ""), -1);
    EXPECT_EQ(tervik_get_property_value("a", nullptr, ""), -2);
    EXPECT_EQ(tervik_get_property_value("a", value, nullptr), -3);
    EXPECT_EQ(tervik_set_property_value(nullptr, nullptr), -1);
    EXPECT_EQ(tervik_set_property_value("a", nullptr), -2);
    EXPECT_EQ(tervik_set_property_value("a", (longest + "v").c_str()), -3);
    EXPECT_EQ(tervik_set_property_value("a", longest.c_str()), 0);
    EXPECT_EQ(tervik_get_property_value("a", value, "none"), 92);
    EXPECT_EQ(tervik_set_property_value("b", "two\nlines"), -1);
    EXPECT_EQ(tervik_set_property_value(long_name.c_str(), "cut"), 0);
    const std::pair<std::string, size_t> lines[] = {
        {"property_name is null", 2},
        {"property_value is null", 2},
        {"default_property_value is null", 1},
        {"property_value len(93) is out of range(92)", 1},
        {"b: two\nlines, ret = -1", 1},
        {"b: null_val, ret = 8", 1},
        {long_name.substr(0, 255) + ": cut, ret = 3", 1}};
    for (const auto& [line, times] : lines) EXPECT_EQ(log.count(line), times) << line;
  });
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
  EXPECT_EQ(tervik_create_pthread("TERV", nullptr, nullptr), 0u);
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
  char out[16];
  EXPECT_EQ(tervik_get_hex_str(nullptr, 16, data, 1), 0);
  EXPECT_EQ(tervik_get_hex_str(out, 4, data, 1), 0);
  EXPECT_EQ(tervik_get_hex_str(out, 16, nullptr, 1), 0);
}

TEST_F(UtilsCmn, StringComparisonTellsTheFirstReason) {
  tervik_log_error("masks are loaded");
  const LogCapture log;
  EXPECT_EQ(tervik_str_cmp(nullptr, nullptr), -101);
  EXPECT_EQ(tervik_str_cmp("a", nullptr), -102);
  EXPECT_EQ(tervik_str_cmp("abc", "abd"), 104);
  EXPECT_EQ(log.messages(), (Strings{"str1 is null", "str2 is null",
                                     "str1[2]('c') != str2[2]('d'), str1(3): abc, str2(3): abd"}));
}

}  // namespace
}  // namespace kiv::test
