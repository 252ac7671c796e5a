#include "tervik_utils_cmn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Strings = std::vector<std::string>;

constexpr tervik_log_place kPlace{"a.cpp", 12, "do_it"};
constexpr uint32_t kClasses[] = {LOG_CLASS_ERROR, LOG_CLASS_NOTICE, LOG_CLASS_DEBUG,
                                 LOG_CLASS_HELP};

std::string hex(uint32_t value) {
  char text[16];
  snprintf(text, sizeof text, "%x", value);
  return text;
}

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

TEST_F(UtilsCmn, EachMaskIsMergedWithItsPropertyAtItsFirstQuery) {
  constexpr uint32_t kOpen = 0xFFFF;
  const struct {
    const char* logcat_property;
    const char* shell_property;
    uint32_t set_before;  // the shell mask, kOpen: not set
    uint32_t logcat;
    uint32_t shell;
  } rows[] = {
      {"", "", kOpen, kOpen, kOpen},           {"", "0", kOpen, kOpen, 0},
      {"", "296", kOpen, kOpen, 0x128},        {"", "abc", kOpen, kOpen, 0},
      {"296", "", kOpen, 0x128, kOpen},        {"0", "0", kOpen, 0, 0},
      {"8", "128x", kOpen, 0x8, 0x80},         {"-1", "-1", kOpen, kOpen, kOpen},
      {"", "296", 0x1A0, kOpen, 0x120},        {"", "", 0x1FFFF, kOpen, kOpen},
      {"", "131072", 0x20000, kOpen, 0x20000},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.logcat_property) + " / " + row.shell_property);
    write_state_file_text("properties",
                          std::string("persist.vendor.radio.adb_log_tk=") + row.logcat_property +
                              "\npersist.vendor.radio.adb_log_shell=" + row.shell_property + "\n");
    const ChildRun child = run_in_child([&row] {
      if (row.set_before != kOpen) tervik_hal_set_shell_print_mask(row.set_before);
      for (const uint32_t log_class : kClasses) {
        tervik_log_write(kPlace, log_class, TERVIK_NO_SUB, "class %x", log_class);
      }
    });
    Strings log;
    std::string out;
    const auto add_outcome = [&log](const std::string& sink, uint32_t mask) {
      log.push_back(sink + " print is " + (mask != 0 ? "started" : "stoped") + ", g_tervik_" +
                    sink + "_print_mask 0x" + hex(mask));
    };
    add_outcome("logcat", row.logcat);
    for (const uint32_t log_class : kClasses) {
      const std::string text = "class " + hex(log_class);
      if ((row.logcat & log_class) != 0) log.push_back("[a.cpp:12] do_it: " + text);
      if (log_class == LOG_CLASS_ERROR) add_outcome("shell", row.shell);
      if ((row.shell & log_class) == 0) continue;
      out += (log_class == LOG_CLASS_HELP ? "" : "RIL[a.cpp:12] do_it: ") + text + "\n";
    }
    Strings logged;
    for (const std::string& line : child.log) {
      if (line[3] != '[' && line.find(" print is ") == std::string::npos) continue;
      logged.push_back(line.substr(3));
    }
    EXPECT_EQ(logged, log);
    EXPECT_EQ(child.out, out);
  }
}

TEST_F(UtilsCmn, MasksAreChangedDuringTheRun) {
  const ChildRun child = run_in_child([] {
    int evaluated = 0;
    const auto say = [&evaluated](const char* text) {
      tervik_log_print(LOG_CLASS_DEBUG, 0, "%s", (++evaluated, text));
    };
    const LogCapture log;
    EXPECT_TRUE(tervik_hal_get_logcat_print_flag(0xFFFF));
    EXPECT_FALSE(tervik_hal_get_shell_print_flag(0x10008));
    tervik_hal_remove_shell_print_mask(0x80);
    say("one");
    tervik_hal_set_shell_print_mask(0xFFFF);
    say("two");
    tervik_hal_close_print();
    say("three");
    EXPECT_EQ(evaluated, 2);
    EXPECT_TRUE(tervik_hal_get_shell_print_flag(0));
    EXPECT_FALSE(tervik_hal_get_logcat_print_flag(LOG_CLASS_ERROR));
    tervik_utils_syslog_err("unmasked %d", 1);
    tervik_hal_set_shell_print_mask(LOG_CLASS_DEBUG);
    say("four");
    EXPECT_EQ(log.messages(),
              (Strings{"merge, old tervik_hal_set_logcat_print_mask 0xffff, merge_mask 0xffff",
                       "new tervik_hal_set_logcat_print_mask 0xffff",
                       "logcat print is started, g_tervik_logcat_print_mask 0xffff",
                       "merge, old g_tervik_shell_print_mask 0xffff, merge_mask 0xffff",
                       "new g_tervik_shell_print_mask 0xffff",
                       "shell print is started, g_tervik_shell_print_mask 0xffff",
                       "remove, old g_tervik_shell_print_mask 0xffff, rm_mask 0x80",
                       "new g_tervik_shell_print_mask 0xff7f", "one",
                       "set, old g_tervik_shell_print_mask 0xff7f, dst_mask 0xffff",
                       "new g_tervik_shell_print_mask 0xffff", "two",
                       "close, g_tervik_logcat_print_mask 0xffff",
                       "close, g_tervik_shell_print_mask 0xffff", "unmasked 1",
                       "set, old g_tervik_shell_print_mask 0x0, dst_mask 0x80",
                       "new g_tervik_shell_print_mask 0x80"}));
  });
  EXPECT_EQ(child.out.find(": one\n"), std::string::npos);
  EXPECT_NE(child.out.find(": two\n"), std::string::npos);
  EXPECT_EQ(child.out.find(": three\n"), std::string::npos);
  EXPECT_NE(child.out.find(": four\n"), std::string::npos);
}

TEST_F(UtilsCmn, StatementHasTheFormOfItsClassAndSubscription) {
  const std::string place = "[a.cpp:12] do_it: ";
  const struct {
    uint32_t log_class;
    uint32_t sub;
    std::string log_prefix;
    std::string out_prefix;
    std::string text = "100%s%n%d";
  } rows[] = {
      {LOG_CLASS_ERROR, 0, "3: SUB[0]" + place, "RIL" + place},
      {LOG_CLASS_NOTICE, 1, "5: SUB[1]" + place, "RIL" + place},
      {LOG_CLASS_DEBUG, 2, "7: " + place, "RIL" + place},
      {LOG_CLASS_HELP, 255, "7: " + place, ""},
      {LOG_CLASS_HELP, 0, "7: SUB[0]" + place, ""},
      {LOG_CLASS_DEBUG, 255, "7: " + place, "RIL" + place, std::string(1023, 'x')},
      {LOG_CLASS_DEBUG, 255, "7: " + place, "RIL" + place, std::string(1024, 'x')},
      {LOG_CLASS_DEBUG, 255, "7: " + place, "RIL" + place, std::string(1025, 'x')},
      {LOG_CLASS_DEBUG, 255, "7: " + place, "RIL" + place, std::string(70000, 'x')},
  };
  for (const auto& row : rows) {
    const ChildRun child = run_in_child(
        [&row] { tervik_log_write(kPlace, row.log_class, row.sub, "%s", row.text.c_str()); });
    ASSERT_EQ(child.log.size(), 7u);
    EXPECT_EQ(child.log[3], row.log_prefix + row.text);
    EXPECT_EQ(child.out, row.out_prefix + row.text + "\n");
  }
}

TEST_F(UtilsCmn, InvalidLevelIsReportedAndReplaced) {
  const ChildRun child = run_in_child([] {
    tervik_utils_syslog(6, "fine");
    tervik_utils_syslog(8, "bad %d", 8);
  });
  EXPECT_EQ(child.log, (Strings{"6: fine", "7: invalid tk_log_tag, tk_log_tag 8", "7: bad 8"}));
}

TEST_F(UtilsCmn, PropertiesAreCheckedAndTraced) {
  run_in_child([] {
    LogCapture log;
    char value[TERVIK_TEXT_SIZE];
    const std::string longest(92, 'v');
    const std::string long_name(300, 'n');
    const std::string cut_name(255, 'n');
    tervik_log_error("masks are loaded");
    const auto expect = [&log](int result, int expected, const Strings& logged) {
      EXPECT_EQ(result, expected);
      EXPECT_EQ(log.messages(), logged);
      log.clear();
    };
    log.clear();
    expect(tervik_get_property_value(nullptr, value, ""), -1, {"property_name is null"});
    expect(tervik_get_property_value("a", nullptr, ""), -2, {"property_value is null"});
    expect(tervik_get_property_value("a", value, nullptr), -3, {"default_property_value is null"});
    expect(tervik_set_property_value(nullptr, nullptr), -1, {"property_name is null"});
    expect(tervik_set_property_value("a", nullptr), -2, {"property_value is null"});
    expect(tervik_set_property_value("a", (longest + "v").c_str()), -3,
           {"property_value len(93) is out of range(92)"});
    expect(tervik_get_property_value("a", value, "none"), 4,
           {"prop print is started", "a: none, ret = 4"});
    expect(tervik_set_property_value("a", longest.c_str()), 0,
           {"a: " + longest + ", ret = 0", "a: " + longest + ", ret = 92"});
    expect(tervik_set_property_value("b", "two\nlines"), -1,
           {"b: two\nlines, ret = -1", "b: null_val, ret = 8"});
    expect(tervik_set_property_value(long_name.c_str(), "cut"), 0,
           {cut_name + ": cut, ret = 0", cut_name + ": cut, ret = 3"});
    expect(tervik_set_property_value_to_int("c", INT_MIN), 0,
           {"c: -2147483648, ret = 0", "c: -2147483648, ret = 11"});
  });
}

TEST_F(UtilsCmn, IntegerPropertiesAndTraceSwitchedOff) {
  for (const char* trace : {"0", "on", "01"}) {
    write_state_file_text("properties", std::string("persist.vendor.radio.print_prop=") + trace +
                                            "\ntext=abc\nbig=70000 and more\n");
    run_in_child([] {
      const LogCapture log;
      for (const auto& [name, expected] : {std::pair{"unset", -7}, {"text", 0}, {"big", 70000}}) {
        int value = 99;
        tervik_get_property_value_from_int(name, &value, -7);
        EXPECT_EQ(value, expected) << name;
      }
      EXPECT_EQ(log.messages(), Strings{"prop print is stoped"});
    });
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
  EXPECT_EQ(tervik_create_pthread("TERV", nullptr, nullptr), 0u);
}

TEST_F(UtilsCmn, HexTextStaysInItsBuffer) {
  const uint8_t data[] = {0x01, 0xAB, 0x0C, 0xFF, 0x10};
  const struct {
    int out_max;
    int data_len;
    std::string text;
  } rows[] = {
      {5, 3, " 01"},
      {7, 5, " 01"},
      {8, 5, " 01 AB"},
      {10, 5, " 01 AB"},
      {16, 5, " 01 AB 0C FF"},
      {19, 5, " 01 AB 0C FF 10"},
      {19, 0, ""},
      {19, -1, ""},
  };
  char out[20];
  for (const auto& row : rows) {
    memset(out, '#', sizeof out);
    EXPECT_EQ(tervik_get_hex_str(out, row.out_max, data, row.data_len), 1);
    std::string expected = row.text;
    expected.resize(static_cast<size_t>(row.out_max), '\0');
    expected.resize(sizeof out, '#');
    EXPECT_EQ(std::string(out, sizeof out), expected) << row.out_max;
  }
  EXPECT_EQ(tervik_get_hex_str(nullptr, 16, data, 1), 0);
  EXPECT_EQ(tervik_get_hex_str(out, 4, data, 1), 0);
  EXPECT_EQ(tervik_get_hex_str(out, -1, nullptr, 1), 0);
  EXPECT_EQ(tervik_get_hex_str(out, 16, nullptr, 1), 0);
}

TEST_F(UtilsCmn, StringComparisonTellsTheFirstReason) {
  const struct {
    const char* str1;
    const char* str2;
    int result;
    const char* line;
  } rows[] = {
      {nullptr, nullptr, -101, "str1 is null"},
      {"a", nullptr, -102, "str2 is null"},
      {"abc", "ab", -103, "len1(3) != len2(2), str1: abc, str2: ab"},
      {"abc", "abd", 104, "str1[2]('c') != str2[2]('d'), str1(3): abc, str2(3): abd"},
      {"Abc", "abd", 104, "str1[0]('A') != str2[0]('a'), str1(3): Abc, str2(3): abd"},
      {"abc", "abc", 0, "same, str1(3): abc, str2(3): abc"},
      {"", "", 0, "same, str1(0): , str2(0): "},
  };
  for (const auto& row : rows) {
    const LogCapture log;
    EXPECT_EQ(tervik_str_cmp(row.str1, row.str2), row.result);
    EXPECT_EQ(log.count(row.line), 1u) << row.line;
  }
}

}  // namespace
}  // namespace kiv::test
