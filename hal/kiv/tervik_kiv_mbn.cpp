#include "tervik_kiv_mbn.h"

#include <array>

#include "pdc_utils.h"
#include "tervik_kiv_test_args.h"
#include "tervik_mbn_utils.h"

namespace {

constexpr int CATEGORY = 10;

constexpr std::array HELP = {
    text_line("%d: tervik mbn test", {CATEGORY}),
    text_line(
        "   kiv %d %d sub_mask             /* mbn refresh, sub_mask: 1 - sub0; 2 - sub1; 3 - sub0&sub1 */",
        {CATEGORY, 0}),
    text_line(
        "   kiv %d %d sub_mask             /* mbn reactive, sub_mask: 1 - sub0; 2 - sub1; 3 - sub0&sub1 */",
        {CATEGORY, 1}),
    text_line(
        "   kiv %d %d count               /* mbn all pdc no response, count: the number of no response */",
        {CATEGORY, 30}),
    text_line(
        "   kiv %d %d flag                /* mbn pdc wait and notify, flag: wait and notify case */",
        {CATEGORY, 31}),
    text_line(
        "                                 /*                          flag - 1: notify -> wait */"),
};

// What the operations return is in the log, which is all that the operator is told.

void refresh(int sub_mask) {
  static_cast<void>(tervik_refresh_sw_mbn(static_cast<uint32_t>(sub_mask)));
}

void reactivate(int sub_mask) {
  static_cast<void>(tervik_reactivate_sw_mbn(static_cast<uint32_t>(sub_mask)));
}

void drop_responses(int count) {
  static_cast<void>(tervik_set_property_value_to_int("persist.radio.all_pdc_no_rsp_count", count));
}

constexpr std::array<category_command, 4> COMMANDS = {{
    {0, "tervik_refresh_sw_mbn", command_of<refresh>},
    {1, "tervik_reactivate_sw_mbn", command_of<reactivate>},
    {30, "tervik_set_property_value_to_int", command_of<drop_responses>},
    {31, "tervik_pdc_test_wait_notify", command_of<tervik_pdc_test_wait_notify>},
}};

}  // namespace

void tervik_test_mbn_do(int argc, char** argv) {
  tervik_run_category(
      TERVIK_LOG_PLACE,
      {.number = CATEGORY, .commands = COMMANDS, .words_min = 4, .number_name = "mbn_i"}, argc,
      argv);
}

void tervik_test_mbn_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
