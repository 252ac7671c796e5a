#include "tervik_extend_idl.h"

#include <array>
#include <bit>

static_assert(std::endian::native == std::endian::little, "wire records are little-endian");

namespace {

constexpr qmi_idl_field word(uint8_t tlv, size_t offset) {
  return {.tlv = tlv, .wire_width = 4, .memory_width = 4, .offset = offset};
}

constexpr std::array DATA_MSG_FIELDS = {
    word(0x01, offsetof(tervik_extend_data_msg, id)),
    word(0x02, offsetof(tervik_extend_data_msg, len)),
    qmi_idl_field{.tlv = 0x10,
                  .wire_width = 1,
                  .memory_width = 1,
                  .shape = QMI_IDL_FIXED,
                  .offset = offsetof(tervik_extend_data_msg, payload),
                  .presence_offset = offsetof(tervik_extend_data_msg, payload_valid),
                  .max_count = TERVIK_EXTEND_PAYLOAD_SIZE},
};

// TLV 0x01 and 0x02: 3 + 4 bytes each; TLV 0x10: 3 + 550.
constexpr size_t DATA_MSG_ENCODED_LEN = 567;
constexpr size_t LONGEST_MESSAGE = 1553;

constexpr qmi_idl_message data_message(uint16_t id) {
  return {id, sizeof(tervik_extend_data_msg), DATA_MSG_ENCODED_LEN, DATA_MSG_FIELDS};
}

// A message that kiv neither builds nor interprets: it travels as its C structure.
constexpr qmi_idl_message opaque_message(uint16_t id, size_t c_struct_len) {
  return {id, c_struct_len, c_struct_len, {}};
}

constexpr std::array REQUESTS = {
    data_message(TERVIK_EXTEND_DATA_MSG_ID),
    opaque_message(0x0003, 560),
    opaque_message(0x0004, 564),
    opaque_message(0x000A, 1544),
    opaque_message(0x000C, 12),
};

constexpr std::array RESPONSES = {
    data_message(TERVIK_EXTEND_DATA_MSG_ID),
    opaque_message(0x0003, 560),
    opaque_message(0x0004, 8),
    opaque_message(0x000A, 8),
    opaque_message(0x000C, 8),
};

constexpr std::array INDICATIONS = {
    data_message(0x0003),       opaque_message(0x0005, 1128), opaque_message(0x0006, 1288),
    opaque_message(0x0007, 8),  opaque_message(0x0008, 32),   opaque_message(0x0009, 408),
    opaque_message(0x000B, 20), opaque_message(0x000D, 24),
};

constexpr qmi_idl_service_object SERVICE_OBJECT = {
    .library_version = 6,
    .idl_version = 1,
    .service_id = TERVIK_EXTEND_SERVICE_ID,
    .idl_minor_version = 1,
    .max_message_len = LONGEST_MESSAGE,
    .requests = REQUESTS,
    .responses = RESPONSES,
    .indications = INDICATIONS,
};

}  // namespace

qmi_idl_service_object_type tervik_extend_get_service_object_internal_v01(
    uint32_t idl_major_version, uint32_t idl_minor_version, uint32_t library_version) {
  const bool known = idl_major_version == SERVICE_OBJECT.idl_version &&
                     idl_minor_version == SERVICE_OBJECT.idl_minor_version &&
                     library_version == SERVICE_OBJECT.library_version;
  return known ? &SERVICE_OBJECT : nullptr;
}
