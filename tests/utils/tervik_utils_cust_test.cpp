#include "tervik_utils_cust.h"

#include <climits>

#include "qcril_qmi_util.h"
#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;

class UtilsCust : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
  }
};

constexpr int kGet = -1;  // in place of the type to set

TEST_F(UtilsCust, SsrTypeIsReadAndSetWithItsBackup) {
  const std::string longest(91, 'L');
  const struct {
    std::string before;  // level, backup and flag
    int type;
    int result;
    std::string after;
  } rows[] = {
      {longest + "/old/", kGet, 0, longest + "/" + longest + "/yes"},
      {"//yes", kGet, 0, "//yes"},
      {"ALL_ENABLE/old/yes", kGet, 1, "ALL_ENABLE/old/yes"},
      {"ALL_DISABLE/old/yes", kGet, 2, "ALL_DISABLE/old/yes"},
      {"/old/yes", kGet, 2, "/old/yes"},
      {"all_enable/old/yes", kGet, 3, "all_enable/old/yes"},
      {"x/old/", 0, 0, "x/old/"},
      {"old/old/yes", 0, 0, "old/old/yes"},
      {"ALL_ENABLE//yes", 0, 1, "//yes"},
      {"ALL_ENABLE//", 1, 0, "ALL_ENABLE//"},
      {"ALL_ENABLE//", 3, 0, "ALL_ENABLE//"},
  };
  const auto properties = [](std::string values) {
    values.replace(values.rfind('/'), 1, "\npersist.vendor.ssr.type_bak_flag=");
    values.replace(values.find('/'), 1, "\npersist.vendor.ssr.type_bak=");
    return "persist.vendor.ssr.restart_level=" + values + "\n";
  };
  const LogCapture log;
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << &row - rows);
    write_state_file_text("properties", properties(row.before));
    EXPECT_EQ(row.type == kGet ? tervik_get_modem_ssr_type()
                               : tervik_set_modem_ssr_type(static_cast<uint32_t>(row.type)),
              row.result);
    EXPECT_EQ(read_state_file_text("properties"), properties(row.after));
  }
  for (const char* line :
       {"PROP - MODEM_RESTART_LEVEL_ID_DEF: , type: 0",
        "PROP - MODEM_RESTART_LEVEL_ID_SSR: ALL_ENABLE, type: 1",
        "PROP - MODEM_RESTART_LEVEL_ID_DUMP: ALL_DISABLE, type: 2",
        "PROP - NO ssr type def, do nothing", "PROP - ssr type is def, do nothing",
        "ssr type is enable, do nothing", "TERVIK_SSR_START_WITH_PROP, invalid ssr type"}) {
    EXPECT_EQ(log.count(line), 1u) << line;
  }
}

TEST_F(UtilsCust, WaitsLastAsLongAsTheArgumentOrElseTheirPropertySays) {
  const auto ssr = tervik_modem_ssr_wait_s;
  const auto modem = tervik_modem_wait_s;
  const std::tuple<int (*)(int), int, std::string, int> rows[] = {
      {ssr, INT_MIN, "7", 7}, {modem, -1, "4s", 4},   {ssr, 2, "7", 2},
      {modem, 0, "7", 0},     {modem, -1, "none", 0}, {modem, -9, "-1", -1}};
  for (const auto& [wait, argument, property, waited] : rows) {
    write_state_file_text("properties", "persist.radio.ssr_wait_s=" + property +
                                            "\npersist.radio.modem_wait_s=" + property + "\n");
    const auto begin = virtual_now();
    EXPECT_EQ(wait(argument), waited);
    EXPECT_EQ(virtual_now() - begin, std::max(waited, 0) * 1s);
  }
}

TEST(RilResult, EveryQmiErrorHasItsResult) {
  const auto convert = qcril_qmi_util_convert_qmi_response_codes_to_ril_result;
  // Behind each result the errors that have it; 40 for all others.
  const std::pair<int, std::vector<int>> results[] = {
      {0, {0, 26}},       {6, {25, 71}}, {7, {4}},   {14, {91}},     {37, {2}},
      {38, {1}},          {39, {83}},    {42, {51}}, {46, {52, 90}}, {44, {17, 19, 48}},
      {54, {24, 60, 70}}, {57, {58}},    {58, {73}}, {59, {50}},     {60, {53}},
      {61, {16, 74}},     {62, {95}},    {63, {13}}, {64, {23}},     {65, {97}}};
  for (int error = -1; error < 200; ++error) {
    int expected = 40;
    for (const auto& [result, errors] : results) {
      if (std::find(errors.begin(), errors.end(), error) != errors.end()) expected = result;
    }
    for (const int transport : {0, -2}) {
      const qmi_result failure{1, error};
      EXPECT_EQ(convert(transport, &failure), expected) << error;
    }
    for (const auto& [transport, result, converted] :
         {std::tuple{0, 0, 0}, {-2, 0, 0}, {0, 2, 39}, {0, -1, 39}, {-1, 0, 39}, {1, 1, 39}}) {
      const qmi_result response{result, error};
      EXPECT_EQ(convert(transport, &response), converted) << error;
    }
  }
  EXPECT_EQ(convert(0, nullptr) | convert(-2, nullptr), 0);
  EXPECT_EQ(convert(-1, nullptr), 39);
}

}  // namespace
}  // namespace kiv::test
