#include "tervik_kiv_mbn.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "pdc_utils.h"
#include "tervik_kiv_test_args.h"
#include "tervik_mbn_utils.h"

namespace {

constexpr int CATEGORY = 10;

constexpr std::array HELP = {
    help_line("%d: tervik mbn test", {CATEGORY}),
    help_line(
        "   kiv %d %d sub_mask             /* mbn refresh, sub_mask: 1 - sub0; 2 - sub1; 3 - sub0&sub1 */",
        {CATEGORY, 0}),
    help_line(
        "   kiv %d %d sub_mask             /* mbn reactive, sub_mask: 1 - sub0; 2 - sub1; 3 - sub0&sub1 */",
        {CATEGORY, 1}),
    help_line(
        "   kiv %d %d count               /* mbn all pdc no response, count: the number of no response */",
        {CATEGORY, 30}),
    help_line(
        "   kiv %d %d flag                /* mbn pdc wait and notify, flag: wait and notify case */",
        {CATEGORY, 31}),
    help_line(
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

struct mbn_command {
  int number;
  void (*run)(int argument);
};

constexpr std::array<mbn_command, 4> COMMANDS = {{
    {0, refresh},
    {1, reactivate},
    {30, drop_responses},
    {31, tervik_pdc_test_wait_notify},
}};

}  // namespace

void tervik_test_mbn_do(int argc, char** argv) {
  if (!tervik_check_category_args(TERVIK_LOG_PLACE, CATEGORY, argc, argv, 4)) {
    return;
  }
  const int mbn_i = atoi(argv[2]);
  const auto command =
      std::find_if(COMMANDS.begin(), COMMANDS.end(),
                   [mbn_i](const mbn_command& row) { return row.number == mbn_i; });
  if (command == COMMANDS.end()) {
    tervik_log_error("invalid mbn_i = %d", mbn_i);
    show_help(CATEGORY);
    return;
  }
  command->run(atoi(argv[3]));
}

void tervik_test_mbn_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
