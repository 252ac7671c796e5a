#include <gtest/gtest.h>

#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using KivRf = CommandLineTest;

const std::string kEfsFailed = "|tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS|";
const std::string kCommonFailed =
    "|send msg sync failed: -5, id: 4|tervik_extend_qmi_send_sync fail, REQUEST_ID_COMMON|";

TEST_F(KivRf, SettingsReachTheModemAsTyped) {
  // What the answer says is not looked at.
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_of(Bytes(508, 9)); });
  const std::string gpio = "tervik_gpio_test_set";
  const std::string tx = "tervik_rf_tx_test_set, argc(6)|";
  const struct {
    const char* line;
    size_t more_values;  // behind the line: 1, 2, 3 and so on
    std::vector<uint32_t> begin;
    std::string printed;
  } rows[] = {
      {"3 0", 0, {0, 0, 0}, gpio},
      {"3 0 1 0x7 -2",
       0,
       {0, 0, 3, 1, 0, UINT32_MAX - 1},
       gpio + "|" + gpio + ", gpio_v[0]: 1|" + gpio + ", gpio_v[1]: 0|" + gpio + ", gpio_v[2]: -2"},
      {"3 0", 60, {0, 0, 60}, gpio},
      {"3 3 1 4 0x3", 0, {1, 0, 1, 4, 3}, tx + " v_ant(1)| v_sys(4)| v_band_list(3)"},
      {"3 3 -1 x 18446744073709551614",
       0,
       {1, 0, UINT32_MAX, 0, UINT32_MAX - 1, UINT32_MAX},
       tx + " v_ant(-1)| v_sys(0)| v_band_list(18446744073709551614)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    Bytes payload = payload_of(words(row.begin));
    Strings printed = split(row.printed);
    for (size_t i = 0; i < std::min<size_t>(row.more_values, 50); ++i) {
      payload[12 + 4 * i] = static_cast<uint8_t>(i + 1);
      printed.push_back(gpio + ", gpio_v[" + std::to_string(i) + "]: " + std::to_string(i + 1));
    }
    EXPECT_EQ(run(command(row.line, row.more_values)), printed);
    EXPECT_EQ(stub.requests().back().id, 4u);
    EXPECT_EQ(stub.requests().back().len, 512u);
    EXPECT_EQ(stub.requests().back().payload, payload);
  }
  EXPECT_EQ(stub.requests().size(), std::size(rows));
}

TEST_F(KivRf, SettingsAreReadAndDeletedInTheirEfsFiles) {
  const struct {
    std::string path;
    const char* get;
    const char* close;
    std::string get_name;
    std::string close_name;
    const char* head;
  } rows[] = {
      {"/oem/debug/rf_ant_port_config", "3 1", "3 2", "tervik_gpio_test_get",
       "tervik_gpio_test_closed", "|data len(3)data: "},
      {"/oem/debug/ant_tx_config", "3 4", "3 5", "tervik_rf_tx_test_get",
       "tervik_rf_tx_test_closed", "|data len(3)|data: "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    const std::string file = "efs/0" + row.path;
    write_state_file_text(file, std::string("\x0A\0\xFF", 3));
    Strings printed = split(row.get_name + row.head + "| 0A| 00| FF");
    printed.emplace_back();
    EXPECT_EQ(run(command(row.get)), printed);
    write_state_file_text(file, std::string(365, 'x'));
    expect_help(row.get, row.get_name + kEfsFailed + error_code(365));
    EXPECT_EQ(run(command(row.close)), Strings{row.close_name});
    EXPECT_FALSE(std::filesystem::exists(state_dir() + "/" + file));
    expect_help(row.get, row.get_name + kEfsFailed + error_code(2));
    expect_help(row.close, row.close_name + kEfsFailed + error_code(2));

    {
      const ExtensionStub stub([](const ExtensionRequest&) { return answer_of(Bytes(444)); });
      tervik_extend_qmi_init_force();
      for (const char* line : {row.get, row.close}) {
        run(command(line));
        const Bytes payload = stub.requests().back().payload;
        EXPECT_EQ(payload[4], row.path.size() + 1);
        EXPECT_EQ(std::string(payload.begin() + 5, payload.begin() + 105).c_str(), row.path);
      }
    }
    platform::reset_service_bus();
    tervik_extend_qmi_init_force();
  }
}

TEST_F(KivRf, FailuresAndWrongArgumentsShowTheirCodeAndTheHelp) {
  const ExtensionStub stub(
      [](const ExtensionRequest&) { return platform::ServiceReply::transport_error(-5); });
  expect_help("3 0", "tervik_gpio_test_set" + kCommonFailed + error_code(-3));
  expect_help("3 3 1 4 2", "tervik_rf_tx_test_set, argc(6)| v_ant(1)| v_sys(4)| v_band_list(2)" +
                               kCommonFailed + error_code(-3));
  EXPECT_EQ(stub.requests().size(), 2u);
  const std::string invalid = " , Pls refer to the following cmd:|" + error_code(268431370);
  const std::string five =
      "|note: need 5 inputs, Pls refer to the following cmd:|" + error_code(268431370);
  expect_help("3 1 x", "tervik_gpio_test_get|note: Cmd error, should be: kiv 3 1" + invalid);
  expect_help("3 2 x", "tervik_gpio_test_closed|note: Cmd error, should be: kiv 3 2" + invalid);
  expect_help("3 4 x", "tervik_rf_tx_test_get|note: Cmd error, should be: kiv 3 4" + invalid);
  expect_help("3 5 x", "tervik_rf_tx_test_closed|note: Cmd error, should be: kiv 3 5" + invalid);
  expect_help("3 3 1 4", "tervik_rf_tx_test_set, argc(5)" + five);
  expect_help("3 3 1 4 5 6", "tervik_rf_tx_test_set, argc(7)" + five);
  expect_help("3 6", "note: the second parameters is invalid, Pls refer to the following cmd:");
  expect_help("3", "note: Too few parameters, Pls refer to the following cmd:");
  EXPECT_EQ(stub.requests().size(), 2u);
}

}  // namespace
}  // namespace kiv::test
