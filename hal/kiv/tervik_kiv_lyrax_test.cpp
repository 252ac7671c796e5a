#include "tervik_kiv_lyrax_test.h"

#include <array>

#include "tervik_kiv_test_args.h"

namespace {

constexpr int CATEGORY = 7;

constexpr std::array HELP = {
    help_line("%d: tervik modem stats test", {CATEGORY}),
    help_line("   kiv %d 0 print                 /* modem stats diag-parsed test */", {CATEGORY}),
    help_line(
        "                                    print: 0 - print-off for temp info, 1 - print-on for temp info "),
    help_line("   kiv %d 1 type                  /* get the debug info of modem stats */",
              {CATEGORY}),
    help_line("                                    type: 0 - check, 1 - debuginfo "),
};

}  // namespace

int tervik_test_modem_stats_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CATEGORY);
  return 0;
}

void tervik_test_qmi_modem_stats_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
