#include "tervik_kiv_mbn.h"

#include <array>

#include "pdc_utils.h"
#include "tervik_kiv_test_args.h"
#include "tervik_mbn_utils.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr command_argument SUB_MASK =
    number("sub_mask", 1, 3, "= 1 first, 2 second, 3 both subscriptions");

// What the operations return is in the log, which is all that the operator is told.

void refresh(int sub_mask) {
  static_cast<void>(tervik_refresh_sw_mbn(static_cast<uint32_t>(sub_mask)));
}

void reactivate(int sub_mask) {
  static_cast<void>(tervik_reactivate_sw_mbn(static_cast<uint32_t>(sub_mask)));
}

void drop_responses(int count) {
  tervik_tell_outcome(tervik_set_property_value_to_int("persist.radio.all_pdc_no_rsp_count", count),
                      "the property is not stored");
}

constexpr auto COMMANDS = std::to_array<category_command>({
    {0, "tervik_refresh_sw_mbn", command_of<refresh>,
     "/* mbn refresh, sub_mask: 1 - sub0; 2 - sub1; 3 - sub0&sub1 */", takes(SUB_MASK)},
    {1, "tervik_reactivate_sw_mbn", command_of<reactivate>,
     "/* mbn reactive, sub_mask: 1 - sub0; 2 - sub1; 3 - sub0&sub1 */", takes(SUB_MASK)},
    {30, "tervik_set_property_value_to_int", command_of<drop_responses>,
     "/* mbn all pdc no response, count: the number of no response */",
     takes(number("count", INT_MIN, INT_MAX, "0 for none, 1 and above for all"))},
    {31, "tervik_pdc_test_wait_notify", command_of<tervik_pdc_test_wait_notify>,
     "/* mbn pdc wait and notify, flag: wait and notify case */\n"
     "/*                          flag - 1: notify -> wait */",
     takes(number("flag", 1, 1, "= 1 notify before the wait"))},
});

}  // namespace

constexpr command_category TERVIK_MBN_CATEGORY = {.number = 10,
                                                  .title = "tervik mbn test",
                                                  .commands = COMMANDS,
                                                  .words_min = 4,
                                                  .number_name = "mbn_i"};

void tervik_test_mbn_do(int argc, char** argv) {
  tervik_run_category(TERVIK_LOG_PLACE, TERVIK_MBN_CATEGORY, argc, argv);
}

void tervik_test_mbn_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_MBN_CATEGORY, category);
}
