// The platform's QMI NAS (network access) service as kiv uses it: starting a network scan. Its
// messages travel as these C structures; every field of a request is optional, and a request of
// zeros asks for a scan of everything. Responses are untrusted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl.h"

inline constexpr uint16_t QMI_NAS_PERFORM_NETWORK_SCAN_REQ_MSG_V01 = 0x21;
inline constexpr uint16_t QMI_NAS_PERFORM_INCREMENTAL_NETWORK_SCAN_REQ_MSG_V01 = 0x85;

// What a scan looks for; the numbers are the service's, 0 its default.
enum nas_scan_scope_enum_v01 : int32_t {};

using nas_result_v01 = qmi_result;

struct nas_perform_network_scan_req_msg_v01 {
  uint8_t optional_fields[272];
};
static_assert(sizeof(nas_perform_network_scan_req_msg_v01) == 272);

struct nas_perform_network_scan_resp_msg_v01 {
  nas_result_v01 resp;
  uint8_t optional_fields[18032];
};
static_assert(sizeof(nas_perform_network_scan_resp_msg_v01) == 18040);
static_assert(offsetof(nas_perform_network_scan_resp_msg_v01, optional_fields) == 8);

struct nas_perform_incremental_network_scan_req_msg_v01 {
  uint8_t optional_fields[576];
};
static_assert(sizeof(nas_perform_incremental_network_scan_req_msg_v01) == 576);

struct nas_perform_incremental_network_scan_resp_msg_v01 {
  nas_result_v01 resp;
};
static_assert(sizeof(nas_perform_incremental_network_scan_resp_msg_v01) == 8);

extern "C" {

// The service object of this IDL version (1, 0x199, 6), or null.
[[nodiscard]] qmi_idl_service_object_type nas_get_service_object_internal_v01(
    uint32_t idl_major_version, uint32_t idl_minor_version, uint32_t library_version);

}  // extern "C"
