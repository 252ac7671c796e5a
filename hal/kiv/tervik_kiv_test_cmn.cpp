#include "tervik_kiv_test_cmn.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <thread>

#include "tervik_diag_send.h"
#include "tervik_extend_cmn.h"
#include "tervik_kiv_esim_test.h"
#include "tervik_kiv_test_args.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr size_t HEX_DIGITS_MAX = 50;

int hex_digit_value(char c) {
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= '0' && c <= '9' ? c - '0' : 0;
}

constexpr size_t CARD_PARAMS_MAX = 100;
constexpr size_t DIAG_RESPONSE_SIZE = TERVIK_DIAG_RESPONSE_MAX;
constexpr int FIRST_DIAG_BYTE_ARG = 6;
// How long a run waits until its command is with the library.
constexpr int DIAG_HAND_OVER_MS = 2000;
constexpr uint32_t DEVICE_STATE_LIMIT = 100;
constexpr int DEVICE_STATE_UNSET = -255;

constexpr command_argument SLOT = number("sub", 0, 1, "= 0 first, 1 second slot");

constexpr command_argument HOTSWAP_COUNTS =
    number("option_list", 0, INT_MAX,
           "seconds_after_push seconds_after_pull count_push_and_pull, wanted with opt 1", 0, 3);

constexpr argument_rule HOTSWAP_RULE =
    at_least_words(4, "note: need 4 inputs at least, Pls refer to the following cmd:");
constexpr argument_rule DSI_RULE = {
    .words_min = 4, .note = NOTE_TOO_FEW_PARAMETERS, .note_class = LOG_CLASS_HELP};

constexpr auto CMN_COMMANDS = std::to_array<category_command>({
    {0, "tervik_cmn_diag_cmd_send", tervik_cmn_diag_cmd_send,
     "\n"
     "/* diag cmd */\n"
     "   mode: 0 - callback, 1 - dci; \n"
     "   type: 0 - with result, 1 - without result; \n"
     "   time_out: unit:ms */\n"
     "   cmd_cnt: diag cmd bytes */",
     takes(number("mode", 0, 1, "= 0 callback, 1 DCI"),
           number("type", 0, 1, "= 0 with result, 1 without result"),
           number("time_out", 0, INT_MAX, "ms"),
           bytes("cmd_cnt", argument_kind::HEX_OR_DECIMAL, TERVIK_DIAG_COMMAND_MAX))},
    announced({1, "tervik_cmn_card_status_query", tervik_cmn_card_status_query,
               "/* card status query: 0 - absent, 1 - present"}),
    announced({2, "tervik_cmn_card_status_get", tervik_cmn_card_status_get,
               "/* card status get, sub: 0 or 1; ret: 0 - absent, 1 - present */", takes(SLOT)}),
    announced({3, "tervik_cmn_card_status_set", tervik_cmn_card_status_set,
               "/* card status set, sub: 0 or 1; mode: 0 - general, 1 - sim; set_val: 0 - low, 1 - "
               "high */",
               takes(SLOT, number("mode", 0, 1, "= 0 general, 1 SIM"),
                     number("set_val", 0, 1, "= 0 low, 1 high"))}),
    announced({4, "tervik_cmn_card_type_query", tervik_cmn_card_type_query,
               "/* card type query: 0 - err, 1 - single sim, 2 - mult sim */"}),
    {5, "tervik_cmn_test_get_sar_dsi", command_of<tervik_cmn_test_get_sar_dsi>,
     "/* get sar dsi */"},
    {7, "tervik_cmn_test_set_sar_dsi", command_of<tervik_cmn_test_set_sar_dsi>,
     "/* set sar dsi, dsi - the value to be set */",
     takes(number("dsi", 0, 20, "1 to 20, any other number counts as 0")), DSI_RULE},
    {8, "tervik_cmn_test_get_device_state", command_of<tervik_cmn_test_get_device_state>,
     "/* get device state */"},
    announced({6, "tervik_cmn_card_hotswap_test", tervik_cmn_card_hotswap_test,
               "/* card slot hotswap test */\n"
               "   opt: 0 - stop hotswap test, 1 - start hotswap test \n"
               "   option_list(when opt is 1 for blew inputs): \n"
               "     seconds_after_push : the seconds of waiting after push the card slot \n"
               "     seconds_after_pull : the seconds of waiting after pull the card slot \n"
               "     count_push_and_pull: the count of push and pull the card slot ",
               takes(number("opt", 0, 1, "= 0 stop, 1 start"), HOTSWAP_COUNTS), HOTSWAP_RULE}),
    {10, "tervik_cmn_esim_test", tervik_cmn_esim_test,
     "/* set esim state */\n"
     "   esim_on  : 1 - switch to eSIM,2 - switch to PSIM2 \n"
     "   debug_on : 0 - disable log print,1 - enable log print ",
     takes(number("esim_on", 1, 5,
                  "= 1 switch to the eSIM, 2 switch to the physical SIM, 3 read the EID, 4 card "
                  "states, 5 reset the eUICC"),
           number("debug_on", 0, 1, "= 0 result line alone, 1 with log"))},
});

constexpr int QMI_ID_MIN = 0;
constexpr int QMI_ID_LIMIT = 7;
constexpr size_t QMI_DATA_MAX = 500;
constexpr int FIRST_QMI_DATA_ARG = 3;

constexpr std::array QMI_SEND_COMMANDS = {category_command{
    .number = NO_COMMAND_NUMBER,
    .help = "/* qmi_id: Any binary data you will send */\n"
            "   qmi_data: Any binary data you will send ",
    .takes = takes(number("qmi_id", QMI_ID_MIN, QMI_ID_LIMIT - 1,
                          "= 0, 1 NV item, 2 NV and EFS, 3, 4 common, 5, 6"),
                   bytes("qmi_data", argument_kind::HEX_OR_DECIMAL, QMI_DATA_MAX))}};

// ---- DIAG command ----

// Prints bytes on standard output, whatever the masks: each as "0x%02X" between `before` and
// `after`, then the line's end.
void print_bytes(std::span<const uint8_t> bytes, const char* before, const char* after) {
  for (const uint8_t byte : bytes) {
    printf("%s0x%02X%s", before, byte, after);
  }
  printf("\n");
}

// A send in one of the two modes, with or without result.
struct diag_transport {
  const char* name;
  unsigned (*with_result)(const uint8_t* cmd, int data_len, int time_out, uint8_t* reply_buf,
                          int* p_reply_len);
  unsigned (*without_result)(const uint8_t* cmd, int data_len);
  bool sleeps_after;  // a send without result sleeps the time-out
};

// By mode, then by type: with result, without result.
constexpr diag_transport DIAG_TRANSPORTS[2][2] = {
    {{"callback mode with result", tervik_diag_cmd_send_with_result_by_callback_mode, nullptr,
      false},
     {"callback mode without result", nullptr, tervik_diag_cmd_send_without_result_by_callback_mode,
      false}},
    {{"dci mode with result", tervik_diag_cmd_send_with_result_by_dci_mode, nullptr, false},
     {"dci mode without result", nullptr, tervik_diag_cmd_send_without_result_by_dci_mode, true}},
};

// Sends the command without result, and sees to it that it is with the library afterwards.
unsigned send_without_result(const diag_transport& transport, std::span<const uint8_t> command,
                             int time_out) {
  const unsigned result =
      transport.without_result(command.data(), static_cast<int>(command.size()));
  if (transport.sleeps_after && time_out > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(time_out));
  }
  tervik_diag_wait_for_workers(DIAG_HAND_OVER_MS);
  return result;
}

// Sends the command and prints the outcome. 0, or the code of the failed send.
[[nodiscard]] int send_diag_command(const char* func, const diag_transport& transport,
                                    std::span<const uint8_t> command, int time_out) {
  std::array<uint8_t, DIAG_RESPONSE_SIZE> response = {};
  int response_len = static_cast<int>(response.size());
  const bool with_result = transport.with_result != nullptr;
  const unsigned result =
      with_result ? transport.with_result(command.data(), static_cast<int>(command.size()),
                                          time_out, response.data(), &response_len)
                  : send_without_result(transport, command, time_out);
  if (result != 0) {
    tervik_log_error_as(func, "tervik_diag_cmd_send fail");
    return static_cast<int>(result);
  }
  if (with_result) {
    const auto answer = std::span(response).first(static_cast<size_t>(response_len));
    tervik_tell_bytes("DIAG answer", answer);
    printf("rsp data len(%d)\nrsp data:", response_len);
    print_bytes(answer, " ", "");
  } else {
    printf("done without rsp data\n");
  }
  return 0;
}

// ---- common commands ----

// Prints what the modem answered, from the type field to the end of the data, as far as it was
// received.
void print_common_answer(const tervik_common_response& response, int received) {
  constexpr size_t TYPE_AND_LENGTH = 8;
  const uint32_t len = response.data_len + TYPE_AND_LENGTH;
  printf("data len(%d)\ndata:", static_cast<int>(len));
  const auto* bytes = reinterpret_cast<const uint8_t*>(&response);
  const auto end = std::min(static_cast<size_t>(received),
                            offsetof(tervik_common_response, data) + size_t{response.data_len});
  constexpr size_t START = offsetof(tervik_common_response, type);
  const std::span answer(bytes + START, end > START ? end - START : 0);
  tervik_tell_bytes("common answer", answer);
  for (const uint8_t byte : answer) {
    printf(" %02X", byte);
  }
  printf("\n");
}

// Parses `param_cnt` parameters from argv[3] on and sends them.
[[nodiscard]] int send_card_command(const char* func, int type, int param_cnt, int argc,
                                    char** argv, bool as_flags) {
  std::array<int32_t, CARD_PARAMS_MAX> params = {};
  if (param_cnt < 0 || static_cast<size_t>(param_cnt) > params.size()) {
    return TERVIK_ERR_INVALID_INPUT;
  }
  if (argc != param_cnt + 3) {
    tervik_log_error_as(func,
                        "note: need %d inputs, Pls refer to the following cmd:", param_cnt + 3);
    return TERVIK_ERR_INVALID_INPUT;
  }
  printf("param(cnt: %d):", param_cnt);
  for (int i = 0; i < param_cnt; ++i) {
    const int typed = atoi(argv[3 + i]);
    int32_t& param = params[static_cast<size_t>(i)];
    param = as_flags ? (typed != 0 ? 1 : 0) : typed;
    printf(" %d", param);
  }
  printf("\n");
  return tervik_cmn_cmd_send(type, static_cast<unsigned>(param_cnt) * sizeof(params[0]),
                             reinterpret_cast<const char*>(params.data()));
}

}  // namespace

constexpr command_category TERVIK_CMN_CATEGORY = {
    .number = 5, .title = "cmn option cmd: ", .commands = CMN_COMMANDS};
constexpr command_category TERVIK_QMI_SEND_CATEGORY = {
    .number = 6, .title = "tervik qmi send_data", .commands = QMI_SEND_COMMANDS, .words_min = 4};

int tervik_string_to_int(const char* text) {
  if (text == nullptr) {
    tervik_log_error("\ninput is null");
    return 0;
  }
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    return tervik_hex_string_to_int(text + 2);
  }
  return atoi(text);
}

int tervik_hex_string_to_int(const char* digits) {
  if (digits == nullptr) {
    tervik_log_error("\ninput is null");
    return 0;
  }
  const size_t count = strlen(digits);
  if (count > HEX_DIGITS_MAX) {
    tervik_log_error("hex number of %zu digits is too long, max %zu", count, HEX_DIGITS_MAX);
    return 0;
  }
  // Unsigned, so that the sum wraps around.
  uint32_t sum = 0;
  double place_value = 1.0;
  for (size_t i = count; i > 0; --i) {
    const double share = hex_digit_value(digits[i - 1]) * place_value;
    sum += static_cast<uint32_t>(std::min(share, static_cast<double>(INT32_MAX)));
    place_value *= 16.0;
  }
  return static_cast<int>(sum);
}

int tervik_cmn_diag_cmd_send(int argc, char** argv) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  // Not in the row, whose rule would be checked before the trace line above.
  constexpr argument_rule ARGUMENTS = at_least_words(
      FIRST_DIAG_BYTE_ARG + 1, "note: Too few inputs, Pls refer to the following cmd:");
  if (!tervik_check_arguments(TERVIK_LOG_PLACE, TERVIK_NO_SUB, ARGUMENTS, argc, argv)) {
    return ARGUMENTS.error_code;
  }
  const int mode = atoi(argv[3]);
  const int type = atoi(argv[4]);
  const int time_out = atoi(argv[5]);
  tervik_log_notice("work_mode: %d, io_type: %d, wait_time_ms: %d", mode, type, time_out);
  std::array<uint8_t, TERVIK_DIAG_COMMAND_MAX> buffer = {};
  const auto typed = static_cast<size_t>(argc - FIRST_DIAG_BYTE_ARG);
  const std::span<uint8_t> command = std::span(buffer).first(std::min(typed, buffer.size()));
  printf("diag cmd:\n");
  for (size_t i = 0; i < command.size(); ++i) {
    command[i] =
        static_cast<uint8_t>(tervik_string_to_int(argv[FIRST_DIAG_BYTE_ARG + static_cast<int>(i)]));
  }
  print_bytes(command, "", " ");
  const diag_transport& transport = DIAG_TRANSPORTS[mode != 0 ? 1 : 0][type != 0 ? 1 : 0];
  tervik_log_notice("%s", transport.name);
  return send_diag_command(__func__, transport, command, time_out);
}

int tervik_cmn_cmd_send(int type, unsigned int len, const char* data) {
  tervik_log_notice("tervik_cmn_cmd_send, t: %d, l: %d", type, len);
  tervik_common_request request = {};
  request.always_2 = 2;
  request.type = static_cast<uint32_t>(type);
  if (data != nullptr && len >= 1 && len <= TERVIK_COMMON_DATA_MAX) {
    request.data_len = len;
    memcpy(request.data, data, len);
  }
  tervik_common_response response = {};
  int received = 0;
  const int result = tervik_send_class_4(__func__, &request, &response, &received);
  tervik_log_notice("result = %d, rsp.result = %d", result, response.result);
  if (result != 0) {
    tervik_log_error("tervik_extend_qmi_send_sync fail");
  } else if (response.result != 0) {
    tervik_log_error("rsp.result fail");
    tervik_tell_outcome(response.result);
  } else {
    print_common_answer(response, received);
  }
  return result;
}

int tervik_cmn_card_status_cmd(int type, int param_cnt, int argc, char** argv) {
  return send_card_command(__func__, type, param_cnt, argc, argv, true);
}

int tervik_cmn_card_status_cmd_ex(int type, int param_cnt, int argc, char** argv) {
  return send_card_command(__func__, type, param_cnt, argc, argv, false);
}

int tervik_cmn_card_status_query(int argc, char** argv) {
  return tervik_cmn_card_status_cmd(TERVIK_COMMON_CARD_STATUS_QUERY, 0, argc, argv);
}

int tervik_cmn_card_status_get(int argc, char** argv) {
  return tervik_cmn_card_status_cmd(TERVIK_COMMON_CARD_STATUS_GET, 1, argc, argv);
}

int tervik_cmn_card_status_set(int argc, char** argv) {
  return tervik_cmn_card_status_cmd(TERVIK_COMMON_CARD_STATUS_SET, 3, argc, argv);
}

int tervik_cmn_card_type_query(int argc, char** argv) {
  return tervik_cmn_card_status_cmd(TERVIK_COMMON_CARD_TYPE_QUERY, 0, argc, argv);
}

int tervik_cmn_card_hotswap_test(int argc, char** argv) {
  const int32_t opt = atoi(argv[3]);
  tervik_log_notice("opt: %d", opt);
  if (opt != 0) {
    return tervik_cmn_card_status_cmd_ex(TERVIK_COMMON_CARD_HOTSWAP_TEST, 4, argc, argv);
  }
  return tervik_cmn_cmd_send(TERVIK_COMMON_CARD_HOTSWAP_TEST, sizeof(opt),
                             reinterpret_cast<const char*>(&opt));
}

void tervik_cmn_test_get_sar_dsi() {
  tervik_hal_remove_shell_print_mask(LOG_CLASS_DEBUG);
  int judged_dsi = -1;
  tervik_get_property_value_from_int("debug.modem.sar.judge_dsi", &judged_dsi, -1);
  const int modem_dsi = tervik_get_sar_dsi();
  tervik_log_help("JUDGE SAR DSI: %d", judged_dsi);
  tervik_log_help("Modem SAR DSI: %d", modem_dsi);
  tervik_tell_outcome(modem_dsi == -1 ? -1 : 0);
}

int tervik_cmn_test_set_sar_dsi(int dsi) {
  const int result = tervik_set_sar_dsi(dsi);
  tervik_log_help("SAR DSI(to be set): %d, the setting result: %d", dsi, result);
  return result;
}

void tervik_cmn_test_get_device_state() {
  tervik_hal_remove_shell_print_mask(LOG_CLASS_DEBUG);
  for (uint32_t index = 0; index < DEVICE_STATE_LIMIT; ++index) {
    const char* name = tervik_get_device_state_prop_name(index);
    if (name == nullptr) {
      continue;
    }
    int state = DEVICE_STATE_UNSET;
    tervik_get_property_value_from_int(name, &state, DEVICE_STATE_UNSET);
    if (state != DEVICE_STATE_UNSET) {
      tervik_log_help("%s: %d", tervik_get_device_type_string_ex(index), state);
    }
  }
}

int tervik_test_cmn_do(int argc, char** argv) {
  tervik_run_category(TERVIK_LOG_PLACE, TERVIK_CMN_CATEGORY, argc, argv);
  return 0;
}

void tervik_test_cmn_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_CMN_CATEGORY, category);
}

int tervik_test_qmi_send_data_do(int argc, char** argv) {
  if (!tervik_check_category_args(TERVIK_LOG_PLACE, TERVIK_QMI_SEND_CATEGORY, argc, argv)) {
    return 0;
  }
  const int qmi_id = atoi(argv[2]);
  if (qmi_id < QMI_ID_MIN || qmi_id >= QMI_ID_LIMIT) {
    tervik_log_error("note: the second parameters(qmi_id) should be >= %d && < %d", QMI_ID_MIN,
                     QMI_ID_LIMIT);
    show_help(TERVIK_QMI_SEND_CATEGORY.number);
    return 0;
  }
  std::array<uint8_t, QMI_DATA_MAX> request = {};
  const int len = std::min(argc - FIRST_QMI_DATA_ARG, static_cast<int>(request.size()));
  tervik_log_notice("tk_qmi req data(qmi_id: %d, len: %d[max: %zu]):", qmi_id, len, request.size());
  for (int i = 0; i < len; ++i) {
    uint8_t& byte = request[static_cast<size_t>(i)];
    byte = static_cast<uint8_t>(tervik_string_to_int(argv[FIRST_QMI_DATA_ARG + i]));
    tervik_log_notice("0x%02X ", byte);
  }
  std::array<uint8_t, QMI_DATA_MAX> response = {};
  int response_len = static_cast<int>(response.size());
  const int result = tervik_extend_qmi_send_sync(static_cast<uint32_t>(qmi_id), request.data(), len,
                                                 response.data(), &response_len);
  tervik_log_notice("qmi_id = %d, result = %d", qmi_id, result);
  if (result != 0) {
    tervik_log_error("tervik_extend_qmi_send_sync fail");
    tervik_tell_outcome(result);
    show_help(TERVIK_QMI_SEND_CATEGORY.number);
    return 0;
  }
  tervik_log_notice("tk_qmi rsp data(qmi_id: %d, len: %d[max: %zu]):", qmi_id, response_len,
                    response.size());
  tervik_print_byte_lines(TERVIK_LOG_PLACE, LOG_CLASS_NOTICE, TERVIK_NO_SUB,
                          std::span(response).first(static_cast<size_t>(response_len)));
  return 0;
}

void tervik_test_qmi_send_data_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_QMI_SEND_CATEGORY, category);
}
