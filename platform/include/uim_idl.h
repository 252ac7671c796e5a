// The platform's QMI UIM (user identity module) service as kiv uses it. Its messages travel as
// these C structures; what an operation does not read or set is left out as unused bytes.
// Responses are untrusted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl.h"

inline constexpr uint16_t QMI_UIM_GET_CARD_STATUS_REQ_V01 = 0x2F;
inline constexpr uint16_t QMI_UIM_SEND_APDU_REQ_V01 = 0x3B;
inline constexpr uint16_t QMI_UIM_LOGICAL_CHANNEL_REQ_V01 = 0x3F;
inline constexpr uint16_t QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01 = 0x42;
inline constexpr uint16_t QMI_UIM_GET_EID_REQ_V01 = 0x65;
inline constexpr uint16_t QMI_UIM_SET_SIM_TYPE_REQ_V01 = 0x7A;

using uim_result_v01 = qmi_result;

struct uim_set_sim_type_req_msg_v01 {
  uint32_t sim_type_len;
  uint32_t sim_type[5];
};
static_assert(sizeof(uim_set_sim_type_req_msg_v01) == 24);

struct uim_set_sim_type_resp_msg_v01 {
  uim_result_v01 resp;
};
static_assert(sizeof(uim_set_sim_type_resp_msg_v01) == 8);

struct uim_get_eid_req_msg_v01 {
  uint32_t slot;
};
static_assert(sizeof(uim_get_eid_req_msg_v01) == 4);

struct uim_get_eid_resp_msg_v01 {
  uim_result_v01 resp;
  uint8_t eid_value_valid;
  uint8_t unused_9[3];
  uint32_t eid_value_len;
  uint8_t eid_value[16];
};
static_assert(sizeof(uim_get_eid_resp_msg_v01) == 32);
static_assert(offsetof(uim_get_eid_resp_msg_v01, eid_value_valid) == 8);
static_assert(offsetof(uim_get_eid_resp_msg_v01, eid_value) == 16);

// Both flags 1: ask for the per-card status list.
struct uim_get_card_status_req_msg_v01 {
  uint8_t extended_card_status_valid;
  uint8_t extended_card_status;
};
static_assert(sizeof(uim_get_card_status_req_msg_v01) == 2);

struct uim_card_status_v01 {
  uint32_t card_state;  // 0 absent, 1 present, 2 error
  uint8_t unused_4[1536];
};
static_assert(sizeof(uim_card_status_v01) == 1540);

inline constexpr size_t UIM_CARDS_MAX_V01 = 7;

struct uim_get_card_status_resp_msg_v01 {
  uim_result_v01 resp;
  uint8_t unused_8[1298];
  uint8_t card_list_valid;
  uint8_t unused_1307[33];
  uint32_t card_list_len;
  uim_card_status_v01 card_list[UIM_CARDS_MAX_V01];
  uint8_t unused_12124[240];
};
static_assert(sizeof(uim_get_card_status_resp_msg_v01) == 12364);
static_assert(offsetof(uim_get_card_status_resp_msg_v01, card_list_valid) == 1306);
static_assert(offsetof(uim_get_card_status_resp_msg_v01, card_list_len) == 1340);
static_assert(offsetof(uim_get_card_status_resp_msg_v01, card_list) == 1344);

struct uim_open_logical_channel_req_msg_v01 {
  uint32_t slot;
  uint8_t aid_valid;
  uint8_t unused_5[3];
  uint32_t aid_len;
  uint8_t aid[32];
  uint8_t file_control_information_valid;
  uint8_t unused_45[3];
  uint32_t file_control_information;
};
static_assert(sizeof(uim_open_logical_channel_req_msg_v01) == 52);
static_assert(offsetof(uim_open_logical_channel_req_msg_v01, aid_len) == 8);
static_assert(offsetof(uim_open_logical_channel_req_msg_v01, aid) == 12);
static_assert(offsetof(uim_open_logical_channel_req_msg_v01, file_control_information_valid) == 44);
static_assert(offsetof(uim_open_logical_channel_req_msg_v01, file_control_information) == 48);

struct uim_open_logical_channel_resp_msg_v01 {
  uim_result_v01 resp;
  uint8_t channel_id_valid;
  uint8_t channel_id;
  uint8_t unused_10[1294];
};
static_assert(sizeof(uim_open_logical_channel_resp_msg_v01) == 1304);
static_assert(offsetof(uim_open_logical_channel_resp_msg_v01, channel_id_valid) == 8);
static_assert(offsetof(uim_open_logical_channel_resp_msg_v01, channel_id) == 9);

struct uim_logical_channel_req_msg_v01 {
  uint32_t slot;
  uint8_t aid_valid;
  uint8_t unused_5[39];
  uint8_t channel_id_valid;
  uint8_t channel_id;
  uint8_t unused_46[6];
  uint8_t terminate_application_valid;  // 1: the next flag counts
  uint8_t terminate_application;
  uint8_t unused_54[2];
};
static_assert(sizeof(uim_logical_channel_req_msg_v01) == 56);
static_assert(offsetof(uim_logical_channel_req_msg_v01, channel_id_valid) == 44);
static_assert(offsetof(uim_logical_channel_req_msg_v01, channel_id) == 45);
static_assert(offsetof(uim_logical_channel_req_msg_v01, terminate_application_valid) == 52);

struct uim_logical_channel_resp_msg_v01 {
  uim_result_v01 resp;
  uint8_t unused_8[1296];
};
static_assert(sizeof(uim_logical_channel_resp_msg_v01) == 1304);

inline constexpr size_t UIM_APDU_MAX_V01 = 1024;

struct uim_send_apdu_req_msg_v01 {
  uint32_t slot;
  uint32_t apdu_len;
  uint8_t apdu[UIM_APDU_MAX_V01];
  uint8_t channel_id_valid;
  uint8_t channel_id;
  uint8_t procedure_bytes_valid;  // 1: the next field counts
  uint8_t unused_1035;
  uint32_t procedure_bytes;
  uint8_t optional_fields_valid;
  uint8_t unused_1041[19];
};
static_assert(sizeof(uim_send_apdu_req_msg_v01) == 1060);
static_assert(offsetof(uim_send_apdu_req_msg_v01, apdu) == 8);
static_assert(offsetof(uim_send_apdu_req_msg_v01, channel_id_valid) == 1032);
static_assert(offsetof(uim_send_apdu_req_msg_v01, channel_id) == 1033);
static_assert(offsetof(uim_send_apdu_req_msg_v01, procedure_bytes_valid) == 1034);
static_assert(offsetof(uim_send_apdu_req_msg_v01, procedure_bytes) == 1036);
static_assert(offsetof(uim_send_apdu_req_msg_v01, optional_fields_valid) == 1040);

struct uim_send_apdu_resp_msg_v01 {
  uim_result_v01 resp;
  uint8_t apdu_valid;
  uint8_t unused_9[3];
  uint32_t apdu_len;
  uint8_t apdu[UIM_APDU_MAX_V01];
  uint8_t unused_1040[12];
};
static_assert(sizeof(uim_send_apdu_resp_msg_v01) == 1052);
static_assert(offsetof(uim_send_apdu_resp_msg_v01, apdu_len) == 12);
static_assert(offsetof(uim_send_apdu_resp_msg_v01, apdu) == 16);

extern "C" {

// The service object of this IDL version (1, 0x71, 6), or null.
[[nodiscard]] qmi_idl_service_object_type uim_get_service_object_internal_v01(
    uint32_t idl_major_version, uint32_t idl_minor_version, uint32_t library_version);

}  // extern "C"
