#include "tervik_kiv_test_rf.h"

#include <array>

#include "tervik_kiv_test_args.h"

namespace {

constexpr int CATEGORY = 3;

constexpr std::array HELP = {
    help_line("%d: rf option cmd", {CATEGORY}),
    help_line("   kiv %d %d ...   /* gpio value setting(pls input enough gpio value by notice)*/",
              {CATEGORY, 0}),
    help_line("                    (need to reboot duing first setting) "),
    help_line("   kiv %d %d       /* get gpio test state */", {CATEGORY, 1}),
    help_line("   kiv %d %d       /* Close gpio test(need to reboot) */", {CATEGORY, 2}),
    help_line("   kiv %d %d v_ant v_sys v_band_list", {CATEGORY, 3}),
    help_line("                 /* fix tx to upper(lower) antenna for given band list */"),
    help_line("                    (need to reboot) "),
    help_line("                    v_ant: 0 - lower antenna, 1 - upper antenna "),
    help_line("                    v_sys: 0 - gsm, 1 - wcdma, 2 - cdma, 3 - tds, 4 - lte "),
    help_line(
        "                    v_band_list: bit0~bi43 - (gsm: 850,900,1800,1900; wcdma: b1,b2,b4,b5,b8; "),
    help_line(
        "                                            cdma: bc0, tds: b34,b39; lte: b1...b44 "),
    help_line(
        "                    v_band_list: bit44~bi63 - (only for lte: b28b,b40b,b41b,b41c,b39b,b252,"),
    help_line(
        "                                            b255,b253,b254,b66,b46,b250,b47,b48,b71,b71b,b38k ...  "),
    help_line("   kiv %d %d       /* get tx test state */", {CATEGORY, 4}),
    help_line("   kiv %d %d       /* Close tx test(need to reboot) */", {CATEGORY, 5}),
};

}  // namespace

int tervik_test_rf_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CATEGORY);
  return 0;
}

void tervik_test_rf_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
