#include "tervik_kiv_test_rf.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <span>

#include "tervik_extend_cmn.h"
#include "tervik_extend_nvefs.h"
#include "tervik_kiv_test_args.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr size_t GPIO_VALUES_MAX = 50;
// The subscription whose files hold the settings.
constexpr uint32_t SETTING_SUB = 0;

constexpr command_argument GPIO_VALUES =
    number("...", INT_MIN, INT_MAX, "up to 50 numbers, one for each GPIO", 0, GPIO_VALUES_MAX);
constexpr command_argument TX_BANDS = {
    "v_band_list", 0, UINT64_MAX, "64-bit mask, decimal, hexadecimal behind 0x or octal behind 0",
    argument_kind::C_NUMBER};

// A command that takes no argument of its own.
consteval category_command bare_command(int number, const char* name,
                                        int (*run)(int argc, char** argv), const char* note,
                                        const char* help) {
  return {.number = number,
          .name = name,
          .run = run,
          .help = help,
          .arguments = {.words_min = 3, .words_max = 3, .note = note},
          .is_announced = true,
          .sub = SETTING_SUB};
}

constexpr auto COMMANDS = std::to_array<category_command>({
    announced({0, "tervik_gpio_test_set", tervik_gpio_test_set,
               "/* gpio value setting(pls input enough gpio value by notice)*/\n"
               "   (need to reboot duing first setting) ",
               takes(GPIO_VALUES)}),
    bare_command(1, "tervik_gpio_test_get", command_of<tervik_gpio_test_get>,
                 "note: Cmd error, should be: kiv 3 1 , Pls refer to the following cmd:",
                 "/* get gpio test state */"),
    bare_command(2, "tervik_gpio_test_closed", command_of<tervik_gpio_test_closed>,
                 "note: Cmd error, should be: kiv 3 2 , Pls refer to the following cmd:",
                 "/* Close gpio test(need to reboot) */"),
    {3, "tervik_rf_tx_test_set", tervik_rf_tx_test_set,
     "\n"
     "/* fix tx to upper(lower) antenna for given band list */\n"
     "   (need to reboot) \n"
     "   v_ant: 0 - lower antenna, 1 - upper antenna \n"
     "   v_sys: 0 - gsm, 1 - wcdma, 2 - cdma, 3 - tds, 4 - lte \n"
     "   v_band_list: bit0~bi43 - (gsm: 850,900,1800,1900; wcdma: b1,b2,b4,b5,b8; \n"
     "                           cdma: bc0, tds: b34,b39; lte: b1...b44 \n"
     "   v_band_list: bit44~bi63 - (only for lte: b28b,b40b,b41b,b41c,b39b,b252,\n"
     "                           b255,b253,b254,b66,b46,b250,b47,b48,b71,b71b,b38k ...  ",
     takes(number("v_ant", 0, 1, "= 0 lower antenna, 1 upper antenna"),
           number("v_sys", 0, 4, "= 0 GSM, 1 WCDMA, 2 CDMA, 3 TD-SCDMA, 4 LTE"), TX_BANDS)},
    bare_command(4, "tervik_rf_tx_test_get", command_of<tervik_rf_tx_test_get>,
                 "note: Cmd error, should be: kiv 3 4 , Pls refer to the following cmd:",
                 "/* get tx test state */"),
    bare_command(5, "tervik_rf_tx_test_closed", command_of<tervik_rf_tx_test_closed>,
                 "note: Cmd error, should be: kiv 3 5 , Pls refer to the following cmd:",
                 "/* Close tx test(need to reboot) */"),
});

// ---- settings as the modem takes them: bodies of class 4 requests ----

constexpr int FIRST_GPIO_ARG = 3;

struct gpio_test_request {
  uint32_t sub_command;  // 0
  uint32_t unused_4;
  uint32_t count;  // of the values typed, also when not all of them fit
  int32_t values[GPIO_VALUES_MAX];
  uint8_t unused_212[300];
};
static_assert(sizeof(gpio_test_request) == 512);
static_assert(offsetof(gpio_test_request, count) == 8);
static_assert(offsetof(gpio_test_request, values) == 12);

struct tx_test_request {
  uint32_t sub_command;  // 1
  uint32_t unused_4;
  uint32_t v_ant;
  uint32_t v_sys;
  uint64_t v_band_list;
  uint8_t unused_24[488];
};
static_assert(sizeof(tx_test_request) == 512);
static_assert(offsetof(tx_test_request, v_ant) == 8);
static_assert(offsetof(tx_test_request, v_sys) == 12);
static_assert(offsetof(tx_test_request, v_band_list) == 16);

// Sends a setting; no statement tells what the modem answers.
template <typename Request>
[[nodiscard]] int send_setting(const char* func, const Request& request) {
  static_assert(sizeof(request) == sizeof(tervik_common_request));
  tervik_common_response response = {};
  const int result = tervik_send_class_4(func, &request, &response, nullptr, 0);
  if (result != 0) {
    tervik_log_error_as(func, "tervik_extend_qmi_send_sync fail, REQUEST_ID_COMMON");
  } else {
    tervik_tell_outcome(response.result, "the modem refuses the setting");
  }
  return result;
}

// ---- settings as the modem keeps them: EFS files of one subscription ----

constexpr size_t SETTING_DATA_MAX = 365;

struct rf_setting {
  const char* path;
  uint32_t path_len;  // the terminating NUL counts
  bool length_on_own_line;
};

constexpr rf_setting GPIO_SETTING = {"/oem/debug/rf_ant_port_config", 30, false};
constexpr rf_setting TX_SETTING = {"/oem/debug/ant_tx_config", 25, true};

[[nodiscard]] int report_efs(const char* func, int result) {
  if (result != 0) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, SETTING_SUB,
                        "tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS");
  }
  return result;
}

[[nodiscard]] int get_setting(const char* func, const rf_setting& setting) {
  std::array<uint8_t, SETTING_DATA_MAX> data = {};
  uint32_t len = data.size();
  const int result =
      tervik_efs_read(SETTING_SUB, setting.path, setting.path_len, data.data(), &len);
  if (result != 0) {
    return report_efs(func, result);
  }
  tervik_log_print_as(func, LOG_CLASS_NOTICE, SETTING_SUB, "data len(%d)%sdata: ", len,
                      setting.length_on_own_line ? "\n" : "");
  tervik_print_byte_lines(TERVIK_LOG_PLACE_AS(func), LOG_CLASS_NOTICE, SETTING_SUB,
                          std::span(data).first(len));
  return 0;
}

[[nodiscard]] int close_setting(const char* func, const rf_setting& setting) {
  return report_efs(func, tervik_efs_delete(SETTING_SUB, setting.path, setting.path_len));
}

}  // namespace

constexpr command_category TERVIK_RF_CATEGORY = {
    .number = 3, .title = "rf option cmd", .commands = COMMANDS, .help_column = 17};

int tervik_gpio_test_set(int argc, char** argv) {
  const std::span<char*> typed(argv + FIRST_GPIO_ARG, static_cast<size_t>(argc - FIRST_GPIO_ARG));
  gpio_test_request request = {};
  request.sub_command = TERVIK_COMMON_REQ_GPIO_TEST;
  request.count = static_cast<uint32_t>(typed.size());
  for (size_t i = 0; i < std::min(typed.size(), std::size(request.values)); ++i) {
    request.values[i] = atoi(typed[i]);
    tervik_log_notice("tervik_gpio_test_set, gpio_v[%d]: %d", static_cast<int>(i),
                      request.values[i]);
  }
  return send_setting(__func__, request);
}

int tervik_gpio_test_get() {
  return get_setting(__func__, GPIO_SETTING);
}

int tervik_gpio_test_closed() {
  return close_setting(__func__, GPIO_SETTING);
}

int tervik_rf_tx_test_set(int argc, char** argv) {
  tervik_log_notice("tervik_rf_tx_test_set, argc(%d)", argc);
  constexpr argument_rule ARGUMENTS = {
      .words_min = 6,
      .words_max = 6,
      .note = "note: need 5 inputs, Pls refer to the following cmd:"};
  if (!tervik_check_arguments(TERVIK_LOG_PLACE, TERVIK_NO_SUB, ARGUMENTS, argc, argv)) {
    return ARGUMENTS.error_code;
  }
  tx_test_request request = {};
  request.sub_command = TERVIK_COMMON_REQ_TX_TEST;
  request.v_ant = static_cast<uint32_t>(atoi(argv[3]));
  request.v_sys = static_cast<uint32_t>(atoi(argv[4]));
  request.v_band_list = strtoul(argv[5], nullptr, 0);
  tervik_log_notice(" v_ant(%d)", request.v_ant);
  tervik_log_notice(" v_sys(%d)", request.v_sys);
  tervik_log_notice(" v_band_list(%lu)", request.v_band_list);
  return send_setting(__func__, request);
}

int tervik_rf_tx_test_get() {
  return get_setting(__func__, TX_SETTING);
}

int tervik_rf_tx_test_closed() {
  return close_setting(__func__, TX_SETTING);
}

int tervik_test_rf_do(int argc, char** argv) {
  tervik_run_category(TERVIK_LOG_PLACE, TERVIK_RF_CATEGORY, argc, argv);
  return 0;
}

void tervik_test_rf_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_RF_CATEGORY, category);
}
