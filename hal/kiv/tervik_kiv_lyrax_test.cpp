#include "tervik_kiv_lyrax_test.h"

#include <array>
#include <span>

#include "tervik_kiv_lyrax_unpk.h"
#include "tervik_kiv_test_args.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr argument_rule ONE_ARGUMENT = at_least_words(4, NOTE_TOO_FEW_PARAMETERS);

constexpr auto COMMANDS = std::to_array<category_command>({
    {0, "tervik_test_modem_stats_parsing_process",
     command_of<tervik_test_modem_stats_parsing_process>,
     "/* modem stats diag-parsed test */\n"
     "   print: 0 - print-off for temp info, 1 - print-on for temp info ",
     takes(number("print", 0, 1, "= 0 result alone, 1 with the trace")), ONE_ARGUMENT,
     "tervik_test_modem_stats_parsing_process FAIL"},
    {1, "tervik_test_modem_stats_get_debug_info",
     command_of<tervik_test_modem_stats_get_debug_info_do>,
     "/* get the debug info of modem stats */\n"
     "   type: 0 - check, 1 - debuginfo ",
     takes(number("type", 0, 1, "= 0 check, 1 debug information")), ONE_ARGUMENT,
     "tervik_test_modem_stats_get_debug_info FAIL"},
});

// ---- record decoding ----

// A cell record of layout version 0x30001.
constexpr std::array<uint8_t, 48> TEST_RECORD = {
    0x01, 0x00, 0x03, 0x00, 0x01, 0x49, 0x27, 0x03, 0xC7, 0xB4, 0xFC, 0x60, 0x17, 0x01, 0x4F, 0x06,
    0x6E, 0x8B, 0x06, 0x00, 0xE8, 0xEB, 0x05, 0x00, 0x14, 0x00, 0x14, 0x00, 0xC7, 0xB4, 0xFC, 0x60,
    0x07, 0x00, 0x00, 0x00, 0xCC, 0x01, 0x02, 0x0B, 0x00, 0x02, 0x0A, 0x8A, 0x76, 0x00, 0x01, 0x00,
};

}  // namespace

constexpr command_category TERVIK_MODEM_STATS_CATEGORY = {
    .number = 7, .title = "tervik modem stats test", .commands = COMMANDS, .number_name = "type"};

void tervik_test_modem_stats_parsing_process(int print_flag) {
  tervik_log_notice("length = %d, print_flag = %d", static_cast<int>(TEST_RECORD.size()),
                    print_flag);
  g_unpk_print_flag = static_cast<uint32_t>(print_flag);
  tervik_test_modem_stats_parsing_process_do(TEST_RECORD);
}

void tervik_test_modem_stats_get_debug_info_do(int type) {
  tervik_log_notice("Get the debug info of modem_stats, mask = 0x%x", static_cast<unsigned>(type));
  tervik_common_req_response rsp = {};
  int received = 0;
  const int result =
      tervik_common_qmi_req(TERVIK_COMMON_REQ_STATS_DEBUG, 0, nullptr, &rsp, &received);
  if (result != 0) {
    tervik_log_error("tervik_common_qmi_req fail, REQUEST_ID_COMMON, result = %d, rsp.result = %d",
                     result, rsp.result);
    tervik_tell_outcome(result);
    return;
  }
  if (rsp.result != 0) {
    tervik_log_error("qmi response fail, result = %d, rsp.result = %d", result, rsp.result);
    tervik_tell_outcome(rsp.result);
    return;
  }
  const std::span<const uint8_t> block = modem_stats_reply_data(rsp, received);
  if (type == 0) {
    tervik_modem_stats_support_status_check(block);
  } else {
    tervik_modem_stats_debug_info_unpk(block);
  }
}

void tervik_test_modem_stats_do(int argc, char** argv) {
  tervik_run_category(TERVIK_LOG_PLACE, TERVIK_MODEM_STATS_CATEGORY, argc, argv);
}

void tervik_test_qmi_modem_stats_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_MODEM_STATS_CATEGORY, category);
}
