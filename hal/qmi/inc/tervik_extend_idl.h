// The IDL description of the vendor extension QMI service: its message ids, the C structures they
// travel in, and the field rows of the one message that kiv sends. Data only; the bytes that are
// decoded by it come from the modem and are untrusted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl.h"

inline constexpr uint32_t TERVIK_EXTEND_SERVICE_ID = 0xFFE4;

// The request that carries every sub-request of kiv, and its response.
inline constexpr uint16_t TERVIK_EXTEND_DATA_MSG_ID = 0x0002;

// The opaque payload of the data messages, in bytes.
inline constexpr size_t TERVIK_EXTEND_PAYLOAD_SIZE = 550;

// C structure of message 0x0002 (request and response) and of indication 0x0003.
struct tervik_extend_data_msg {
  uint32_t id;   // request: the request class; response: 0 handled; indication: its sub-id
  uint32_t len;  // bytes of `payload` that count
  uint8_t payload_valid;
  uint8_t payload[TERVIK_EXTEND_PAYLOAD_SIZE];
};
static_assert(sizeof(tervik_extend_data_msg) == 560);
static_assert(offsetof(tervik_extend_data_msg, len) == 4);
static_assert(offsetof(tervik_extend_data_msg, payload_valid) == 8);
static_assert(offsetof(tervik_extend_data_msg, payload) == 9);

// The service object, or null for any version triple but (1, 1, 6).
[[nodiscard]] qmi_idl_service_object_type tervik_extend_get_service_object_internal_v01(
    uint32_t idl_major_version, uint32_t idl_minor_version, uint32_t library_version);
