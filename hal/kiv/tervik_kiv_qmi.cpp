#include "tervik_kiv_qmi.h"

#include <array>

#include "tervik_kiv_test_args.h"

namespace {

constexpr int CATEGORY = 12;

constexpr std::array HELP = {
    help_line("%d: qmi option cmd", {CATEGORY}),
    help_line("   kiv %d %d arlist               /* nas_perform_network_scan_req_msg_v01 */",
              {CATEGORY, 0}),
    help_line(
        "   kiv %d %d arlist               /* nas_perform_incremental_network_scan_req_msg_v01 */",
        {CATEGORY, 1}),
};

}  // namespace

int tervik_test_qmi_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CATEGORY);
  return 0;
}

void tervik_test_qmi_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
