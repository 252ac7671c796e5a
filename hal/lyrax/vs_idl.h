// The IDL description of the modem's vendor-specific (VS) statistics service, and the C structures
// of the messages that kiv sends or receives. Data only; what is decoded by it comes from the modem
// and is untrusted. Lists and byte arrays that are longer than their structure are cut to it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl.h"

inline constexpr uint32_t VS_SERVICE_ID = 0xE4;

inline constexpr uint16_t VS_SET_FEATURE_STATUS = 0x0003;
inline constexpr uint16_t VS_GET_STATS_PARAMETER = 0x0207;
inline constexpr uint16_t VS_FEATURE_STATUS_IND = 0x0004;
inline constexpr uint16_t VS_STATS_PARAMETER_IND = 0x0203;
inline constexpr uint16_t VS_STATS_EVENT_IND = 0x0204;
inline constexpr uint16_t VS_STATE_IND = 0x0601;

inline constexpr uint32_t VS_STATS_VALUE_MAX = 700;
inline constexpr uint32_t VS_STATS_ENTRIES_MAX = 10;
inline constexpr uint32_t VS_STATS_MORE_ENTRIES_MAX = 5;
inline constexpr uint32_t VS_EVENT_BYTES_MAX = 100;

// One statistics parameter: a raw blob of `value_len` bytes.
struct vs_stats_entry {
  uint16_t sub;
  uint16_t second_half_word;  // 0 in requests; copied through, not interpreted
  uint32_t id;
  uint32_t value_len;
  uint8_t value[VS_STATS_VALUE_MAX];
};
static_assert(sizeof(vs_stats_entry) == 712);

struct vs_set_feature_status_req {
  uint32_t feature;
  uint8_t status;
  uint8_t second_flag_valid;
  uint8_t second_flag;
  uint8_t unused_7;
};
static_assert(sizeof(vs_set_feature_status_req) == 8);

using vs_set_feature_status_resp = qmi_result;

struct vs_get_stats_parameter_req {
  uint16_t sub;
  uint16_t slot;
  uint32_t entries_len;
  vs_stats_entry entries[VS_STATS_ENTRIES_MAX];
};
static_assert(sizeof(vs_get_stats_parameter_req) == 7128);

struct vs_get_stats_parameter_resp {
  qmi_result resp;
  uint8_t entries_valid;
  uint32_t entries_len;
  vs_stats_entry entries[VS_STATS_ENTRIES_MAX];
};
static_assert(sizeof(vs_get_stats_parameter_resp) == 7136);

struct vs_feature_status_ind {
  uint32_t value;
  uint8_t first_flag;
  uint8_t second_flag;
  uint8_t unused_6[2];
};
static_assert(sizeof(vs_feature_status_ind) == 8);

struct vs_stats_parameter_ind {
  uint32_t value;
  uint32_t entries_len;
  vs_stats_entry entries[VS_STATS_ENTRIES_MAX];
  uint8_t more_entries_valid;
  uint32_t more_entries_len;
  vs_stats_entry more_entries[VS_STATS_MORE_ENTRIES_MAX];
  uint8_t last_value_valid;
  uint32_t last_value;
};
static_assert(sizeof(vs_stats_parameter_ind) == 10704);

struct vs_stats_event_ind {
  uint32_t value;
  uint32_t bytes_len;
  uint8_t bytes[VS_EVENT_BYTES_MAX];
  uint16_t third_value;
  uint16_t fourth_value;
};
static_assert(sizeof(vs_stats_event_ind) == 112);

struct vs_state_ind {
  uint8_t value;
};
static_assert(sizeof(vs_state_ind) == 1);

// The service object, or null for any version triple but (1, 2, 6).
[[nodiscard]] qmi_idl_service_object_type vs_get_service_object_internal_v01(
    uint32_t idl_version, uint32_t idl_minor_version, uint32_t library_version);
