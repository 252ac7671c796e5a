#include "tervik_kiv_test_cmn.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "tervik_kiv_test_args.h"

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

constexpr int CMN_CATEGORY = 5;

constexpr std::array CMN_HELP = {
    help_line("%d: cmn option cmd: ", {CMN_CATEGORY}),
    help_line("   kiv %d %d mode type time_out cmd_cnt", {CMN_CATEGORY, 0}),
    help_line("                                 /* diag cmd */"),
    help_line("                                    mode: 0 - callback, 1 - dci; "),
    help_line("                                    type: 0 - with result, 1 - without result; "),
    help_line("                                    time_out: unit:ms */"),
    help_line("                                    cmd_cnt: diag cmd bytes */"),
    help_line("   kiv %d %d                       /* card status query: 0 - absent, 1 - present",
              {CMN_CATEGORY, 1}),
    help_line(
        "   kiv %d %d sub                   /* card status get, sub: 0 or 1; ret: 0 - absent, 1 - present */",
        {CMN_CATEGORY, 2}),
    help_line(
        "   kiv %d %d sub mode set_val      /* card status set, sub: 0 or 1; mode: 0 - general, 1 - sim; set_val: 0 - low, 1 - high */",
        {CMN_CATEGORY, 3}),
    help_line(
        "   kiv %d %d                       /* card type query: 0 - err, 1 - single sim, 2 - mult sim */",
        {CMN_CATEGORY, 4}),
    help_line("   kiv %d %d                       /* get sar dsi */", {CMN_CATEGORY, 5}),
    help_line("   kiv %d %d dsi                   /* set sar dsi, dsi - the value to be set */",
              {CMN_CATEGORY, 7}),
    help_line("   kiv %d %d                       /* get device state */", {CMN_CATEGORY, 8}),
    help_line("   kiv %d %d opt option_list       /* card slot hotswap test */", {CMN_CATEGORY, 6}),
    help_line(
        "                                    opt: 0 - stop hotswap test, 1 - start hotswap test "),
    help_line("                                    option_list(when opt is 1 for blew inputs): "),
    help_line(
        "                                      seconds_after_push : the seconds of waiting after push the card slot "),
    help_line(
        "                                      seconds_after_pull : the seconds of waiting after pull the card slot "),
    help_line(
        "                                      count_push_and_pull: the count of push and pull the card slot "),
    help_line("   kiv %d %d esim_on debug_on     /* set esim state */", {CMN_CATEGORY, 10}),
    help_line(
        "                                    esim_on  : 1 - switch to eSIM,2 - switch to PSIM2 "),
    help_line(
        "                                    debug_on : 0 - disable log print,1 - enable log print "),
};

constexpr int QMI_SEND_CATEGORY = 6;

constexpr std::array QMI_SEND_HELP = {
    help_line("%d: tervik qmi send_data", {QMI_SEND_CATEGORY}),
    help_line("   kiv %d qmi_id qmi_data         /* qmi_id: Any binary data you will send */",
              {QMI_SEND_CATEGORY}),
    help_line("                                    qmi_data: Any binary data you will send "),
};

}  // namespace

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

void tervik_byte_to_hex(const uint8_t* in, int len, char* out) {
  constexpr char DIGITS[] = "0123456789abcdef";
  if (in == nullptr) {
    return;
  }
  for (int i = 0; i < len; ++i) {
    *out++ = DIGITS[in[i] >> 4];
    *out++ = DIGITS[in[i] & 0x0F];
  }
}

int tervik_test_cmn_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CMN_CATEGORY);
  return 0;
}

void tervik_test_cmn_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CMN_CATEGORY, category, CMN_HELP);
}

int tervik_test_qmi_send_data_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", QMI_SEND_CATEGORY);
  return 0;
}

void tervik_test_qmi_send_data_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, QMI_SEND_CATEGORY, category, QMI_SEND_HELP);
}
