// The platform's QMI PDC (persistent device configuration) service as kiv uses it. Its messages
// travel as these C structures. A response only says that the request was accepted; the outcome
// comes in the indication of the same message id. Responses and indications are untrusted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl.h"

inline constexpr uint16_t QMI_PDC_GET_SELECTED_CONFIG_REQ_V01 = 0x22;
inline constexpr uint16_t QMI_PDC_SET_SELECTED_CONFIG_REQ_V01 = 0x23;
inline constexpr uint16_t QMI_PDC_ACTIVATE_CONFIG_REQ_V01 = 0x27;
inline constexpr uint16_t QMI_PDC_DEACTIVATE_CONFIG_REQ_V01 = 0x2B;

inline constexpr uint16_t QMI_PDC_GET_SELECTED_CONFIG_IND_V01 = 0x22;
inline constexpr uint16_t QMI_PDC_SET_SELECTED_CONFIG_IND_V01 = 0x23;
inline constexpr uint16_t QMI_PDC_LIST_CONFIGS_IND_V01 = 0x24;
inline constexpr uint16_t QMI_PDC_DELETE_CONFIG_IND_V01 = 0x25;
inline constexpr uint16_t QMI_PDC_LOAD_CONFIG_IND_V01 = 0x26;
inline constexpr uint16_t QMI_PDC_ACTIVATE_CONFIG_IND_V01 = 0x27;
inline constexpr uint16_t QMI_PDC_GET_CONFIG_INFO_IND_V01 = 0x28;
inline constexpr uint16_t QMI_PDC_GET_DEFAULT_CONFIG_INFO_IND_V01 = 0x2A;
inline constexpr uint16_t QMI_PDC_DEACTIVATE_CONFIG_IND_V01 = 0x2B;
inline constexpr uint16_t QMI_PDC_VALIDATE_CONFIG_IND_V01 = 0x2C;
inline constexpr uint16_t QMI_PDC_SET_FEATURE_IND_V01 = 0x2E;

// Which configuration of a subscription is meant.
enum pdc_config_type_enum_v01 : uint32_t {
  PDC_CONFIG_TYPE_MODEM_PLATFORM_V01 = 0,
  PDC_CONFIG_TYPE_MODEM_SW_V01 = 1,
};

// How the selected configuration is activated.
enum pdc_activation_type_enum_v01 : uint32_t {
  PDC_ACTIVATION_REGULAR_V01 = 0,
  PDC_ACTIVATION_REFRESH_ONLY_V01 = 1,
};

// Longest configuration id in bytes.
inline constexpr size_t PDC_CONFIG_ID_SIZE_MAX_V01 = 124;

using pdc_result_v01 = qmi_result;

struct pdc_config_info_v01 {
  uint32_t config_type;  // pdc_config_type_enum_v01
  uint32_t config_id_len;
  uint8_t config_id[PDC_CONFIG_ID_SIZE_MAX_V01];
};
static_assert(sizeof(pdc_config_info_v01) == 132);
static_assert(offsetof(pdc_config_info_v01, config_id_len) == 4);
static_assert(offsetof(pdc_config_info_v01, config_id) == 8);

// In all requests a field counts when its flag is 1.

struct pdc_get_selected_config_req_msg_v01 {
  uint32_t config_type;  // pdc_config_type_enum_v01
  uint8_t subscription_id_valid;
  uint8_t unused_5[3];
  uint32_t subscription_id;
};
static_assert(sizeof(pdc_get_selected_config_req_msg_v01) == 12);
static_assert(offsetof(pdc_get_selected_config_req_msg_v01, subscription_id_valid) == 4);
static_assert(offsetof(pdc_get_selected_config_req_msg_v01, subscription_id) == 8);

struct pdc_get_selected_config_resp_msg_v01 {
  pdc_result_v01 resp;
};
static_assert(sizeof(pdc_get_selected_config_resp_msg_v01) == 8);

struct pdc_set_selected_config_req_msg_v01 {
  pdc_config_info_v01 new_config_info;
  uint8_t subscription_id_valid;
  uint8_t unused_133[3];
  uint32_t subscription_id;
};
static_assert(sizeof(pdc_set_selected_config_req_msg_v01) == 140);
static_assert(offsetof(pdc_set_selected_config_req_msg_v01, subscription_id_valid) == 132);
static_assert(offsetof(pdc_set_selected_config_req_msg_v01, subscription_id) == 136);

struct pdc_set_selected_config_resp_msg_v01 {
  pdc_result_v01 resp;
};
static_assert(sizeof(pdc_set_selected_config_resp_msg_v01) == 8);

struct pdc_activate_config_req_msg_v01 {
  uint32_t config_type;  // pdc_config_type_enum_v01
  uint8_t activation_type_valid;
  uint8_t unused_5[3];
  uint32_t activation_type;  // pdc_activation_type_enum_v01
  uint8_t subscription_id_valid;
  uint8_t unused_13[3];
  uint32_t subscription_id;
  uint8_t slot_id_valid;
  uint8_t unused_21[3];
  uint32_t slot_id;
};
static_assert(sizeof(pdc_activate_config_req_msg_v01) == 28);
static_assert(offsetof(pdc_activate_config_req_msg_v01, activation_type_valid) == 4);
static_assert(offsetof(pdc_activate_config_req_msg_v01, activation_type) == 8);
static_assert(offsetof(pdc_activate_config_req_msg_v01, subscription_id_valid) == 12);
static_assert(offsetof(pdc_activate_config_req_msg_v01, subscription_id) == 16);
static_assert(offsetof(pdc_activate_config_req_msg_v01, slot_id_valid) == 20);
static_assert(offsetof(pdc_activate_config_req_msg_v01, slot_id) == 24);

struct pdc_activate_config_resp_msg_v01 {
  pdc_result_v01 resp;
};
static_assert(sizeof(pdc_activate_config_resp_msg_v01) == 8);

struct pdc_deactivate_config_req_msg_v01 {
  uint32_t config_type;  // pdc_config_type_enum_v01
  uint8_t subscription_id_valid;
  uint8_t unused_5[3];
  uint32_t subscription_id;
};
static_assert(sizeof(pdc_deactivate_config_req_msg_v01) == 12);
static_assert(offsetof(pdc_deactivate_config_req_msg_v01, subscription_id_valid) == 4);
static_assert(offsetof(pdc_deactivate_config_req_msg_v01, subscription_id) == 8);

struct pdc_deactivate_config_resp_msg_v01 {
  pdc_result_v01 resp;
};
static_assert(sizeof(pdc_deactivate_config_resp_msg_v01) == 8);

// A length may claim more than its array holds.
struct pdc_get_selected_config_ind_msg_v01 {
  uint32_t indication_error;  // 0, or a QMI error code
  uint8_t active_config_id_valid;
  uint8_t unused_5[3];
  uint32_t active_config_id_len;
  uint8_t active_config_id[PDC_CONFIG_ID_SIZE_MAX_V01];
  uint8_t pending_config_id_valid;
  uint8_t unused_137[3];
  uint32_t pending_config_id_len;
  uint8_t pending_config_id[PDC_CONFIG_ID_SIZE_MAX_V01];
};
static_assert(sizeof(pdc_get_selected_config_ind_msg_v01) == 268);
static_assert(offsetof(pdc_get_selected_config_ind_msg_v01, active_config_id_valid) == 4);
static_assert(offsetof(pdc_get_selected_config_ind_msg_v01, active_config_id_len) == 8);
static_assert(offsetof(pdc_get_selected_config_ind_msg_v01, active_config_id) == 12);
static_assert(offsetof(pdc_get_selected_config_ind_msg_v01, pending_config_id_valid) == 136);
static_assert(offsetof(pdc_get_selected_config_ind_msg_v01, pending_config_id_len) == 140);
static_assert(offsetof(pdc_get_selected_config_ind_msg_v01, pending_config_id) == 144);

// What every indication but the one above is, as far as kiv reads it.
struct pdc_outcome_ind_msg_v01 {
  uint32_t indication_error;  // 0, or a QMI error code
};
static_assert(sizeof(pdc_outcome_ind_msg_v01) == 4);

using pdc_set_selected_config_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_list_configs_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_delete_config_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_load_config_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_activate_config_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_get_config_info_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_get_default_config_info_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_deactivate_config_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_validate_config_ind_msg_v01 = pdc_outcome_ind_msg_v01;
using pdc_set_feature_ind_msg_v01 = pdc_outcome_ind_msg_v01;

extern "C" {

// The service object of this IDL version (1, 18, 6), or null.
[[nodiscard]] qmi_idl_service_object_type pdc_get_service_object_internal_v01(
    uint32_t idl_major_version, uint32_t idl_minor_version, uint32_t library_version);

}  // extern "C"
