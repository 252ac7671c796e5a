#include "tervik_kiv_lyrax_data.h"

#include <array>

#include "tervik_kiv_test_args.h"

namespace {

constexpr int CATEGORY = 9;

constexpr std::array HELP = {
    help_line("%d: tervik modem stats qmi test", {CATEGORY}),
    help_line("   kiv %d %d sub                   /* 4G PCC rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 0}),
    help_line("   kiv %d %d sub                   /* 4G SCC1 rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 1}),
    help_line("   kiv %d %d sub                   /* 4G SCC2 rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 2}),
    help_line("   kiv %d %d sub                   /* 4G SCC3 rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 3}),
    help_line("   kiv %d %d sub                   /* 4G SCC4 rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 4}),
    help_line("   kiv %d %d sub                   /* 4G SCC5 rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 5}),
    help_line("   kiv %d %d sub                   /* 4G SCC6 rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 6}),
    help_line("   kiv %d %d sub                   /* 5G PCC rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 7}),
    help_line("   kiv %d %d sub                   /* 5G PCC snr, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 8}),
    help_line("   kiv %d %d sub                   /* 5G ANT diversity, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 9}),
    help_line("   kiv %d %d sub                  /* 5G PCC rsrp, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 10}),
    help_line("   kiv %d %d sub                  /* 5G SCC1 rsrp, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 11}),
    help_line("   kiv %d %d sub                  /* 5G SCC2 rsrp, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 12}),
    help_line("   kiv %d %d sub                  /* WCDMA rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 20}),
    help_line("   kiv %d %d sub                  /* GSM rssi, sub: 0 - sub0; 1 - sub1 */",
              {CATEGORY, 21}),
    help_line("   kiv %d %d 0                    /* Ant info */", {CATEGORY, 30}),
    help_line(
        "   kiv %d %d sub                  /* Tx info, sub: 0 - sub0 tx; sub: 1 - sub1 tx; sub: 2 - dds tx; sub: other - max tx of dual subs; */",
        {CATEGORY, 31}),
};

}  // namespace

int tervik_test_qmi_modem_stats_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CATEGORY);
  return 0;
}

void tervik_test_modem_stats_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
