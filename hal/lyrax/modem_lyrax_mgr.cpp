#include "modem_lyrax_mgr.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "tervik_utils_cmn.h"

static_assert(std::endian::native == std::endian::little, "blobs are little-endian");

// ---- the client ----

namespace {

constexpr uint32_t STATS_FEATURE = 2;

std::atomic<int32_t> g_lyrax_client_id{-1};

void release_client() {
  if (g_lyrax_client_id >= 0) {
    // It can only be refused for an id outside the table.
    static_cast<void>(modem_api_free_client(g_lyrax_client_id));
    g_lyrax_client_id = -1;
  }
  modem_api_release();
}

uint32_t modem_lyrax_api_is_inited() {
  tervik_log_debug("g_lyrax_client_id = %d", g_lyrax_client_id.load());
  return g_lyrax_client_id >= 0 ? 1 : 0;
}

void modem_lyrax_callback_event_cb(uint32_t event_id, const void* /*data*/, uint32_t data_len) {
  tervik_log_debug("do nothing, event_id = %d, data_len = %d", event_id, data_len);
}

void modem_lyrax_operational_status_cb(uint32_t event, uint32_t client_type) {
  tervik_log_debug("do nothing, event_id = %d, client_type = %d", event, client_type);
}

}  // namespace

uint32_t modem_lyrax_api_init_ex(vs_event_cb event_cb,
                                 modem_api_operational_status_event_cb status_cb) {
  tervik_log_debug("old g_lyrax_client_id = %d", g_lyrax_client_id.load());
  release_client();
  // A refusal shows in the next call, which is refused likewise.
  static_cast<void>(modem_api_init());
  int32_t client_id = -1;
  static_cast<void>(modem_api_init_client(0, event_cb, status_cb, &client_id));
  g_lyrax_client_id = client_id;
  tervik_log_debug("new g_lyrax_client_id = %d", g_lyrax_client_id.load());
  if (g_lyrax_client_id < 0) {
    tervik_log_error("modem_api_init_client failed");
    return 0;
  }
  return 1;
}

uint32_t modem_lyrax_api_init() {
  return modem_lyrax_api_init_ex(modem_lyrax_callback_event_cb, modem_lyrax_operational_status_cb);
}

void modem_lyrax_api_deinit() {
  tervik_log_debug("g_lyrax_client_id = %d", g_lyrax_client_id.load());
  release_client();
}

uint32_t modem_lyrax_set_feature_status(uint8_t status, uint8_t second_flag_present,
                                        uint8_t second_flag) {
  if (modem_lyrax_api_is_inited() == 0) {
    tervik_log_error("The lyrax is not inited, do nothing");
    return 0;
  }
  const uint32_t ret = modem_api_set_lyrax_feature_status(g_lyrax_client_id, STATS_FEATURE, status,
                                                          second_flag_present, second_flag);
  tervik_log_debug("ret = %d", ret);
  return ret == MODEM_API_SUCCESS ? 1 : 0;
}

uint32_t modem_lyrax_stats_start() {
  if (modem_lyrax_api_is_inited() == 0) {
    tervik_log_error("The lyrax is not inited, do nothing");
    return 0;
  }
  return modem_lyrax_set_feature_status(1, 1, 1);
}

// ---- fetching ----

namespace {

// Held by each getter for its whole run; guards everything below.
std::mutex g_lyrax_data_mutex;
uint32_t g_lyrax_req_number = 0;
uint8_t g_lyrax_data[VS_STATS_VALUE_MAX];
uint32_t g_lyrax_data_len = 0;
uint32_t g_lyrax_data_left = 0;  // bytes not yet consumed
int32_t g_pK_DATA_CNT = 0;       // offset of the next byte
uint32_t g_lyrax_data_id = 0;

uint32_t modem_lyrax_get_stats_parameter(uint16_t sub, uint16_t slot, stats_para_data* data) {
  if (modem_lyrax_api_is_inited() == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "The lyrax is not inited, do nothing");
    return MODEM_API_FAILURE;
  }
  return modem_api_get_stats_parameter(g_lyrax_client_id, sub, slot, data);
}

// Looks at what came for (sub, id); false, with a line in the log, when it is not one valid blob.
[[nodiscard]] bool check_returned(const char* func, uint32_t sub, uint32_t id,
                                  const stats_para_data& data) {
  const vs_stats_entry& entry = data.para[0];
  char what[TERVIK_TEXT_SIZE];
  if (data.para_num == 0) {
    snprintf(what, sizeof(what), "empty");
  } else if (data.para_num != 1) {
    snprintf(what, sizeof(what), "id num error");
  } else if (entry.id != id) {
    snprintf(what, sizeof(what), "ret_id(%d) is invalid", entry.id);
  } else if (entry.sub != sub) {
    snprintf(what, sizeof(what), "ret_sub(%d) is invalid", entry.sub);
  } else if (entry.value_len < 1 || entry.value_len > VS_STATS_VALUE_MAX) {
    snprintf(what, sizeof(what), "data_len(%d) is invalid, should be in (0, %d]", entry.value_len,
             VS_STATS_VALUE_MAX);
  } else {
    return true;
  }
  tervik_log_print_as(func, LOG_CLASS_ERROR, sub,
                      "Fail to get data, %s, number = %d, sub = %d, ret id_num = %d, id = %d", what,
                      g_lyrax_req_number, sub, data.para_num, id);
  return false;
}

}  // namespace

uint32_t modem_lyrax_data_get(uint32_t sub, uint32_t id) {
  g_lyrax_data_len = 0;
  memset(g_lyrax_data, 0, sizeof(g_lyrax_data));
  if (modem_lyrax_api_is_inited() == 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "The lyrax is not inited, will init it");
    // Whether there is a client afterwards is asked next.
    static_cast<void>(modem_lyrax_api_init());
    if (modem_lyrax_api_is_inited() == 0) {
      tervik_log_print(LOG_CLASS_ERROR, sub, "The lyrax init failed, will do nothing");
      return 1;
    }
  }
  if (!tervik_check_sub_id(sub)) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "modem_api_get_stats_parameter, sub(%d) is invalid",
                     sub);
    return 1;
  }
  stats_para_data data = {};
  data.para_num = 1;
  data.para[0].sub = static_cast<uint16_t>(sub);
  data.para[0].id = id;
  // The service's slot field carries the number of the request.
  ++g_lyrax_req_number;
  const uint32_t ret = modem_lyrax_get_stats_parameter(
      static_cast<uint16_t>(sub), static_cast<uint16_t>(g_lyrax_req_number), &data);
  if (ret != MODEM_API_SUCCESS) {
    tervik_log_print(LOG_CLASS_ERROR, sub,
                     "Fail to get data fail, number = %d, ret = %d, sub = %d, id = %d",
                     g_lyrax_req_number, ret, sub, id);
    return 1;
  }
  if (!check_returned(__func__, sub, id, data)) {
    return 1;
  }
  g_lyrax_data_len = data.para[0].value_len;
  tervik_log_print(LOG_CLASS_DEBUG, sub,
                   "Success to get data, number = %d, sub = %d, ret id_num = %d, id = %d, data_len "
                   "= %d",
                   g_lyrax_req_number, sub, data.para_num, id, g_lyrax_data_len);
  memcpy(g_lyrax_data, data.para[0].value, g_lyrax_data_len);
  g_pK_DATA_CNT = 0;
  g_lyrax_data_left = g_lyrax_data_len;
  g_lyrax_data_id = id;
  return 0;
}

// ---- getters ----

namespace {

// Takes the fields of the fetched blob one after the other, and speaks for the getter `func`.
struct blob_reader {
  const char* func;
  uint32_t sub;

  // False, with a line in the log, when the rest of the blob is shorter than the value.
  template <typename Value>
  [[nodiscard]] bool operator()(const char* name, Value& value) const {
    constexpr uint32_t WIDTH = sizeof(value);
    if (g_lyrax_data_left < WIDTH) {
      tervik_log_print_as(func, LOG_CLASS_ERROR, sub,
                          "g_lyrax_data_left(%d) is not enough for %s, id(0x%x)", g_lyrax_data_left,
                          name, g_lyrax_data_id);
      return false;
    }
    if (g_pK_DATA_CNT < 0) {
      tervik_log_print_as(func, LOG_CLASS_ERROR, sub,
                          "g_pK_DATA_CNT(%d) is can not < 0 for %s, id(0x%x)", g_pK_DATA_CNT, name,
                          g_lyrax_data_id);
      return false;
    }
    memcpy(&value, g_lyrax_data + g_pK_DATA_CNT, WIDTH);
    g_pK_DATA_CNT += static_cast<int32_t>(WIDTH);
    g_lyrax_data_left -= WIDTH;
    return true;
  }
};

enum class log_id : uint8_t { no, yes };

// Every getter: its own name, id and record in, its result out. `read_fields` takes the fields in
// the order of the blob, with the widths of the record's members; false when the blob ends early.
template <log_id with_id = log_id::no, typename Record, typename ReadFields>
[[nodiscard]] uint32_t run_getter(const char* func, uint32_t sub, uint32_t id, Record* record,
                                  ReadFields read_fields) {
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "function entry");
  uint32_t ret = 0;
  {
    const std::lock_guard lock(g_lyrax_data_mutex);
    const auto shown = static_cast<unsigned>(reinterpret_cast<uintptr_t>(record));
    if (with_id == log_id::yes) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "sub = %d, id = %d, ptr_lyrax_data = 0x%x",
                          sub, id, shown);
    } else {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "sub = %d, ptr_lyrax_data = 0x%x", sub,
                          shown);
    }
    if (record == nullptr) {
      tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "ptr_lyrax_data is NULL");
    } else if (modem_lyrax_data_get(sub, id) != 0) {
      tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "modem_lyrax_data_get failed");
    } else {
      memset(record, 0, sizeof(*record));
      ret = read_fields(blob_reader{func, sub}, *record) ? 1 : 0;
    }
  }
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "function exit, ret = %d", ret);
  return ret;
}

}  // namespace

uint32_t modem_lyrax_lte_srv_meas_info_get(uint32_t sub, uint32_t id,
                                           modem_lyrax_lte_srv_meas_info* record) {
  return run_getter<log_id::yes>(__func__, sub, id, record, [](const blob_reader& read, auto& to) {
    // The blob interleaves per antenna, the record groups per quantity.
    return read("version", to.version) && read("version_ssmr", to.version_ssmr) &&
           read("earfcn", to.earfcn) && read("pci", to.pci) &&
           read("is_srv_cell", to.is_srv_cell) && read("rx_valid", to.rx_valid) &&
           read("rsrp_rx0", to.rsrp[0]) && read("rsrq_rx0", to.rsrq[0]) &&
           read("rssi_rx0", to.rssi[0]) && read("snr_rx0", to.snr[0]) &&
           read("rsrp_rx1", to.rsrp[1]) && read("rsrq_rx1", to.rsrq[1]) &&
           read("rssi_rx1", to.rssi[1]) && read("snr_rx1", to.snr[1]) &&
           read("rsrp_rx2", to.rsrp[2]) && read("rsrq_rx2", to.rsrq[2]) &&
           read("rssi_rx2", to.rssi[2]) && read("snr_rx2", to.snr[2]) &&
           read("rsrp_rx3", to.rsrp[3]) && read("rsrq_rx3", to.rsrq[3]) &&
           read("rssi_rx3", to.rssi[3]) && read("snr_rx3", to.snr[3]);
  });
}

uint32_t modem_lyrax_nr5g_srv_meas_info_get(uint32_t sub, uint32_t id,
                                            modem_lyrax_nr5g_srv_meas_info* record) {
  return run_getter<log_id::yes>(__func__, sub, id, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("rsrp_rx0", to.rsrp[0]) &&
           read("rsrp_rx1", to.rsrp[1]) && read("rsrp_rx2", to.rsrp[2]) &&
           read("rsrp_rx3", to.rsrp[3]) && read("rsrq", to.rsrq);
  });
}

uint32_t modem_lyrax_nr5g_ll1_fw_rx_control_agc_get(
    uint32_t sub, modem_lyrax_nr5g_ll1_fw_rx_control_agc* record) {
  return run_getter(__func__, sub, 0x5E, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("rssi0", to.rssi[0]) && read("rssi1", to.rssi[1]) &&
           read("rssi2", to.rssi[2]) && read("rssi3", to.rssi[3]);
  });
}

uint32_t modem_lyrax_nr5g_ll1_fw_serving_ftl_get(uint32_t sub,
                                                 modem_lyrax_nr5g_ll1_fw_serving_ftl* record) {
  return run_getter(__func__, sub, 0x70, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("snr0", to.snr[0]) && read("snr1", to.snr[1]) &&
           read("snr2", to.snr[2]) && read("snr3", to.snr[3]);
  });
}

uint32_t modem_lyrax_nr5g_ml1_antenna_switch_diversity_get(
    uint32_t sub, modem_lyrax_nr5g_ml1_antenna_switch_diversity* record) {
  return run_getter(__func__, sub, 0x71, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("ant_rx_0_old", to.ant_rx_0_old) &&
           read("ant_rx_0_new", to.ant_rx_0_new) && read("ant_rx_1_old", to.ant_rx_1_old) &&
           read("ant_rx_1_new", to.ant_rx_1_new) && read("ant_rx_2_old", to.ant_rx_2_old) &&
           read("ant_rx_2_new", to.ant_rx_2_new) && read("ant_rx_3_old", to.ant_rx_3_old) &&
           read("ant_rx_3_new", to.ant_rx_3_new) && read("ant_tx_0_old", to.ant_tx_0_old) &&
           read("ant_tx_0_new", to.ant_tx_0_new) && read("ant_tx_1_old", to.ant_tx_1_old) &&
           read("ant_tx_1_new", to.ant_tx_1_new);
  });
}

uint32_t modem_lyrax_wcdma_pn_search_edition2_get(uint32_t sub,
                                                  modem_lyrax_wcdma_pn_search_edition2* record) {
  return run_getter(__func__, sub, 0x6E, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("rx_agc_0", to.rx_agc_0) &&
           read("rx_agc_1", to.rx_agc_1);
  });
}

uint32_t modem_lyrax_gsm_l1_rx_diversity_metrics_get(
    uint32_t sub, modem_lyrax_gsm_l1_rx_diversity_metrics* record) {
  return run_getter(__func__, sub, 0x6F, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("rx_prx", to.rx_prx) && read("rx_drx", to.rx_drx);
  });
}

uint32_t modem_lyrax_mcs_trm_asdiv_get(uint32_t sub, modem_lyrax_mcs_trm_asdiv* record) {
  return run_getter(__func__, sub, 0x64, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("ant_number", to.ant_number) &&
           read("ant_switch_path", to.ant_switch_path) && read("sig_path", to.sig_path) &&
           read("old_config", to.old_config) && read("new_config", to.new_config);
  });
}

uint32_t modem_lyrax_lte_pusch_power_info_get(uint32_t sub,
                                              modem_lyrax_lte_pusch_power_info* record) {
  return run_getter(__func__, sub, 0x62, record, [](const blob_reader& read, auto& to) {
    return read("version", to.version) && read("pusch_tx_power", to.pusch_tx_power) &&
           read("dl_path_loss", to.dl_path_loss) && read("max_power", to.max_power) &&
           read("pusch_ex_tx_power", to.pusch_ex_tx_power);
  });
}

uint32_t modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get(
    uint32_t sub, modem_lyrax_nr5g_mac_ul_phy_ch_power_info* record) {
  return run_getter(__func__, sub, 0x5A, record, [](const blob_reader& read, auto& to) {
    return read("version_hook", to.version_hook) && read("tx_power_pusch", to.tx_power_pusch) &&
           read("tx_power_pucch", to.tx_power_pucch) && read("tx_power_srs", to.tx_power_srs) &&
           read("tx_power_prach", to.tx_power_prach) && read("mtpl_pusch", to.mtpl_pusch) &&
           read("mtpl_pucch", to.mtpl_pucch) && read("mtpl_srs", to.mtpl_srs) &&
           read("mtpl_prach", to.mtpl_prach) && read("pathloss", to.pathloss[0]) &&
           read("pathloss", to.pathloss[1]) && read("pathloss", to.pathloss[2]) &&
           read("pathloss", to.pathloss[3]);
  });
}

int32_t modem_sys_mode_get(uint32_t sub) {
  constexpr uint32_t SYS_MODE_ID = 0x2C;
  tervik_log_print(LOG_CLASS_DEBUG, sub, "sub = %d", sub);
  int32_t rat = -1;
  {
    const std::lock_guard lock(g_lyrax_data_mutex);
    const blob_reader read = {__func__, sub};
    uint8_t stack_max = 0;
    int32_t first_rat = 0;
    if (modem_lyrax_data_get(sub, SYS_MODE_ID) != 0) {
      tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_data_get failed");
    } else if (read("stack_max", stack_max) && stack_max != 0 && read("rat", first_rat)) {
      rat = first_rat;
    }
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "function exit, rat = %d", rat);
  return rat;
}

// ---- Tx power ----

int32_t modem_tx_power_get_by_sub(uint32_t sub) {
  const int32_t rat = modem_sys_mode_get(sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "sub = %d, rat = %d", sub, rat);
  int32_t tx_power = MODEM_TX_POWER_UNAVAILABLE;
  if (rat == MODEM_RAT_NR) {
    // A float outside the integers has no truncation.
    constexpr float LIMIT = 2147483648.0F;
    modem_lyrax_nr5g_mac_ul_phy_ch_power_info power = {};
    if (modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get(sub, &power) == 0) {
      tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get faile");
    } else if (!(std::fabs(power.tx_power_pusch) < LIMIT)) {
      tervik_log_print(LOG_CLASS_ERROR, sub, "tx_power_pusch(%f) is invalid",
                       static_cast<double>(power.tx_power_pusch));
    } else {
      tx_power = static_cast<int32_t>(power.tx_power_pusch);
    }
  } else if (rat == MODEM_RAT_LTE) {
    modem_lyrax_lte_pusch_power_info power = {};
    if (modem_lyrax_lte_pusch_power_info_get(sub, &power) == 0) {
      tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_lte_pusch_power_info_get faile");
    } else {
      tx_power = power.pusch_tx_power;
    }
  } else {
    tervik_log_print(LOG_CLASS_ERROR, sub, "rat(%d) is invalid", rat);
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "function exit, tx_power = %d", tx_power);
  return tx_power;
}

int32_t modem_tx_power_get_for_dds_sub() {
  const auto dds_sub = static_cast<uint32_t>(tervik_get_default_data_sub());
  const int32_t tx_power = modem_tx_power_get_by_sub(dds_sub);
  tervik_log_print(LOG_CLASS_DEBUG, dds_sub, "function exit, dds_sub = %d, tx_power = %d", dds_sub,
                   tx_power);
  return tx_power;
}

int32_t modem_tx_power_get_for_max_sub() {
  const int32_t tx_power0 = modem_tx_power_get_by_sub(0);
  const int32_t tx_power1 = modem_tx_power_get_by_sub(1);
  const int32_t tx_power = tx_power0 == MODEM_TX_POWER_UNAVAILABLE ? tx_power1
                           : tx_power1 == MODEM_TX_POWER_UNAVAILABLE
                               ? tx_power0
                               : std::max(tx_power0, tx_power1);
  tervik_log_debug("function exit, tx_power0 = %d, tx_power1 = %d, tx_power = %d", tx_power0,
                   tx_power1, tx_power);
  return tx_power;
}
