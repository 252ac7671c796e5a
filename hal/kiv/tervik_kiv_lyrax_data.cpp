#include "tervik_kiv_lyrax_data.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "modem_lyrax_mgr.h"
#include "tervik_kiv_test_args.h"

namespace {

constexpr int CATEGORY = 9;
// Errors, notices, help and results; no traces.
constexpr uint32_t QUERY_PRINT_MASK = LOG_CLASS_ERROR | LOG_CLASS_NOTICE | LOG_CLASS_HELP;

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

// A float as the lines print it.
double shown(float value) {
  return static_cast<double>(value);
}

using lte_getter = uint32_t (*)(uint32_t sub, modem_lyrax_lte_srv_meas_info* record);
using nr_rsrp_getter = uint32_t (*)(uint32_t sub, modem_lyrax_nr5g_srv_meas_info* record);

// By opt, from 0: PCC, SCC1 to SCC6.
constexpr std::array<lte_getter, 7> LTE_GETTERS = {
    modem_lyrax_lte_srv_meas_info_get_for_pcc,  modem_lyrax_lte_srv_meas_info_get_for_scc1,
    modem_lyrax_lte_srv_meas_info_get_for_scc2, modem_lyrax_lte_srv_meas_info_get_for_scc3,
    modem_lyrax_lte_srv_meas_info_get_for_scc4, modem_lyrax_lte_srv_meas_info_get_for_scc5,
    modem_lyrax_lte_srv_meas_info_get_for_scc6,
};

// By opt, from FIRST_NR_RSRP_OPT: PCC, SCC1, SCC2.
constexpr int FIRST_NR_RSRP_OPT = 10;
constexpr std::array<nr_rsrp_getter, 3> NR_RSRP_GETTERS = {
    modem_lyrax_nr5g_srv_meas_info_get_for_pcc,
    modem_lyrax_nr5g_srv_meas_info_get_for_scc1,
    modem_lyrax_nr5g_srv_meas_info_get_for_scc2,
};

// The getter of an opt in a table that starts at `first_opt`, or null.
template <typename Getter, size_t count>
Getter getter_of(const std::array<Getter, count>& getters, int first_opt, int opt) {
  const int index = opt - first_opt;
  return index >= 0 && index < static_cast<int>(count) ? getters[static_cast<size_t>(index)]
                                                       : nullptr;
}

void tervik_test_qmi_modem_stats_4g_rssi(uint32_t sub, int opt) {
  modem_lyrax_lte_srv_meas_info lte = {};
  const lte_getter get = getter_of(LTE_GETTERS, 0, opt);
  if (get == nullptr || get(sub, &lte) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "get lyrax data failed");
    return;
  }
  tervik_log_print(
      LOG_CLASS_HELP, sub,
      "ASDIV DATA: earfcn: %d, pci: %d, rx_valid: %d, rsrp_rx0: %.2f, rsrq_rx0: %.2f, rssi_rx0: %.2f, snr_rx0: %.2f, rsrp_rx1: %.2f, rsrq_rx1: %.2f, rssi_rx1: %.2f, snr_rx1: %.2f, rsrp_rx2: %.2f, rsrq_rx2: %.2f, rssi_rx2: %.2f, snr_rx2: %.2f, rsrp_rx3: %.2f, rsrq_rx3: %.2f, rssi_rx3: %.2f, snr_rx3: %.2f",
      lte.earfcn, lte.pci, lte.rx_valid, shown(lte.rsrp[0]), shown(lte.rsrq[0]), shown(lte.rssi[0]),
      shown(lte.snr[0]), shown(lte.rsrp[1]), shown(lte.rsrq[1]), shown(lte.rssi[1]),
      shown(lte.snr[1]), shown(lte.rsrp[2]), shown(lte.rsrq[2]), shown(lte.rssi[2]),
      shown(lte.snr[2]), shown(lte.rsrp[3]), shown(lte.rsrq[3]), shown(lte.rssi[3]),
      shown(lte.snr[3]));
}

void tervik_test_qmi_modem_stats_5g_rssi(uint32_t sub) {
  modem_lyrax_nr5g_ll1_fw_rx_control_agc agc = {};
  if (modem_lyrax_nr5g_ll1_fw_rx_control_agc_get(sub, &agc) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_nr5g_ll1_fw_rx_control_agc_get failed");
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub,
                   "ASDIV DATA: rssi_rx0: %.2f, rssi_rx1: %.2f, rssi_rx2: %.2f, rssi_rx3: %.2f",
                   shown(agc.rssi[0]), shown(agc.rssi[1]), shown(agc.rssi[2]), shown(agc.rssi[3]));
}

void tervik_test_qmi_modem_stats_5g_snr(uint32_t sub) {
  modem_lyrax_nr5g_ll1_fw_serving_ftl ftl = {};
  if (modem_lyrax_nr5g_ll1_fw_serving_ftl_get(sub, &ftl) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_nr5g_ll1_fw_serving_ftl_get failed");
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub,
                   "ASDIV DATA: snr_rx0: %.2f, snr_rx1: %.2f, snr_rx2: %.2f, snr_rx3: %.2f",
                   shown(ftl.snr[0]), shown(ftl.snr[1]), shown(ftl.snr[2]), shown(ftl.snr[3]));
}

void tervik_test_qmi_modem_stats_5g_ant_diversity(uint32_t sub) {
  modem_lyrax_nr5g_ml1_antenna_switch_diversity ant = {};
  if (modem_lyrax_nr5g_ml1_antenna_switch_diversity_get(sub, &ant) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub,
                     "modem_lyrax_nr5g_ml1_antenna_switch_diversity_get failed");
    return;
  }
  tervik_log_print(
      LOG_CLASS_HELP, sub,
      "ASDIV DATA: ant_rx_0_old = %d, ant_rx_0_new = %d, ant_rx_1_old = %d, ant_rx_1_new = %d, ant_rx_2_old = %d, ant_rx_2_new = %d, ant_rx_3_old = %d, ant_rx_3_new = %d, ant_tx_0_old = %d, ant_tx_0_new = %d, ant_tx_1_old = %d, ant_tx_1_new = %d",
      ant.ant_rx_0_old, ant.ant_rx_0_new, ant.ant_rx_1_old, ant.ant_rx_1_new, ant.ant_rx_2_old,
      ant.ant_rx_2_new, ant.ant_rx_3_old, ant.ant_rx_3_new, ant.ant_tx_0_old, ant.ant_tx_0_new,
      ant.ant_tx_1_old, ant.ant_tx_1_new);
}

void tervik_test_qmi_modem_stats_5g_rsrp(uint32_t sub, int opt) {
  modem_lyrax_nr5g_srv_meas_info nr = {};
  const nr_rsrp_getter get = getter_of(NR_RSRP_GETTERS, FIRST_NR_RSRP_OPT, opt);
  if (get == nullptr || get(sub, &nr) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "get lyrax data failed");
    return;
  }
  tervik_log_print(
      LOG_CLASS_HELP, sub,
      "ASDIV DATA: rsrp_rx0: %.2f, rsrp_rx1: %.2f, rsrp_rx2: %.2f, rsrp_rx3: %.2f, rsrq: %.2f",
      shown(nr.rsrp[0]), shown(nr.rsrp[1]), shown(nr.rsrp[2]), shown(nr.rsrp[3]), shown(nr.rsrq));
}

void tervik_test_qmi_modem_stats_wcdma_rssi(uint32_t sub) {
  modem_lyrax_wcdma_pn_search_edition2 wcdma = {};
  if (modem_lyrax_wcdma_pn_search_edition2_get(sub, &wcdma) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_wcdma_pn_search_edition2_get failed");
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub, "ASDIV DATA: rx_agc_0: %.2f, rx_agc_1: %.2f",
                   shown(wcdma.rx_agc_0), shown(wcdma.rx_agc_1));
}

void tervik_test_qmi_modem_stats_gsm_rssi(uint32_t sub) {
  modem_lyrax_gsm_l1_rx_diversity_metrics gsm = {};
  if (modem_lyrax_gsm_l1_rx_diversity_metrics_get(sub, &gsm) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_gsm_l1_rx_diversity_metrics_get failed");
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub, "ASDIV DATA: rx_prx: %.2f, rx_drx: %.2f", shown(gsm.rx_prx),
                   shown(gsm.rx_drx));
}

void tervik_test_qmi_modem_stats_ant_info() {
  constexpr uint32_t SUB = 0;
  modem_lyrax_mcs_trm_asdiv ant = {};
  if (modem_lyrax_mcs_trm_asdiv_get(SUB, &ant) == 0) {
    tervik_log_print(LOG_CLASS_ERROR, SUB, "modem_lyrax_mcs_trm_asdiv_get failed");
    return;
  }
  tervik_log_print(
      LOG_CLASS_HELP, SUB,
      "ANT INFO: ant_num: %d, ant_path: %d, sig_path: %d, old_config: %d, new_config: %d",
      ant.ant_number, ant.ant_switch_path, ant.sig_path, ant.old_config, ant.new_config);
}

void tervik_test_qmi_modem_stats_tx_info(uint32_t sub) {
  int32_t tx_power = MODEM_TX_POWER_UNAVAILABLE;
  if (tervik_check_sub_id(sub)) {
    tx_power = modem_tx_power_get_by_sub(sub);
  } else if (sub == 2) {
    tx_power = modem_tx_power_get_for_dds_sub();
  } else {
    tx_power = modem_tx_power_get_for_max_sub();
  }
  tervik_log_print(LOG_CLASS_HELP, sub, "TX INFO: tx_power = %d", tx_power);
}

// The opts from `first` to `last` and the query that they run.
struct stats_query {
  int first;
  int last;
  void (*run)(uint32_t sub, int opt);
};

// Queries without an opt, or without a subscription, as a row's function.
template <void (*query)(uint32_t sub)>
void for_sub(uint32_t sub, int /*opt*/) {
  query(sub);
}
template <void (*query)()>
void for_handset(uint32_t /*sub*/, int /*opt*/) {
  query();
}

constexpr std::array<stats_query, 9> QUERIES = {{
    {0, 6, tervik_test_qmi_modem_stats_4g_rssi},
    {7, 7, for_sub<tervik_test_qmi_modem_stats_5g_rssi>},
    {8, 8, for_sub<tervik_test_qmi_modem_stats_5g_snr>},
    {9, 9, for_sub<tervik_test_qmi_modem_stats_5g_ant_diversity>},
    {10, 12, tervik_test_qmi_modem_stats_5g_rsrp},
    {20, 20, for_sub<tervik_test_qmi_modem_stats_wcdma_rssi>},
    {21, 21, for_sub<tervik_test_qmi_modem_stats_gsm_rssi>},
    {30, 30, for_handset<tervik_test_qmi_modem_stats_ant_info>},
    {31, 31, for_sub<tervik_test_qmi_modem_stats_tx_info>},
}};

}  // namespace

void tervik_test_qmi_modem_stats_hdl(int opt, int sub) {
  const auto query = std::find_if(QUERIES.begin(), QUERIES.end(), [opt](const stats_query& row) {
    return opt >= row.first && opt <= row.last;
  });
  if (query == QUERIES.end()) {
    tervik_log_print(LOG_CLASS_ERROR, static_cast<uint32_t>(sub),
                     "tervik_test_qmi_modem_stats_hdl: Unknown opt(%d), sub(%d)", opt, sub);
    return;
  }
  query->run(static_cast<uint32_t>(sub), opt);
}

void tervik_test_qmi_modem_stats_do(int argc, char** argv) {
  tervik_hal_set_shell_print_mask(QUERY_PRINT_MASK);
  if (!tervik_check_category_args(TERVIK_LOG_PLACE, CATEGORY, argc, argv, 4)) {
    return;
  }
  const int opt = atoi(argv[2]);
  const int sub = atoi(argv[3]);
  tervik_log_print(LOG_CLASS_NOTICE, static_cast<uint32_t>(sub), "opt = %d, sub = %d", opt, sub);
  // A failed connection shows in the query.
  static_cast<void>(modem_lyrax_api_init());
  static_cast<void>(modem_lyrax_stats_start());
  tervik_test_qmi_modem_stats_hdl(opt, sub);
  modem_lyrax_api_deinit();
}

void tervik_test_modem_stats_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
