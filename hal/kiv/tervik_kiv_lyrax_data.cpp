#include "tervik_kiv_lyrax_data.h"

#include <array>
#include <cstdlib>

#include "modem_lyrax_mgr.h"
#include "tervik_kiv_test_args.h"
#include "tervik_utils_outcome.h"

namespace {

// Errors, notices, help and results; no traces.
constexpr uint32_t QUERY_PRINT_MASK = LOG_CLASS_ERROR | LOG_CLASS_NOTICE | LOG_CLASS_HELP;

// Fetches one record of the subscription; a failure is logged in the query's name.
template <typename Record>
bool fetch(const char* func, uint32_t (*get)(uint32_t sub, Record* record), uint32_t sub,
           Record* record, const char* failure) {
  if (get(sub, record) == 0) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "%s", failure);
    tervik_tell_outcome(-1);
    return false;
  }
  return true;
}

// ---- queries ----

template <uint32_t (*get)(uint32_t sub, modem_lyrax_lte_srv_meas_info* record)>
void tervik_test_qmi_modem_stats_4g_rssi(uint32_t sub) {
  modem_lyrax_lte_srv_meas_info lte = {};
  if (!fetch(__func__, get, sub, &lte, "get lyrax data failed")) {
    return;
  }
  tervik_log_print(
      LOG_CLASS_HELP, sub,
      "ASDIV DATA: earfcn: %d, pci: %d, rx_valid: %d, rsrp_rx0: %.2f, rsrq_rx0: %.2f, rssi_rx0: %.2f, snr_rx0: %.2f, rsrp_rx1: %.2f, rsrq_rx1: %.2f, rssi_rx1: %.2f, snr_rx1: %.2f, rsrp_rx2: %.2f, rsrq_rx2: %.2f, rssi_rx2: %.2f, snr_rx2: %.2f, rsrp_rx3: %.2f, rsrq_rx3: %.2f, rssi_rx3: %.2f, snr_rx3: %.2f",
      lte.earfcn, lte.pci, lte.rx_valid, lte.rsrp[0], lte.rsrq[0], lte.rssi[0], lte.snr[0],
      lte.rsrp[1], lte.rsrq[1], lte.rssi[1], lte.snr[1], lte.rsrp[2], lte.rsrq[2], lte.rssi[2],
      lte.snr[2], lte.rsrp[3], lte.rsrq[3], lte.rssi[3], lte.snr[3]);
}

void tervik_test_qmi_modem_stats_5g_rssi(uint32_t sub) {
  modem_lyrax_nr5g_ll1_fw_rx_control_agc agc = {};
  if (!fetch(__func__, modem_lyrax_nr5g_ll1_fw_rx_control_agc_get, sub, &agc,
             "modem_lyrax_nr5g_ll1_fw_rx_control_agc_get failed")) {
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub,
                   "ASDIV DATA: rssi_rx0: %.2f, rssi_rx1: %.2f, rssi_rx2: %.2f, rssi_rx3: %.2f",
                   agc.rssi[0], agc.rssi[1], agc.rssi[2], agc.rssi[3]);
}

void tervik_test_qmi_modem_stats_5g_snr(uint32_t sub) {
  modem_lyrax_nr5g_ll1_fw_serving_ftl ftl = {};
  if (!fetch(__func__, modem_lyrax_nr5g_ll1_fw_serving_ftl_get, sub, &ftl,
             "modem_lyrax_nr5g_ll1_fw_serving_ftl_get failed")) {
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub,
                   "ASDIV DATA: snr_rx0: %.2f, snr_rx1: %.2f, snr_rx2: %.2f, snr_rx3: %.2f",
                   ftl.snr[0], ftl.snr[1], ftl.snr[2], ftl.snr[3]);
}

void tervik_test_qmi_modem_stats_5g_ant_diversity(uint32_t sub) {
  modem_lyrax_nr5g_ml1_antenna_switch_diversity ant = {};
  if (!fetch(__func__, modem_lyrax_nr5g_ml1_antenna_switch_diversity_get, sub, &ant,
             "modem_lyrax_nr5g_ml1_antenna_switch_diversity_get failed")) {
    return;
  }
  tervik_log_print(
      LOG_CLASS_HELP, sub,
      "ASDIV DATA: ant_rx_0_old = %d, ant_rx_0_new = %d, ant_rx_1_old = %d, ant_rx_1_new = %d, ant_rx_2_old = %d, ant_rx_2_new = %d, ant_rx_3_old = %d, ant_rx_3_new = %d, ant_tx_0_old = %d, ant_tx_0_new = %d, ant_tx_1_old = %d, ant_tx_1_new = %d",
      ant.ant_rx_0_old, ant.ant_rx_0_new, ant.ant_rx_1_old, ant.ant_rx_1_new, ant.ant_rx_2_old,
      ant.ant_rx_2_new, ant.ant_rx_3_old, ant.ant_rx_3_new, ant.ant_tx_0_old, ant.ant_tx_0_new,
      ant.ant_tx_1_old, ant.ant_tx_1_new);
}

template <uint32_t (*get)(uint32_t sub, modem_lyrax_nr5g_srv_meas_info* record)>
void tervik_test_qmi_modem_stats_5g_rsrp(uint32_t sub) {
  modem_lyrax_nr5g_srv_meas_info nr = {};
  if (!fetch(__func__, get, sub, &nr, "get lyrax data failed")) {
    return;
  }
  tervik_log_print(
      LOG_CLASS_HELP, sub,
      "ASDIV DATA: rsrp_rx0: %.2f, rsrp_rx1: %.2f, rsrp_rx2: %.2f, rsrp_rx3: %.2f, rsrq: %.2f",
      nr.rsrp[0], nr.rsrp[1], nr.rsrp[2], nr.rsrp[3], nr.rsrq);
}

void tervik_test_qmi_modem_stats_wcdma_rssi(uint32_t sub) {
  modem_lyrax_wcdma_pn_search_edition2 wcdma = {};
  if (!fetch(__func__, modem_lyrax_wcdma_pn_search_edition2_get, sub, &wcdma,
             "modem_lyrax_wcdma_pn_search_edition2_get failed")) {
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub, "ASDIV DATA: rx_agc_0: %.2f, rx_agc_1: %.2f",
                   wcdma.rx_agc_0, wcdma.rx_agc_1);
}

void tervik_test_qmi_modem_stats_gsm_rssi(uint32_t sub) {
  modem_lyrax_gsm_l1_rx_diversity_metrics gsm = {};
  if (!fetch(__func__, modem_lyrax_gsm_l1_rx_diversity_metrics_get, sub, &gsm,
             "modem_lyrax_gsm_l1_rx_diversity_metrics_get failed")) {
    return;
  }
  tervik_log_print(LOG_CLASS_HELP, sub, "ASDIV DATA: rx_prx: %.2f, rx_drx: %.2f", gsm.rx_prx,
                   gsm.rx_drx);
}

// Of the handset: whatever subscription was asked for, the record is that of the first.
void tervik_test_qmi_modem_stats_ant_info(uint32_t /*sub*/) {
  constexpr uint32_t SUB = 0;
  modem_lyrax_mcs_trm_asdiv ant = {};
  if (!fetch(__func__, modem_lyrax_mcs_trm_asdiv_get, SUB, &ant,
             "modem_lyrax_mcs_trm_asdiv_get failed")) {
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
  tervik_tell_outcome(tx_power == MODEM_TX_POWER_UNAVAILABLE ? -1 : 0);
}

constexpr command_argument TX_SUB = {
    "sub", 0, INT_MAX,
    "= 0 first, 1 second subscription, 2 default data subscription, 3 the larger of both"};

struct stats_query {
  int opt = 0;
  const char* help = nullptr;
  void (*run)(uint32_t sub) = nullptr;
  command_argument takes = SUB_ARGUMENT;
};

constexpr auto QUERIES = std::to_array<stats_query>({
    {0, "/* 4G PCC rssi, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_4g_rssi<modem_lyrax_lte_srv_meas_info_get_for_pcc>},
    {1, "/* 4G SCC1 rssi, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_4g_rssi<modem_lyrax_lte_srv_meas_info_get_for_scc1>},
    {2, "/* 4G SCC2 rssi, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_4g_rssi<modem_lyrax_lte_srv_meas_info_get_for_scc2>},
    {3, "/* 4G SCC3 rssi, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_4g_rssi<modem_lyrax_lte_srv_meas_info_get_for_scc3>},
    {4, "/* 4G SCC4 rssi, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_4g_rssi<modem_lyrax_lte_srv_meas_info_get_for_scc4>},
    {5, "/* 4G SCC5 rssi, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_4g_rssi<modem_lyrax_lte_srv_meas_info_get_for_scc5>},
    {6, "/* 4G SCC6 rssi, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_4g_rssi<modem_lyrax_lte_srv_meas_info_get_for_scc6>},
    {7, "/* 5G PCC rssi, sub: 0 - sub0; 1 - sub1 */", tervik_test_qmi_modem_stats_5g_rssi},
    {8, "/* 5G PCC snr, sub: 0 - sub0; 1 - sub1 */", tervik_test_qmi_modem_stats_5g_snr},
    {9, "/* 5G ANT diversity, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_5g_ant_diversity},
    {10, "/* 5G PCC rsrp, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_5g_rsrp<modem_lyrax_nr5g_srv_meas_info_get_for_pcc>},
    {11, "/* 5G SCC1 rsrp, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_5g_rsrp<modem_lyrax_nr5g_srv_meas_info_get_for_scc1>},
    {12, "/* 5G SCC2 rsrp, sub: 0 - sub0; 1 - sub1 */",
     tervik_test_qmi_modem_stats_5g_rsrp<modem_lyrax_nr5g_srv_meas_info_get_for_scc2>},
    {20, "/* WCDMA rssi, sub: 0 - sub0; 1 - sub1 */", tervik_test_qmi_modem_stats_wcdma_rssi},
    {21, "/* GSM rssi, sub: 0 - sub0; 1 - sub1 */", tervik_test_qmi_modem_stats_gsm_rssi},
    {30, "/* Ant info */", tervik_test_qmi_modem_stats_ant_info, unused("0", 1)},
    {31,
     "/* Tx info, sub: 0 - sub0 tx; sub: 1 - sub1 tx; sub: 2 - dds tx; sub: other - max tx of dual "
     "subs; */",
     tervik_test_qmi_modem_stats_tx_info, TX_SUB},
});

// For the help and the check of a line alone: the handler looks in QUERIES itself, once it is
// connected.
constexpr auto COMMANDS = [] {
  std::array<category_command, QUERIES.size()> commands;
  for (size_t i = 0; i < commands.size(); ++i) {
    commands[i].number = QUERIES[i].opt;
    commands[i].help = QUERIES[i].help;
    commands[i].takes[0] = QUERIES[i].takes;
  }
  return commands;
}();

}  // namespace

constexpr command_category TERVIK_QMI_STATS_CATEGORY = {
    .number = 9, .title = "tervik modem stats qmi test", .commands = COMMANDS, .words_min = 4};

void tervik_test_qmi_modem_stats_hdl(int opt, int sub) {
  const stats_query* const query = find_row(QUERIES, &stats_query::opt, opt);
  if (query == nullptr) {
    tervik_log_print(LOG_CLASS_ERROR, static_cast<uint32_t>(sub),
                     "tervik_test_qmi_modem_stats_hdl: Unknown opt(%d), sub(%d)", opt, sub);
    tervik_tell_outcome(-1);
    return;
  }
  query->run(static_cast<uint32_t>(sub));
}

void tervik_test_qmi_modem_stats_do(int argc, char** argv) {
  tervik_hal_set_shell_print_mask(QUERY_PRINT_MASK);
  if (!tervik_check_category_args(TERVIK_LOG_PLACE, TERVIK_QMI_STATS_CATEGORY, argc, argv)) {
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
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_QMI_STATS_CATEGORY, category);
}
