#include "tervik_mbn_utils.h"

#include <mutex>

#include "pdc_utils.h"
#include "tervik_extend_cmn.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr uint32_t MBN_TYPE_LIMIT = 2;
constexpr uint32_t SUB_MASK_MAX = 3;
constexpr uint32_t SUB_COUNT = 2;

int g_tervik_pdc_init_status = -1;

// Serialises the reads of the debug property. Never destroyed: the framework's thread asks the
// gate while the process exits.
qtimutex::QtiSharedMutex& g_mbn_mutex = *new qtimutex::QtiSharedMutex("g_mbn_mutex");

bool in_mask(uint32_t sub_mask, uint32_t sub) {
  return (sub_mask >> sub & 1) != 0;
}

// The checks at the beginning of both operations; each logs its reason.
[[nodiscard]] bool check_arguments(const char* func, uint32_t sub_mask, uint32_t mbn_type) {
  tervik_log_debug_as(func, "mbn_type %d", mbn_type);
  if (mbn_type >= MBN_TYPE_LIMIT) {
    tervik_log_error_as(func, "config_type is invalid");
    tervik_tell_outcome(-1);
    return false;
  }
  tervik_log_debug_as(func, "sub_mask %d", sub_mask);
  if (sub_mask == 0 || sub_mask > SUB_MASK_MAX) {
    tervik_log_error_as(func, "sub_mask is out of range");
    tervik_tell_outcome(-1);
    return false;
  }
  return true;
}

}  // namespace

int tervik_mbn_init(uint8_t force_init) {
  tervik_log_debug("function entry ------------->");
  if (force_init == 0 && g_tervik_pdc_init_status == 0) {
    tervik_log_debug("pdc init have been done, do nothing");
    return 0;
  }
  pdc_clean_ex();
  tervik_log_debug("start tervik pdc init, g_tervik_pdc_init_status = %d, force_init = %d",
                   g_tervik_pdc_init_status, force_init);
  g_tervik_pdc_init_status = pdc_init_ex(tervik_mbn_debug_all_pdc_no_rsp_count_check);
  if (g_tervik_pdc_init_status != 0) {
    tervik_log_error("pdc init failed, g_tervik_pdc_init_status = %d", g_tervik_pdc_init_status);
    tervik_tell_outcome(g_tervik_pdc_init_status);
  }
  return g_tervik_pdc_init_status;
}

int tervik_refresh_mbn(uint32_t sub_mask, uint32_t mbn_type) {
  if (!check_arguments(__func__, sub_mask, mbn_type)) {
    return 0;
  }
  const int status = tervik_mbn_init(0);
  if (status != 0) {
    tervik_log_error("pdc init failed, do nothing");
    return status;
  }
  int result = 0;
  for (uint32_t sub = 0; sub < SUB_COUNT; ++sub) {
    if (in_mask(sub_mask, sub)) {
      result = pdc_activate_config_ex(mbn_type, PDC_ACTIVATION_REFRESH_ONLY_V01, sub, sub);
      tervik_log_print(LOG_CLASS_DEBUG, sub, "SUB_%d pdc_activate_config_ex ret %d", sub, result);
      tervik_tell_outcome(result);
    }
  }
  return result;
}

int tervik_refresh_sw_mbn(uint32_t sub_mask) {
  return tervik_refresh_mbn(sub_mask, PDC_CONFIG_TYPE_MODEM_SW_V01);
}

int tervik_reactivate_mbn(uint32_t sub_mask, uint32_t mbn_type) {
  if (!check_arguments(__func__, sub_mask, mbn_type)) {
    return -1;
  }
  if (tervik_mbn_init(1) != 0) {
    tervik_log_error("pdc init failed, do nothing");
    return -1;
  }
  int result = 0;
  for (uint32_t sub = 0; sub < SUB_COUNT; ++sub) {
    if (!in_mask(sub_mask, sub)) {
      continue;
    }
    pdc_config_pdc_info config = {};
    result = pdc_get_current_config_ex(&config, mbn_type, sub);
    tervik_log_print(LOG_CLASS_DEBUG, sub, "SUB_%d pdc_get_current_config_ex ret_val %d", sub,
                     result);
    tervik_tell_outcome(result);
    if (result != PDC_SUCCESS) {
      tervik_log_print(LOG_CLASS_ERROR, sub, "SUB_%d pdc_get_current_config_ex fail", sub);
      return result;
    }
    tervik_mbn_deactivate_config(sub, mbn_type);
    result = pdc_select_config_ex(&config, mbn_type, sub);
    tervik_log_print(LOG_CLASS_DEBUG, sub, "SUB_%d pdc_select_config_ex ret_val %d", sub, result);
    tervik_tell_outcome(result);
    result = pdc_activate_config_ex2(mbn_type, sub);
    tervik_log_print(LOG_CLASS_DEBUG, sub, "SUB_%d pdc_activate_config_ex ret_val %d", sub, result);
    tervik_tell_outcome(result);
  }
  return result;
}

int tervik_reactivate_sw_mbn(uint32_t sub_mask) {
  return tervik_reactivate_mbn(sub_mask, PDC_CONFIG_TYPE_MODEM_SW_V01);
}

void tervik_mbn_deactivate_config(uint32_t sub, uint32_t config_type) {
  if (!tervik_check_sub_id(sub)) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "sub is invalid, sub: %d", sub);
    return;
  }
  if (config_type >= MBN_TYPE_LIMIT) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "config_type is invalid, config_type: %d", config_type);
    return;
  }
  const int ret_pdc = pdc_deactivate_config_ex(sub, config_type);
  const int ret_sync = tervik_nvefs_sync();
  tervik_log_print(LOG_CLASS_DEBUG, sub,
                   "pdc_deactivate_config_ex, ret_pdc: %d, ret_sync: %d, sub: %d, config_type: %d",
                   ret_pdc, ret_sync, sub, config_type);
  tervik_tell_outcome(ret_pdc != 0 ? ret_pdc : ret_sync);
}

bool tervik_mbn_debug_all_pdc_no_rsp_count_check() {
  const std::lock_guard lock(g_mbn_mutex);
  int count = 0;
  tervik_get_property_value_from_int("persist.radio.all_pdc_no_rsp_count", &count, 0);
  if (count >= 1) {
    tervik_log_error("NOTICE!!! PROPERTY_DEBUG_ALL_PDC_NO_RSP_COUNT(%d) is running", count);
    return false;
  }
  return true;
}
