#include "modem_lyrax_mgr.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <mutex>
#include <span>

#include "tervik_utils_cmn.h"

static_assert(std::endian::native == std::endian::little, "blobs are little-endian");

namespace {

constexpr uint32_t STATS_FEATURE = 2;
constexpr uint32_t DATA_GET_SUCCESS = 0;
constexpr uint32_t DATA_GET_FAILURE = 1;
constexpr uint32_t SYS_MODE_ID = 0x2C;

std::atomic<int32_t> g_lyrax_client_id{-1};
uint32_t g_lyrax_req_number = 0;

// Held by each getter for its whole run; guards the blob and the cursor below.
std::mutex g_lyrax_data_mutex;
uint8_t g_lyrax_data[VS_STATS_VALUE_MAX];
uint32_t g_lyrax_data_len = 0;
uint32_t g_lyrax_data_left = 0;  // bytes not yet consumed
int32_t g_pK_DATA_CNT = 0;       // offset of the next byte
uint32_t g_lyrax_data_id = 0;

// ---- fields ----

// One field of a blob: `width` bytes that go to `offset` in the record.
struct stats_field {
  const char* name;
  uint32_t width;
  size_t offset;
};

// A record's field as a row.
#define FIELD(record, member)                                 \
  stats_field {                                               \
#member, sizeof(record::member), offsetof(record, member) \
  }
// An array's element as a row, under a name of its own.
#define ELEMENT(record, array, index, name)                                                      \
  stats_field {                                                                                  \
    name, sizeof(record::array[0]), offsetof(record, array) + (index) * sizeof(record::array[0]) \
  }

// The blob interleaves per antenna, the record groups per quantity.
constexpr std::array LTE_SRV_MEAS_FIELDS = {
    FIELD(modem_lyrax_lte_srv_meas_info, version),
    FIELD(modem_lyrax_lte_srv_meas_info, version_ssmr),
    FIELD(modem_lyrax_lte_srv_meas_info, earfcn),
    FIELD(modem_lyrax_lte_srv_meas_info, pci),
    FIELD(modem_lyrax_lte_srv_meas_info, is_srv_cell),
    FIELD(modem_lyrax_lte_srv_meas_info, rx_valid),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrp, 0, "rsrp_rx0"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrq, 0, "rsrq_rx0"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rssi, 0, "rssi_rx0"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, snr, 0, "snr_rx0"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrp, 1, "rsrp_rx1"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrq, 1, "rsrq_rx1"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rssi, 1, "rssi_rx1"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, snr, 1, "snr_rx1"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrp, 2, "rsrp_rx2"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrq, 2, "rsrq_rx2"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rssi, 2, "rssi_rx2"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, snr, 2, "snr_rx2"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrp, 3, "rsrp_rx3"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rsrq, 3, "rsrq_rx3"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, rssi, 3, "rssi_rx3"),
    ELEMENT(modem_lyrax_lte_srv_meas_info, snr, 3, "snr_rx3"),
};

constexpr std::array NR5G_SRV_MEAS_FIELDS = {
    FIELD(modem_lyrax_nr5g_srv_meas_info, version),
    ELEMENT(modem_lyrax_nr5g_srv_meas_info, rsrp, 0, "rsrp_rx0"),
    ELEMENT(modem_lyrax_nr5g_srv_meas_info, rsrp, 1, "rsrp_rx1"),
    ELEMENT(modem_lyrax_nr5g_srv_meas_info, rsrp, 2, "rsrp_rx2"),
    ELEMENT(modem_lyrax_nr5g_srv_meas_info, rsrp, 3, "rsrp_rx3"),
    FIELD(modem_lyrax_nr5g_srv_meas_info, rsrq),
};

constexpr std::array NR5G_AGC_FIELDS = {
    FIELD(modem_lyrax_nr5g_ll1_fw_rx_control_agc, version),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_rx_control_agc, rssi, 0, "rssi0"),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_rx_control_agc, rssi, 1, "rssi1"),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_rx_control_agc, rssi, 2, "rssi2"),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_rx_control_agc, rssi, 3, "rssi3"),
};

constexpr std::array NR5G_FTL_FIELDS = {
    FIELD(modem_lyrax_nr5g_ll1_fw_serving_ftl, version),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_serving_ftl, snr, 0, "snr0"),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_serving_ftl, snr, 1, "snr1"),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_serving_ftl, snr, 2, "snr2"),
    ELEMENT(modem_lyrax_nr5g_ll1_fw_serving_ftl, snr, 3, "snr3"),
};

constexpr std::array NR5G_ANTENNA_FIELDS = {
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, version),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_0_old),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_0_new),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_1_old),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_1_new),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_2_old),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_2_new),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_3_old),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_rx_3_new),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_tx_0_old),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_tx_0_new),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_tx_1_old),
    FIELD(modem_lyrax_nr5g_ml1_antenna_switch_diversity, ant_tx_1_new),
};

constexpr std::array WCDMA_FIELDS = {
    FIELD(modem_lyrax_wcdma_pn_search_edition2, version),
    FIELD(modem_lyrax_wcdma_pn_search_edition2, rx_agc_0),
    FIELD(modem_lyrax_wcdma_pn_search_edition2, rx_agc_1),
};

constexpr std::array GSM_FIELDS = {
    FIELD(modem_lyrax_gsm_l1_rx_diversity_metrics, version),
    FIELD(modem_lyrax_gsm_l1_rx_diversity_metrics, rx_prx),
    FIELD(modem_lyrax_gsm_l1_rx_diversity_metrics, rx_drx),
};

constexpr std::array ASDIV_FIELDS = {
    FIELD(modem_lyrax_mcs_trm_asdiv, version),         FIELD(modem_lyrax_mcs_trm_asdiv, ant_number),
    FIELD(modem_lyrax_mcs_trm_asdiv, ant_switch_path), FIELD(modem_lyrax_mcs_trm_asdiv, sig_path),
    FIELD(modem_lyrax_mcs_trm_asdiv, old_config),      FIELD(modem_lyrax_mcs_trm_asdiv, new_config),
};

constexpr std::array LTE_PUSCH_FIELDS = {
    FIELD(modem_lyrax_lte_pusch_power_info, version),
    FIELD(modem_lyrax_lte_pusch_power_info, pusch_tx_power),
    FIELD(modem_lyrax_lte_pusch_power_info, dl_path_loss),
    FIELD(modem_lyrax_lte_pusch_power_info, max_power),
    FIELD(modem_lyrax_lte_pusch_power_info, pusch_ex_tx_power),
};

constexpr std::array NR5G_POWER_FIELDS = {
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, version_hook),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, tx_power_pusch),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, tx_power_pucch),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, tx_power_srs),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, tx_power_prach),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, mtpl_pusch),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, mtpl_pucch),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, mtpl_srs),
    FIELD(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, mtpl_prach),
    ELEMENT(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, pathloss, 0, "pathloss"),
    ELEMENT(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, pathloss, 1, "pathloss"),
    ELEMENT(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, pathloss, 2, "pathloss"),
    ELEMENT(modem_lyrax_nr5g_mac_ul_phy_ch_power_info, pathloss, 3, "pathloss"),
};

#undef FIELD
#undef ELEMENT

// ---- decoding ----

// Copies the next `width` bytes of the blob. False when they are not there.
[[nodiscard]] bool read_field(const char* func, uint32_t sub, const char* name, uint32_t width,
                              void* to) {
  if (g_lyrax_data_left < width) {
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
  memcpy(to, g_lyrax_data + g_pK_DATA_CNT, width);
  g_pK_DATA_CNT += static_cast<int32_t>(width);
  g_lyrax_data_left -= width;
  return true;
}

// Where a getter decodes to.
struct stats_target {
  void* record;
  size_t size;
  std::span<const stats_field> fields;
};

// Fetches parameter `id` and fills the record from its blob. The data mutex is held.
[[nodiscard]] uint32_t fetch_and_decode(const char* func, uint32_t sub, uint32_t id,
                                        const stats_target& target) {
  if (target.record == nullptr) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "ptr_lyrax_data is NULL");
    return 0;
  }
  if (modem_lyrax_data_get(sub, id) != DATA_GET_SUCCESS) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "modem_lyrax_data_get failed");
    return 0;
  }
  memset(target.record, 0, target.size);
  auto* const bytes = static_cast<uint8_t*>(target.record);
  const bool filled =
      std::all_of(target.fields.begin(), target.fields.end(), [&](const stats_field& field) {
        return read_field(func, sub, field.name, field.width, bytes + field.offset);
      });
  return filled ? 1 : 0;
}

enum class log_id : uint8_t { no, yes };

// Every getter: its own id, record and fields in, its result out.
template <typename Record>
[[nodiscard]] uint32_t run_getter(const char* func, uint32_t sub, uint32_t id, Record* record,
                                  std::span<const stats_field> fields,
                                  log_id with_id = log_id::no) {
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
    ret = fetch_and_decode(func, sub, id, {record, sizeof(Record), fields});
  }
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "function exit, ret = %d", ret);
  return ret;
}

// ---- fetching ----

// Makes a client when there is none. False when that fails.
[[nodiscard]] bool ensure_client(const char* func, uint32_t sub) {
  if (modem_lyrax_api_is_inited() != 0) {
    return true;
  }
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "The lyrax is not inited, will init it");
  // Whether there is a client afterwards is asked next.
  static_cast<void>(
      modem_lyrax_api_init_ex(modem_lyrax_callback_event_cb, modem_lyrax_operational_status_cb));
  if (modem_lyrax_api_is_inited() != 0) {
    return true;
  }
  tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "The lyrax init failed, will do nothing");
  return false;
}

// Looks at what came for (sub, id); false, with a line in the log, when it is not one valid blob.
[[nodiscard]] bool check_returned(const char* func, uint32_t sub, uint32_t id,
                                  const stats_para_data& data) {
  const uint32_t number = g_lyrax_req_number;
  const uint32_t id_num = data.para_num;
  const vs_stats_entry& entry = data.para[0];
  const auto fail = [&](const char* what) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub,
                        "Fail to get data, %s, number = %d, sub = %d, ret id_num = %d, id = %d",
                        what, number, sub, id_num, id);
    return false;
  };
  char what[TERVIK_TEXT_SIZE];
  if (id_num == 0) {
    return fail("empty");
  }
  if (id_num != 1) {
    return fail("id num error");
  }
  if (entry.id != id) {
    snprintf(what, sizeof(what), "ret_id(%d) is invalid", static_cast<int>(entry.id));
    return fail(what);
  }
  if (entry.sub != sub) {
    snprintf(what, sizeof(what), "ret_sub(%d) is invalid", entry.sub);
    return fail(what);
  }
  if (entry.value_len < 1 || entry.value_len > VS_STATS_VALUE_MAX) {
    snprintf(what, sizeof(what), "data_len(%d) is invalid, should be in (0, %d]",
             static_cast<int>(entry.value_len), static_cast<int>(VS_STATS_VALUE_MAX));
    return fail(what);
  }
  return true;
}

}  // namespace

// ---- the client ----

uint32_t modem_lyrax_api_init_ex(vs_event_cb event_cb,
                                 modem_api_operational_status_event_cb status_cb) {
  tervik_log_debug("old g_lyrax_client_id = %d", g_lyrax_client_id.load());
  if (g_lyrax_client_id >= 0) {
    // It can only be refused for an id outside the table.
    static_cast<void>(modem_api_free_client(g_lyrax_client_id));
    g_lyrax_client_id = -1;
  }
  modem_api_release();
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

uint32_t modem_lyrax_api_is_inited() {
  tervik_log_debug("g_lyrax_client_id = %d", g_lyrax_client_id.load());
  return g_lyrax_client_id >= 0 ? 1 : 0;
}

void modem_lyrax_api_deinit() {
  tervik_log_debug("g_lyrax_client_id = %d", g_lyrax_client_id.load());
  if (g_lyrax_client_id >= 0) {
    static_cast<void>(modem_api_free_client(g_lyrax_client_id));
    g_lyrax_client_id = -1;
  }
  modem_api_release();
}

void modem_lyrax_callback_event_cb(uint32_t event_id, const void* /*data*/, uint32_t data_len) {
  tervik_log_debug("do nothing, event_id = %d, data_len = %d", event_id, data_len);
}

void modem_lyrax_operational_status_cb(uint32_t event, uint32_t client_type) {
  tervik_log_debug("do nothing, event_id = %d, client_type = %d", event, client_type);
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

uint32_t modem_lyrax_get_stats_parameter(uint16_t sub, uint16_t slot, stats_para_data* data) {
  if (modem_lyrax_api_is_inited() == 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "The lyrax is not inited, do nothing");
    return MODEM_API_FAILURE;
  }
  return modem_api_get_stats_parameter(g_lyrax_client_id, sub, slot, data);
}

uint32_t modem_lyrax_data_get(uint32_t sub, uint32_t id) {
  g_lyrax_data_len = 0;
  memset(g_lyrax_data, 0, sizeof(g_lyrax_data));
  if (!ensure_client(__func__, sub)) {
    return DATA_GET_FAILURE;
  }
  if (!tervik_check_sub_id(sub)) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "modem_api_get_stats_parameter, sub(%d) is invalid",
                     sub);
    return DATA_GET_FAILURE;
  }
  stats_para_data data = {};
  data.para_num = 1;
  data.para[0].sub = static_cast<uint16_t>(sub);
  data.para[0].id = id;
  ++g_lyrax_req_number;
  const uint32_t ret = modem_lyrax_get_stats_parameter(
      static_cast<uint16_t>(sub), static_cast<uint16_t>(g_lyrax_req_number), &data);
  if (ret != MODEM_API_SUCCESS) {
    tervik_log_print(LOG_CLASS_ERROR, sub,
                     "Fail to get data fail, number = %d, ret = %d, sub = %d, id = %d",
                     g_lyrax_req_number, ret, sub, id);
    return DATA_GET_FAILURE;
  }
  if (!check_returned(__func__, sub, id, data)) {
    return DATA_GET_FAILURE;
  }
  const vs_stats_entry& entry = data.para[0];
  g_lyrax_data_len = entry.value_len;
  tervik_log_print(LOG_CLASS_DEBUG, sub,
                   "Success to get data, number = %d, sub = %d, ret id_num = %d, id = %d, data_len "
                   "= %d",
                   g_lyrax_req_number, sub, data.para_num, id, g_lyrax_data_len);
  memcpy(g_lyrax_data, entry.value, g_lyrax_data_len);
  g_pK_DATA_CNT = 0;
  g_lyrax_data_left = g_lyrax_data_len;
  g_lyrax_data_id = id;
  return DATA_GET_SUCCESS;
}

// ---- getters ----

uint32_t modem_lyrax_lte_srv_meas_info_get(uint32_t sub, uint32_t id,
                                           modem_lyrax_lte_srv_meas_info* record) {
  return run_getter(__func__, sub, id, record, LTE_SRV_MEAS_FIELDS, log_id::yes);
}

uint32_t modem_lyrax_nr5g_srv_meas_info_get(uint32_t sub, uint32_t id,
                                            modem_lyrax_nr5g_srv_meas_info* record) {
  return run_getter(__func__, sub, id, record, NR5G_SRV_MEAS_FIELDS, log_id::yes);
}

uint32_t modem_lyrax_lte_srv_meas_info_get_for_pcc(uint32_t sub,
                                                   modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, 0x52, record);
}

uint32_t modem_lyrax_lte_srv_meas_info_get_for_scc1(uint32_t sub,
                                                    modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, 0x67, record);
}

uint32_t modem_lyrax_lte_srv_meas_info_get_for_scc2(uint32_t sub,
                                                    modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, 0x68, record);
}

uint32_t modem_lyrax_lte_srv_meas_info_get_for_scc3(uint32_t sub,
                                                    modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, 0x69, record);
}

uint32_t modem_lyrax_lte_srv_meas_info_get_for_scc4(uint32_t sub,
                                                    modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, 0x6A, record);
}

uint32_t modem_lyrax_lte_srv_meas_info_get_for_scc5(uint32_t sub,
                                                    modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, 0x6B, record);
}

uint32_t modem_lyrax_lte_srv_meas_info_get_for_scc6(uint32_t sub,
                                                    modem_lyrax_lte_srv_meas_info* record) {
  return modem_lyrax_lte_srv_meas_info_get(sub, 0x6C, record);
}

uint32_t modem_lyrax_nr5g_srv_meas_info_get_for_pcc(uint32_t sub,
                                                    modem_lyrax_nr5g_srv_meas_info* record) {
  return modem_lyrax_nr5g_srv_meas_info_get(sub, 0x87, record);
}

uint32_t modem_lyrax_nr5g_srv_meas_info_get_for_scc1(uint32_t sub,
                                                     modem_lyrax_nr5g_srv_meas_info* record) {
  return modem_lyrax_nr5g_srv_meas_info_get(sub, 0x06, record);
}

uint32_t modem_lyrax_nr5g_srv_meas_info_get_for_scc2(uint32_t sub,
                                                     modem_lyrax_nr5g_srv_meas_info* record) {
  return modem_lyrax_nr5g_srv_meas_info_get(sub, 0x07, record);
}

uint32_t modem_lyrax_nr5g_ll1_fw_rx_control_agc_get(
    uint32_t sub, modem_lyrax_nr5g_ll1_fw_rx_control_agc* record) {
  return run_getter(__func__, sub, 0x5E, record, NR5G_AGC_FIELDS);
}

uint32_t modem_lyrax_nr5g_ll1_fw_serving_ftl_get(uint32_t sub,
                                                 modem_lyrax_nr5g_ll1_fw_serving_ftl* record) {
  return run_getter(__func__, sub, 0x70, record, NR5G_FTL_FIELDS);
}

uint32_t modem_lyrax_nr5g_ml1_antenna_switch_diversity_get(
    uint32_t sub, modem_lyrax_nr5g_ml1_antenna_switch_diversity* record) {
  return run_getter(__func__, sub, 0x71, record, NR5G_ANTENNA_FIELDS);
}

uint32_t modem_lyrax_wcdma_pn_search_edition2_get(uint32_t sub,
                                                  modem_lyrax_wcdma_pn_search_edition2* record) {
  return run_getter(__func__, sub, 0x6E, record, WCDMA_FIELDS);
}

uint32_t modem_lyrax_gsm_l1_rx_diversity_metrics_get(
    uint32_t sub, modem_lyrax_gsm_l1_rx_diversity_metrics* record) {
  return run_getter(__func__, sub, 0x6F, record, GSM_FIELDS);
}

uint32_t modem_lyrax_mcs_trm_asdiv_get(uint32_t sub, modem_lyrax_mcs_trm_asdiv* record) {
  return run_getter(__func__, sub, 0x64, record, ASDIV_FIELDS);
}

uint32_t modem_lyrax_lte_pusch_power_info_get(uint32_t sub,
                                              modem_lyrax_lte_pusch_power_info* record) {
  return run_getter(__func__, sub, 0x62, record, LTE_PUSCH_FIELDS);
}

uint32_t modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get(
    uint32_t sub, modem_lyrax_nr5g_mac_ul_phy_ch_power_info* record) {
  return run_getter(__func__, sub, 0x5A, record, NR5G_POWER_FIELDS);
}

int32_t modem_sys_mode_get(uint32_t sub) {
  tervik_log_print(LOG_CLASS_DEBUG, sub, "sub = %d", sub);
  int32_t rat = -1;
  {
    const std::lock_guard lock(g_lyrax_data_mutex);
    uint8_t stack_max = 0;
    uint32_t first_rat = 0;
    if (modem_lyrax_data_get(sub, SYS_MODE_ID) != DATA_GET_SUCCESS) {
      tervik_log_print(LOG_CLASS_ERROR, sub, "modem_lyrax_data_get failed");
    } else if (read_field(__func__, sub, "stack_max", sizeof(stack_max), &stack_max) &&
               stack_max != 0 && read_field(__func__, sub, "rat", sizeof(first_rat), &first_rat)) {
      rat = static_cast<int32_t>(first_rat);
    }
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "function exit, rat = %d", rat);
  return rat;
}

// ---- Tx power ----

namespace {

int32_t nr_tx_power(const char* func, uint32_t sub) {
  modem_lyrax_nr5g_mac_ul_phy_ch_power_info power = {};
  if (modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get(sub, &power) == 0) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub,
                        "modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get faile");
    return MODEM_TX_POWER_UNAVAILABLE;
  }
  // A float outside the integers has no truncation.
  constexpr float LIMIT = 2147483648.0F;
  if (!(std::fabs(power.tx_power_pusch) < LIMIT)) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "tx_power_pusch(%f) is invalid",
                        static_cast<double>(power.tx_power_pusch));
    return MODEM_TX_POWER_UNAVAILABLE;
  }
  return static_cast<int32_t>(power.tx_power_pusch);
}

int32_t lte_tx_power(const char* func, uint32_t sub) {
  modem_lyrax_lte_pusch_power_info power = {};
  if (modem_lyrax_lte_pusch_power_info_get(sub, &power) == 0) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "modem_lyrax_lte_pusch_power_info_get faile");
    return MODEM_TX_POWER_UNAVAILABLE;
  }
  return power.pusch_tx_power;
}

}  // namespace

int32_t modem_tx_power_get_by_sub(uint32_t sub) {
  const int32_t rat = modem_sys_mode_get(sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "sub = %d, rat = %d", sub, rat);
  int32_t tx_power = MODEM_TX_POWER_UNAVAILABLE;
  switch (rat) {
    case MODEM_RAT_NR:
      tx_power = nr_tx_power(__func__, sub);
      break;
    case MODEM_RAT_LTE:
      tx_power = lte_tx_power(__func__, sub);
      break;
    default:
      tervik_log_print(LOG_CLASS_ERROR, sub, "rat(%d) is invalid", rat);
      break;
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
  int32_t tx_power = std::max(tx_power0, tx_power1);
  if (tx_power0 == MODEM_TX_POWER_UNAVAILABLE) {
    tx_power = tx_power1;
  } else if (tx_power1 == MODEM_TX_POWER_UNAVAILABLE) {
    tx_power = tx_power0;
  }
  tervik_log_debug("function exit, tx_power0 = %d, tx_power1 = %d, tx_power = %d", tx_power0,
                   tx_power1, tx_power);
  return tx_power;
}
