// The statistics manager: holds the process's one modem API client, fetches one parameter at a time
// and decodes its blob into a typed record; and the Tx power made of them. Getters may come from
// any thread, but not while the command thread makes or releases the client; a getter that finds
// none makes one. Beware: everything here returns 1 on success and 0 on a failure, but for
// modem_lyrax_data_get, which returns 0 on success as the modem API below does. A getter's failure
// leaves the record zeroed or filled in part. Blobs are untrusted: a field that a blob is too short
// for ends the decoding. Measurements are 32-bit floats in the modem's units, without scaling.
#pragma once

#include <cstddef>
#include <cstdint>

#include "modem_lyrax_api.h"

inline constexpr size_t MODEM_ANTENNAS = 4;

struct modem_lyrax_lte_srv_meas_info {
  uint8_t version;
  uint8_t version_ssmr;
  uint32_t earfcn;
  uint16_t pci;
  uint8_t is_srv_cell;
  uint16_t rx_valid;
  float rsrp[MODEM_ANTENNAS];
  float rsrq[MODEM_ANTENNAS];
  float rssi[MODEM_ANTENNAS];
  float snr[MODEM_ANTENNAS];
};
static_assert(sizeof(modem_lyrax_lte_srv_meas_info) == 80);

struct modem_lyrax_nr5g_srv_meas_info {
  uint32_t version;
  float rsrp[MODEM_ANTENNAS];
  float rsrq;
};
static_assert(sizeof(modem_lyrax_nr5g_srv_meas_info) == 24);

struct modem_lyrax_nr5g_ll1_fw_rx_control_agc {
  uint32_t version;
  float rssi[MODEM_ANTENNAS];
};
static_assert(sizeof(modem_lyrax_nr5g_ll1_fw_rx_control_agc) == 20);

struct modem_lyrax_nr5g_ll1_fw_serving_ftl {
  uint32_t version;
  float snr[MODEM_ANTENNAS];
};
static_assert(sizeof(modem_lyrax_nr5g_ll1_fw_serving_ftl) == 20);

struct modem_lyrax_nr5g_ml1_antenna_switch_diversity {
  uint32_t version;
  uint8_t ant_rx_0_old;
  uint8_t ant_rx_0_new;
  uint8_t ant_rx_1_old;
  uint8_t ant_rx_1_new;
  uint8_t ant_rx_2_old;
  uint8_t ant_rx_2_new;
  uint8_t ant_rx_3_old;
  uint8_t ant_rx_3_new;
  uint8_t ant_tx_0_old;
  uint8_t ant_tx_0_new;
  uint8_t ant_tx_1_old;
  uint8_t ant_tx_1_new;
};
static_assert(sizeof(modem_lyrax_nr5g_ml1_antenna_switch_diversity) == 16);

struct modem_lyrax_wcdma_pn_search_edition2 {
  uint8_t version;
  float rx_agc_0;
  float rx_agc_1;
};
static_assert(sizeof(modem_lyrax_wcdma_pn_search_edition2) == 12);

struct modem_lyrax_gsm_l1_rx_diversity_metrics {
  uint8_t version;
  float rx_prx;
  float rx_drx;
};
static_assert(sizeof(modem_lyrax_gsm_l1_rx_diversity_metrics) == 12);

struct modem_lyrax_mcs_trm_asdiv {
  uint8_t version;
  uint8_t ant_number;
  uint16_t ant_switch_path;
  uint16_t sig_path;
  uint8_t old_config;
  uint8_t new_config;
};
static_assert(sizeof(modem_lyrax_mcs_trm_asdiv) == 8);

struct modem_lyrax_lte_pusch_power_info {
  uint8_t version;
  int16_t pusch_tx_power;
  uint8_t dl_path_loss;
  uint16_t max_power;
  uint16_t pusch_ex_tx_power;
};
static_assert(sizeof(modem_lyrax_lte_pusch_power_info) == 10);

struct modem_lyrax_nr5g_mac_ul_phy_ch_power_info {
  uint32_t version_hook;
  float tx_power_pusch;
  float tx_power_pucch;
  float tx_power_srs;
  float tx_power_prach;
  float mtpl_pusch;
  float mtpl_pucch;
  float mtpl_srs;
  float mtpl_prach;
  uint32_t pathloss[4];
};
static_assert(sizeof(modem_lyrax_nr5g_mac_ul_phy_ch_power_info) == 52);

// ---- the client ----

// Replaces the client. 1 when there is one afterwards, else 0.
[[nodiscard]] uint32_t modem_lyrax_api_init_ex(vs_event_cb event_cb,
                                               modem_api_operational_status_event_cb status_cb);
// The same with callbacks that only log.
[[nodiscard]] uint32_t modem_lyrax_api_init();
void modem_lyrax_api_deinit();

// Switches the statistics feature. 1, or 0 on a failure.
[[nodiscard]] uint32_t modem_lyrax_set_feature_status(uint8_t status, uint8_t second_flag_present,
                                                      uint8_t second_flag);
[[nodiscard]] uint32_t modem_lyrax_stats_start();
// Fetches the blob of one parameter, making a client when there is none. 0, or 1 on a failure.
// Public for tests alone: the getters call it with the data mutex held.
[[nodiscard]] uint32_t modem_lyrax_data_get(uint32_t sub, uint32_t id);

// ---- getters ----

// Of the carrier that parameter `id` tells of.
[[nodiscard]] uint32_t modem_lyrax_lte_srv_meas_info_get(uint32_t sub, uint32_t id,
                                                         modem_lyrax_lte_srv_meas_info* record);
[[nodiscard]] uint32_t modem_lyrax_nr5g_srv_meas_info_get(uint32_t sub, uint32_t id,
                                                          modem_lyrax_nr5g_srv_meas_info* record);
template <uint32_t id>
uint32_t modem_lyrax_lte_carrier(uint32_t sub, modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, id, record);
}
template <uint32_t id>
uint32_t modem_lyrax_nr5g_carrier(uint32_t sub, modem_lyrax_nr5g_srv_meas_info* record) {
  return modem_lyrax_nr5g_srv_meas_info_get(sub, id, record);
}
inline constexpr auto& modem_lyrax_lte_srv_meas_info_get_for_pcc = modem_lyrax_lte_carrier<0x52>;
inline constexpr auto& modem_lyrax_lte_srv_meas_info_get_for_scc1 = modem_lyrax_lte_carrier<0x67>;
inline constexpr auto& modem_lyrax_lte_srv_meas_info_get_for_scc2 = modem_lyrax_lte_carrier<0x68>;
inline constexpr auto& modem_lyrax_lte_srv_meas_info_get_for_scc3 = modem_lyrax_lte_carrier<0x69>;
inline constexpr auto& modem_lyrax_lte_srv_meas_info_get_for_scc4 = modem_lyrax_lte_carrier<0x6A>;
inline constexpr auto& modem_lyrax_lte_srv_meas_info_get_for_scc5 = modem_lyrax_lte_carrier<0x6B>;
inline constexpr auto& modem_lyrax_lte_srv_meas_info_get_for_scc6 = modem_lyrax_lte_carrier<0x6C>;
inline constexpr auto& modem_lyrax_nr5g_srv_meas_info_get_for_pcc = modem_lyrax_nr5g_carrier<0x87>;
inline constexpr auto& modem_lyrax_nr5g_srv_meas_info_get_for_scc1 = modem_lyrax_nr5g_carrier<0x06>;
inline constexpr auto& modem_lyrax_nr5g_srv_meas_info_get_for_scc2 = modem_lyrax_nr5g_carrier<0x07>;

[[nodiscard]] uint32_t modem_lyrax_nr5g_ll1_fw_rx_control_agc_get(
    uint32_t sub, modem_lyrax_nr5g_ll1_fw_rx_control_agc* record);
[[nodiscard]] uint32_t modem_lyrax_nr5g_ll1_fw_serving_ftl_get(
    uint32_t sub, modem_lyrax_nr5g_ll1_fw_serving_ftl* record);
[[nodiscard]] uint32_t modem_lyrax_nr5g_ml1_antenna_switch_diversity_get(
    uint32_t sub, modem_lyrax_nr5g_ml1_antenna_switch_diversity* record);
[[nodiscard]] uint32_t modem_lyrax_wcdma_pn_search_edition2_get(
    uint32_t sub, modem_lyrax_wcdma_pn_search_edition2* record);
[[nodiscard]] uint32_t modem_lyrax_gsm_l1_rx_diversity_metrics_get(
    uint32_t sub, modem_lyrax_gsm_l1_rx_diversity_metrics* record);
[[nodiscard]] uint32_t modem_lyrax_mcs_trm_asdiv_get(uint32_t sub,
                                                     modem_lyrax_mcs_trm_asdiv* record);
[[nodiscard]] uint32_t modem_lyrax_lte_pusch_power_info_get(
    uint32_t sub, modem_lyrax_lte_pusch_power_info* record);
[[nodiscard]] uint32_t modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get(
    uint32_t sub, modem_lyrax_nr5g_mac_ul_phy_ch_power_info* record);

// The serving RAT, or -1.
[[nodiscard]] int32_t modem_sys_mode_get(uint32_t sub);
inline constexpr int32_t MODEM_RAT_LTE = 9;
inline constexpr int32_t MODEM_RAT_NR = 12;

// ---- Tx power, in the modem's unit ----

inline constexpr int32_t MODEM_TX_POWER_UNAVAILABLE = 0xFFFF;

// Of one subscription, of the default data subscription, and the larger of both subscriptions'.
[[nodiscard]] int32_t modem_tx_power_get_by_sub(uint32_t sub);
[[nodiscard]] int32_t modem_tx_power_get_for_dds_sub();
[[nodiscard]] int32_t modem_tx_power_get_for_max_sub();
