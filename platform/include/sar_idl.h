// The platform's QMI SAR service as kiv uses it: reading and setting the RF state (DSI, the device
// state index that selects the modem's RF exposure back-off table). Its messages travel as these C
// structures.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl.h"

inline constexpr uint16_t QMI_SAR_RF_SET_STATE_REQ_V01 = 1;
inline constexpr uint16_t QMI_SAR_RF_GET_STATE_REQ_V01 = 2;

using sar_result_v01 = qmi_result;

struct sar_rf_set_state_req_msg_v01 {
  uint32_t sar_rf_state;
  uint8_t optional_fields[28];
};
static_assert(sizeof(sar_rf_set_state_req_msg_v01) == 32);

struct sar_rf_set_state_resp_msg_v01 {
  sar_result_v01 resp;
};
static_assert(sizeof(sar_rf_set_state_resp_msg_v01) == 8);

// The get request has no body.
struct sar_rf_get_state_resp_msg_v01 {
  sar_result_v01 resp;
  uint8_t sar_rf_state_valid;
  uint8_t unused_9[3];
  uint32_t sar_rf_state;
  uint8_t optional_fields[24];
};
static_assert(sizeof(sar_rf_get_state_resp_msg_v01) == 40);
static_assert(offsetof(sar_rf_get_state_resp_msg_v01, sar_rf_state_valid) == 8);
static_assert(offsetof(sar_rf_get_state_resp_msg_v01, sar_rf_state) == 12);

extern "C" {

// The service object of this IDL version, or null.
[[nodiscard]] qmi_idl_service_object_type sar_get_service_object_internal_v01(
    uint32_t idl_major_version, uint32_t idl_minor_version, uint32_t library_version);

}  // extern "C"
