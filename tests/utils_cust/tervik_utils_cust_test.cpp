#include "tervik_utils_cust.h"

#include <gtest/gtest.h>

#include <climits>

#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using Strings = std::vector<std::string>;
using std::chrono::seconds;

class UtilsCust : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
  }
};

constexpr int kGet = -1;  // in place of the type to set

// Level, backup and flag, as the rows below write them.
std::string present_levels() {
  std::string levels;
  for (const char* name : {"restart_level", "type_bak", "type_bak_flag"}) {
    char value[TERVIK_TEXT_SIZE];
    tervik_get_property_value((std::string("persist.vendor.ssr.") + name).c_str(), value, "");

    levels.append(value).append("/");
  }
  levels.pop_back();
  return levels;
}

TEST_F(UtilsCust, SsrTypeIsReadAndSetWithItsBackup) {
  const std::string longest(91, 'L');
  const std::string def = "PROP - MODEM_RESTART_LEVEL_ID_DEF: ";
  const std::string ssr = "PROP - MODEM_RESTART_LEVEL_ID_SSR: ALL_ENABLE";
  const std::string dump = "PROP - MODEM_RESTART_LEVEL_ID_DUMP: ALL_DISABLE";
  const std::string saved = ", type: 0, and save";
  const std::string kept = "|TERVIK_SSR_START_WITH_PROP, already bak";
  const std::string invalid = "TERVIK_SSR_START_WITH_PROP, invalid ssr type";
  const struct {
    std::string before;
    int type;
    int result;
    std::string after;
    std::string lines;
  } rows[] = {
      {"//", kGet, 0, "//yes", def + saved},
      {longest + "/old/", kGet, 0, longest + "/" + longest + "/yes", def + longest + saved},
      {"//yes", kGet, 0, "//yes", def + ", type: 0"},
      {"ALL_ENABLE/old/yes", kGet, 1, "ALL_ENABLE/old/yes", ssr + ", type: 1"},
      {"ALL_DISABLE/old/yes", kGet, 2, "ALL_DISABLE/old/yes", dump + ", type: 2"},
      {"/old/yes", kGet, 2, "/old/yes", "PROP - MODEM_RESTART_LEVEL_ID_DUMP: , type: 2"},
      {"all_enable/old/yes", kGet, 3, "all_enable/old/yes",
       "PROP - MODEM_RESTART_LEVEL_ID_INVALID: all_enable, type: 3"},
      {"x/old/", 0, 0, "x/old/", "PROP - NO ssr type def, do nothing"},
      {"old/old/yes", 0, 0, "old/old/yes", "PROP - ssr type is def, do nothing"},
      {"ALL_ENABLE/old/yes", 0, 1, "old/old/yes", def + "old" + kept},
      {"ALL_ENABLE//yes", 0, 1, "//yes", def + kept},
      {"ALL_ENABLE//", 1, 0, "ALL_ENABLE//", "ssr type is enable, do nothing"},
      {"//", 1, 1, "ALL_ENABLE/ALL_ENABLE/yes", ssr},
      {"ALL_DISABLE/old/yes", 1, 1, "ALL_ENABLE/old/yes", ssr + kept},
      {"ALL_DISABLE//", 2, 0, "ALL_DISABLE//", "ssr type is disable, do nothing"},
      {"/old/", 2, 1, "ALL_DISABLE/ALL_DISABLE/yes", dump},
      {"ALL_ENABLE/old/yes", 2, 1, "ALL_DISABLE/old/yes", dump + kept},
      {"ALL_ENABLE//", 3, 0, "ALL_ENABLE//", invalid},
      {"ALL_ENABLE/old/yes", INT_MIN, 0, "ALL_ENABLE/old/yes", invalid},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << &row - rows);
    const size_t first = row.before.find('/');
    const size_t second = row.before.rfind('/');
    const std::string backup = row.before.substr(first + 1, second - first - 1);
    const std::string flag = row.before.substr(second + 1);
    write_state_file_text("properties",
                          "persist.vendor.ssr.restart_level=" + row.before.substr(0, first) +
                              "\npersist.vendor.ssr.type_bak=" + backup +
                              "\npersist.vendor.ssr.type_bak_flag=" + flag + "\n");
    const std::string shown =
        row.type == kGet ? "ssr_type_bak: " + backup : "type: " + std::to_string(row.type);
    const LogCapture log;
    EXPECT_EQ(row.type == kGet ? tervik_get_modem_ssr_type()
                               : tervik_set_modem_ssr_type(static_cast<uint32_t>(row.type)),
              row.result);
    std::string lines;
    for (const std::string& line : log.messages_from("[tervik_utils_cust.cpp:")) {
      lines += (lines.empty() ? "" : "|") + line;
    }
    EXPECT_EQ(lines,
              "g_ssr_start_flag: 0, " + shown + ", ssr_type_bak_flag: " + flag + "|" + row.lines);
    EXPECT_EQ(present_levels(), row.after);
  }
}

TEST_F(UtilsCust, WaitsLastAsLongAsTheArgumentOrElseTheirPropertySays) {
  const auto ssr = tervik_modem_ssr_wait_s;
  const auto modem = tervik_modem_wait_s;
  const struct {
    int (*wait)(int);
    int argument;
    const char* property;
    int waited;
  } rows[] = {{ssr, -1, "", 5},       {modem, -1, "", 3},  {ssr, INT_MIN, "7", 7},
              {modem, -1, "4s", 4},   {ssr, 2, "7", 2},    {modem, 2, "-1", 2},
              {ssr, 0, "7", 0},       {modem, 0, "7", 0},  {ssr, -1, "0", 0},
              {modem, -1, "none", 0}, {ssr, -1, "-4", -4}, {modem, -9, "-1", -1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << &row - rows);
    const std::string name = row.wait == ssr ? "ssr " : "";
    write_state_file_text(
        "properties", (name.empty() ? "persist.radio.modem_wait_s=" : "persist.radio.ssr_wait_s=") +
                          std::string(row.property) + "\n");
    const TimeLapse lapse(1000);
    const LogCapture log;
    EXPECT_EQ(row.wait(row.argument), row.waited);
    const std::string number = std::to_string(row.waited);
    Strings lines{name + "wait_s = " + number};
    std::vector<std::chrono::nanoseconds> slept;
    if (row.waited < 1) {
      lines.emplace_back(name.empty() ? "will not wait" : "modem ssr will not wait");
    } else {
      lines.insert(lines.end(), {"wait-start(" + number + "s) ...", "wait-end(" + number + "s)"});
      slept.emplace_back(seconds(row.waited));
    }
    EXPECT_EQ(log.messages_from("[tervik_utils_cust.cpp:"), lines);
    EXPECT_EQ(lapse.slept(), slept);
  }
}

}  // namespace
}  // namespace kiv::test
