// Encodes the C structure of a QMI message into TLVs and decodes it back, by the field rows of its
// IDL description. Encoded bytes are untrusted: every length and count is checked against the
// bytes that are there and against the structure they go to.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "qmi_idl.h"

namespace kiv::platform {

// The message `msg_id` of the service's table `type`, or null.
const qmi_idl_message* find_message(const qmi_idl_service_object& service,
                                    qmi_idl_message_type type, uint16_t msg_id);

// The TLVs of `c_struct` (message.c_struct_len bytes), or nothing when a count in it exceeds its
// array. Optional fields whose presence flag is 0 are left out.
std::optional<std::vector<uint8_t>> encode_message(const qmi_idl_message& message,
                                                   std::span<const uint8_t> c_struct);

// Fills `c_struct` (message.c_struct_len bytes, zeroed first). Unknown TLVs are skipped. Returns
// false when a mandatory TLV is missing or a length does not fit; `c_struct` is zeroed then.
[[nodiscard]] bool decode_message(const qmi_idl_message& message, std::span<const uint8_t> encoded,
                                  std::span<uint8_t> c_struct);

}  // namespace kiv::platform
