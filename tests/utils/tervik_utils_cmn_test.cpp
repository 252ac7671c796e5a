#include "tervik_utils_cmn.h"

#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
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
constexpr char kLineSeparator = '\x1e';

std::string hex(uint32_t value) {
  char text[16];
  snprintf(text, sizeof text, "0x%x", value);
  return text;
}

Strings texts(const std::vector<LogLine>& lines) {
  Strings all;
  for (const LogLine& line : lines) all.push_back(line.text);
  return all;
}

std::string read_to_end(int descriptor) {
  std::string text;
  char part[4096];
  for (ssize_t got = 0; (got = read(descriptor, part, sizeof part)) > 0;) {
    text.append(part, static_cast<size_t>(got));
  }
  close(descriptor);
  return text;
}

// What a child process wrote to the system log and to standard output.
struct ChildRun {
  std::vector<LogLine> log;
  std::string out;
};

[[noreturn]] void be_child(int report_end, const std::function<void()>& run) {
  std::string report;
  {
    const LogCapture log;
    const std::string out = captured_stdout(run);
    for (const LogLine& line : log.lines()) {
      report += std::to_string(line.priority) + ' ' + line.text + kLineSeparator;
    }
    report += out;
  }
  const bool sent =
      write(report_end, report.data(), report.size()) == static_cast<ssize_t>(report.size());
  _exit(sent && !::testing::Test::HasFailure() ? 0 : 1);
}

// Masks, trace switch and process cache are loaded once in a process: each test has its own.
// An expectation that fails in `run` fails the test.
ChildRun run_in_child(const std::function<void()>& run) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) be_child(ends[1], run);
  close(ends[1]);
  ChildRun result;
  result.out = read_to_end(ends[0]);
  for (size_t end = 0; (end = result.out.find(kLineSeparator)) != std::string::npos;) {
    result.log.push_back({result.out[0] - '0', result.out.substr(2, end - 2)});
    result.out.erase(0, end + 1);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << result.out;
  return result;
}

using UtilsCmn = StateDirectoryTest;

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
                    sink + "_print_mask " + hex(mask));
    };
    add_outcome("logcat", row.logcat);
    for (const uint32_t log_class : kClasses) {
      const std::string text = "class " + hex(log_class).substr(2);
      if ((row.logcat & log_class) != 0) log.push_back("[a.cpp:12] do_it: " + text);
      if (log_class == LOG_CLASS_ERROR) add_outcome("shell", row.shell);
      if ((row.shell & log_class) == 0) continue;
      out += (log_class == LOG_CLASS_HELP ? "" : "RIL[a.cpp:12] do_it: ") + text + "\n";
    }
    Strings logged = texts(child.log);
    std::erase_if(logged, [](const std::string& line) {
      return !line.starts_with('[') && line.find(" print is ") == std::string::npos;
    });
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
    EXPECT_EQ(evaluated, 2);
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
  EXPECT_EQ(child.out.find("one"), std::string::npos);
  EXPECT_NE(child.out.find(": two\n"), std::string::npos);
  EXPECT_NE(child.out.find(": four\n"), std::string::npos);
  EXPECT_EQ(child.out.find("three"), std::string::npos);
}

TEST_F(UtilsCmn, StatementHasTheFormOfItsClassAndSubscription) {
  const struct {
    uint32_t log_class;
    uint32_t sub;
    int priority;
    const char* log;
    const char* out;
  } rows[] = {
      {LOG_CLASS_ERROR, 0, LOG_ERR, "SUB[0][a.cpp:12] do_it: v 5%", "RIL[a.cpp:12] do_it: v 5%"},
      {LOG_CLASS_NOTICE, 1, LOG_NOTICE, "SUB[1][a.cpp:12] do_it: v 5%",
       "RIL[a.cpp:12] do_it: v 5%"},
      {LOG_CLASS_DEBUG, 2, LOG_DEBUG, "[a.cpp:12] do_it: v 5%", "RIL[a.cpp:12] do_it: v 5%"},
      {LOG_CLASS_HELP, 255, LOG_DEBUG, "[a.cpp:12] do_it: v 5%", "v 5%"},
      {LOG_CLASS_HELP, 0, LOG_DEBUG, "SUB[0][a.cpp:12] do_it: v 5%", "v 5%"},
  };
  for (const auto& row : rows) {
    const ChildRun child =
        run_in_child([&row] { tervik_log_write(kPlace, row.log_class, row.sub, "v %d%%", 5); });
    ASSERT_EQ(child.log.size(), 7u);
    EXPECT_EQ(child.log[3].text, row.log);
    EXPECT_EQ(child.log[3].priority, row.priority);
    EXPECT_EQ(child.log[0].priority, LOG_DEBUG);
    EXPECT_EQ(child.out, std::string(row.out) + "\n");
  }
}

void log_here() {
  tervik_log_print(LOG_CLASS_NOTICE, 1, "at line %d", __LINE__);
}

TEST_F(UtilsCmn, StatementNamesItsPlaceAndIsNeitherCutNorReadAsFormat) {
  const ChildRun place = run_in_child(log_here);
  ASSERT_EQ(place.log.size(), 7u);
  const std::string text(message_of(place.log[3].text));
  const std::string line = text.substr(text.rfind(' ') + 1);
  EXPECT_EQ(place.log[3].text,
            "SUB[1][tervik_utils_cmn_test.cpp:" + line + "] log_here: at line " + line);

  for (const size_t length : {size_t{0}, size_t{1023}, size_t{1024}, size_t{1025}, size_t{70000}}) {
    const std::string argument = length == 0 ? "100%s%n%d" : std::string(length, 'x');
    const ChildRun child = run_in_child([&argument] {
      tervik_log_write(kPlace, LOG_CLASS_ERROR, TERVIK_NO_SUB, "%s", argument.c_str());
    });
    ASSERT_EQ(child.log.size(), 7u);
    EXPECT_EQ(child.log[3].text, "[a.cpp:12] do_it: " + argument);
    EXPECT_EQ(child.out, "RIL[a.cpp:12] do_it: " + argument + "\n");
  }
}

TEST_F(UtilsCmn, InvalidLevelIsReportedAndReplaced) {
  const ChildRun child = run_in_child([] {
    tervik_utils_syslog(7, "fine %d", 7);
    tervik_utils_syslog(8, "bad %d", 8);
    tervik_utils_syslog(9, "bad %d", 9);
  });
  const std::vector<LogLine>& log = child.log;
  EXPECT_EQ(texts(log), (Strings{"fine 7", "invalid tk_log_tag, tk_log_tag 8", "bad 8",
                                 "invalid tk_log_tag, tk_log_tag 9", "bad 9"}));
  for (const LogLine& line : log) EXPECT_EQ(line.priority, LOG_DEBUG);
}

TEST_F(UtilsCmn, FirstStatementLoadsMasksAndIdentityOnce) {
  run_in_child([] {
    const LogCapture log;
    tervik_modem_check_odm_white_list();
    const std::string pid = std::to_string(getpid());
    char path[4096] = {};
    const std::string process = read_to_end(fileno(fopen("/proc/self/cmdline", "r")));
    snprintf(path, sizeof path, "%.253s", process.c_str());
    const std::string name = tervik_utils_get_pid_name();
    EXPECT_EQ(name, std::string(path).substr(std::string(path).rfind('/') + 1));
    const std::string identity =
        "TERVIK_MANUFACTURER_ID is TERVIK_MANUFACTURER_ID_TERVIK(1), p_id: " + pid +
        ", p_name: " + name;
    Strings lines = log.messages();
    ASSERT_EQ(lines.size(), 15u);
    EXPECT_EQ(lines[3], "function entry ------------->");
    lines.erase(lines.begin(), lines.begin() + 7);
    EXPECT_EQ(
        lines,
        (Strings{"proc_pid_path: /proc/" + pid + "/cmdline", std::string("proc_pid_buf: ") + path,
                 "str_pid_name: " + name, "p_pid_info->p_name: " + name, "close fp",
                 "p_id: " + pid + ", p_name: " + name, "function exit <-------------", identity}));
    tervik_modem_check_odm_white_list();
    EXPECT_EQ(log.messages().size(), 16u);
    EXPECT_EQ(log.count(identity), 2u);
    tervik_get_current_pid_info(nullptr);
    EXPECT_EQ(log.count("p_pid_info is NULL"), 1u);
  });
}

TEST_F(UtilsCmn, ProcessNameIsTheLastPartOfItsFirstArgument) {
  if (getenv("KIV_TEST_TELL_NAME") != nullptr) {
    tervik_hal_set_shell_print_mask(0);
    fprintf(stderr, "<%s><%s>", tervik_get_current_pid_name(), tervik_utils_get_pid_name());
    return;
  }
  const std::string long_name(300, 'a');
  for (const auto& [argument, name] :
       {std::pair<std::string, std::string>{"/system/bin/kiv", "kiv"},
        {"kiv", "kiv"},
        {"bin/", ""},
        {"", ""},
        {long_name, long_name.substr(0, 253)}}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      dup2(ends[1], STDERR_FILENO);
      setenv("KIV_TEST_TELL_NAME", "1", 1);
      execl("/proc/self/exe", argument.c_str(), "--gtest_brief=1",
            "--gtest_filter=UtilsCmn.ProcessName*", static_cast<char*>(nullptr));
      _exit(1);
    }
    close(ends[1]);
    EXPECT_EQ(read_to_end(ends[0]), "<" + name + "><" + name + ">");
    waitpid(child, nullptr, 0);
  }
}

TEST_F(UtilsCmn, PropertiesAreCheckedAndTraced) {
  run_in_child([] {
    LogCapture log;
    char value[TERVIK_TEXT_SIZE];
    const std::string longest(92, 'v');
    const std::string long_name(300, 'n');
    tervik_log_error("masks are loaded");
    Strings lines{"masks are loaded"};
    const auto expect = [&lines](int result, int expected, const Strings& logged) {
      EXPECT_EQ(result, expected) << logged[0];
      lines.insert(lines.end(), logged.begin(), logged.end());
    };
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
    expect(
        tervik_set_property_value(long_name.c_str(), "cut"), 0,
        {long_name.substr(0, 255) + ": cut, ret = 0", long_name.substr(0, 255) + ": cut, ret = 3"});
    expect(tervik_set_property_value_to_int("c", INT_MIN), 0,
           {"c: -2147483648, ret = 0", "c: -2147483648, ret = 11"});
    tervik_print_property_value(nullptr);
    lines.push_back("property_name is null");
    Strings logged = log.messages();
    std::erase_if(logged, [](const std::string& line) {
      return line.find("print_mask") != std::string::npos;
    });
    EXPECT_EQ(logged, lines);
  });
}

TEST_F(UtilsCmn, IntegerPropertiesAndTraceSwitchedOff) {
  for (const char* trace : {"0", "on", "01"}) {
    write_state_file_text("properties", std::string("persist.vendor.radio.print_prop=") + trace +
                                            "\ntext=abc\nbig=70000 and more\n"
                                            "persist.radio.default_data_sub=1\n");
    run_in_child([] {
      const LogCapture log;
      for (const auto& [name, expected] : {std::pair{"unset", -7}, {"text", 0}, {"big", 70000}}) {
        int value = 99;
        tervik_get_property_value_from_int(name, &value, -7);
        EXPECT_EQ(value, expected) << name;
      }
      EXPECT_EQ(tervik_get_default_data_sub(), 1);
      EXPECT_EQ(tervik_set_property_value("persist.radio.default_data_sub", "0"), 0);
      EXPECT_EQ(tervik_get_default_data_sub(), 0);
      tervik_print_property_value(nullptr);
      EXPECT_EQ(log.messages(), Strings{"prop print is stoped"});
    });
  }
}

struct ThreadReport {
  sem_t done;
  int detach_state = -1;
};

void* report_thread(void* argument) {
  auto* report = static_cast<ThreadReport*>(argument);
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getdetachstate(&attributes, &report->detach_state);
  pthread_attr_destroy(&attributes);
  sem_post(&report->done);
  return nullptr;
}

TEST_F(UtilsCmn, ThreadIsDetachedAndLogged) {
  run_in_child([] {
    tervik_log_error("masks are loaded");
    LogCapture log;
    ThreadReport report;
    sem_init(&report.done, 0, 0);
    EXPECT_NE(tervik_create_pthread(nullptr, report_thread, &report), 0u);
    sem_wait(&report.done);
    EXPECT_EQ(report.detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(log.messages(),
              (Strings{"function entry ------------->", "pthread[Unkown name] will be created",
                       "result = 0", "function exit <-------------"}));
    log.clear();
    EXPECT_EQ(tervik_create_pthread("TERV", nullptr, nullptr), 0u);
    EXPECT_EQ(log.messages(),
              (Strings{"function entry ------------->", "pthread[TERV] will be created",
                       "p_thread_proc_cb is NULL, do nothing", "function exit <-------------"}));
  });
}

TEST_F(UtilsCmn, DeviceStatesHaveNames) {
  const struct {
    uint32_t type;
    const char* text;
    const char* property;
  } rows[] = {{0, "[0]WIFI_STATE", "debug.device.wifi_state"},
              {18, "[18]GRAVITY_Y_AXES_STATE", "debug.device.gravity_y_axes_state"},
              {22, "[22]SAR_SENSOR3_STATE", "debug.device.sar_sensor3_state"},
              {23, nullptr, nullptr},
              {UINT32_MAX, nullptr, nullptr}};
  for (const auto& row : rows) {
    EXPECT_STREQ(tervik_get_device_type_string_ex(row.type), row.text);
    EXPECT_STREQ(tervik_get_device_state_prop_name(row.type), row.property);
  }
}

TEST_F(UtilsCmn, HexTextStaysInItsBuffer) {
  run_in_child([] {
    const uint8_t data[] = {0x01, 0xAB, 0x0C, 0xFF, 0x10};
    char out[20];
    const struct {
      char* out;
      int out_max;
      const uint8_t* data;
      int data_len;
      int result;
      const char* text;  // or the log line of a failure
    } rows[] = {
        {out, 5, data, 3, 1, " 01"},
        {out, 7, data, 5, 1, " 01"},
        {out, 8, data, 5, 1, " 01 AB"},
        {out, 10, data, 5, 1, " 01 AB"},
        {out, 16, data, 5, 1, " 01 AB 0C FF"},
        {out, 19, data, 5, 1, " 01 AB 0C FF 10"},
        {out, 19, data, 0, 1, ""},
        {out, 19, data, -1, 1, ""},
        {nullptr, 16, data, 1, 0, "hex_str is null"},
        {out, 4, data, 1, 0, "len_max is invalid"},
        {out, -1, nullptr, 1, 0, "len_max is invalid"},
        {out, 16, nullptr, 1, 0, "ptr_data is null"},
    };
    for (const auto& row : rows) {
      const LogCapture log;
      std::fill(std::begin(out), std::end(out), '#');
      EXPECT_EQ(tervik_get_hex_str(row.out, row.out_max, row.data, row.data_len), row.result);
      std::string expected(sizeof out, '#');
      if (row.result == 1) {
        expected.replace(0, static_cast<size_t>(row.out_max), static_cast<size_t>(row.out_max), 0);
        expected.replace(0, strlen(row.text), row.text);
      } else {
        EXPECT_EQ(log.count(row.text), 1u) << row.text;
      }
      EXPECT_EQ(std::string(out, sizeof out), expected) << row.out_max;
    }
  });
}

TEST_F(UtilsCmn, StringComparisonTellsTheFirstReason) {
  run_in_child([] {
    tervik_log_error("masks are loaded");
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
      EXPECT_EQ(log.messages(), Strings{row.line});
    }
  });
}

}  // namespace
}  // namespace kiv::test
