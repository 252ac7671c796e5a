#include "tervik_kiv_mbn.h"

#include <array>

#include "tervik_kiv_test_args.h"

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

}  // namespace

int tervik_test_mbn_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CATEGORY);
  return 0;
}

void tervik_test_mbn_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
