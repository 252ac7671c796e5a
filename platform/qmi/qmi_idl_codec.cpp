#include "platform/qmi/qmi_idl_codec.h"

#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <cstring>

namespace kiv::platform {
namespace {

static_assert(std::endian::native == std::endian::little,
              "integers are copied between memory and wire without swapping");

constexpr size_t kTlvHeaderSize = 3;  // type, then a 16-bit length
constexpr size_t kTlvValueMax = UINT16_MAX;

bool range_fits(size_t offset, size_t size, size_t structure_size) {
  return offset <= structure_size && size <= structure_size - offset;
}

size_t element_size(const qmi_idl_field& field) {
  return field.record.empty() ? field.memory_width : field.record_size;
}

size_t array_bound(const qmi_idl_field& field) {
  return field.shape == QMI_IDL_SINGLE ? 1 : field.max_count;
}

// Rows are constants, but a wrong one must not become an access outside its structure.
bool row_fits(const qmi_idl_field& field, size_t structure_size) {
  if (field.record.empty() && (field.wire_width == 0 || field.wire_width > field.memory_width)) {
    return false;
  }
  if (field.shape == QMI_IDL_COUNTED) {
    const bool count_width_known = field.count_wire_width == 1 || field.count_wire_width == 2;
    if (!count_width_known || array_bound(field) >> (8 * field.count_wire_width) != 0 ||
        !range_fits(field.count_offset, sizeof(uint32_t), structure_size)) {
      return false;
    }
  }
  const size_t size = element_size(field);
  return size != 0 && array_bound(field) <= structure_size / size &&
         range_fits(field.offset, array_bound(field) * size, structure_size);
}

bool is_optional(const qmi_idl_field& field) {
  return field.presence_offset != QMI_IDL_MANDATORY;
}

void append(std::vector<uint8_t>& encoded, const uint8_t* bytes, size_t length) {
  encoded.insert(encoded.end(), bytes, bytes + length);
}

bool encode_value(const qmi_idl_field& field, std::span<const uint8_t> structure,
                  std::vector<uint8_t>& encoded) {
  if (!row_fits(field, structure.size())) {
    return false;
  }
  size_t count = array_bound(field);
  if (field.shape == QMI_IDL_COUNTED) {
    const uint8_t* const count_bytes = structure.data() + field.count_offset;
    uint32_t stored_count = 0;
    std::memcpy(&stored_count, count_bytes, sizeof stored_count);
    if (stored_count > field.max_count) {
      return false;
    }
    count = stored_count;
    append(encoded, count_bytes, field.count_wire_width);
  }
  if (!field.record.empty()) {
    for (size_t i = 0; i < count; ++i) {
      const auto element =
          structure.subspan(field.offset + i * field.record_size, field.record_size);
      for (const qmi_idl_field& member : field.record) {
        if (!encode_value(member, element, encoded)) {
          return false;
        }
      }
    }
    return true;
  }
  const uint8_t* const elements = structure.data() + field.offset;
  if (field.wire_width == field.memory_width) {
    append(encoded, elements, count * field.wire_width);
    return true;
  }
  for (size_t i = 0; i < count; ++i) {
    append(encoded, elements + i * field.memory_width, field.wire_width);
  }
  return true;
}

bool encode_tlv(const qmi_idl_field& field, std::span<const uint8_t> structure,
                std::vector<uint8_t>& encoded) {
  const size_t start = encoded.size();
  const std::array<uint8_t, kTlvHeaderSize> header{field.tlv, 0, 0};
  append(encoded, header.data(), header.size());
  if (!encode_value(field, structure, encoded)) {
    return false;
  }
  const size_t length = encoded.size() - start - kTlvHeaderSize;
  if (length > kTlvValueMax) {
    return false;
  }
  encoded[start + 1] = static_cast<uint8_t>(length & 0xFF);
  encoded[start + 2] = static_cast<uint8_t>(length >> 8);
  return true;
}

// Moves `length` bytes from the front of `encoded` to `destination`.
bool take(std::span<const uint8_t>& encoded, void* destination, size_t length) {
  if (encoded.size() < length) {
    return false;
  }
  if (length != 0) {
    std::memcpy(destination, encoded.data(), length);
    encoded = encoded.subspan(length);
  }
  return true;
}

bool decode_value(const qmi_idl_field& field, std::span<const uint8_t>& encoded,
                  std::span<uint8_t> structure);

// Reads one record from the front of `encoded` into its zeroed element.
bool decode_record(const qmi_idl_field& field, std::span<const uint8_t>& encoded,
                   std::span<uint8_t> element) {
  return std::all_of(field.record.begin(), field.record.end(), [&](const qmi_idl_field& member) {
    return decode_value(member, encoded, element);
  });
}

// Passes over `count` elements that have no place in the structure.
bool skip_elements(const qmi_idl_field& field, std::span<const uint8_t>& encoded, size_t count) {
  if (field.record.empty()) {
    const size_t length = count * field.wire_width;
    if (length > encoded.size()) {
      return false;
    }
    encoded = encoded.subspan(length);
    return true;
  }
  std::vector<uint8_t> scratch(field.record_size);
  for (size_t i = 0; i < count; ++i) {
    if (!decode_record(field, encoded, scratch)) {
      return false;
    }
  }
  return true;
}

// Reads an array's elements from the front of `encoded` into the zeroed structure.
bool decode_elements(const qmi_idl_field& field, std::span<const uint8_t>& encoded,
                     std::span<uint8_t> structure, size_t count) {
  if (!field.record.empty()) {
    for (size_t i = 0; i < count; ++i) {
      if (!decode_record(
              field, encoded,
              structure.subspan(field.offset + i * field.record_size, field.record_size))) {
        return false;
      }
    }
    return true;
  }
  uint8_t* const elements = structure.data() + field.offset;
  if (field.wire_width == field.memory_width) {
    return take(encoded, elements, count * field.wire_width);
  }
  for (size_t i = 0; i < count; ++i) {
    if (!take(encoded, elements + i * field.memory_width, field.wire_width)) {
      return false;
    }
  }
  return true;
}

// Reads one value from the front of `encoded` into the zeroed structure.
bool decode_value(const qmi_idl_field& field, std::span<const uint8_t>& encoded,
                  std::span<uint8_t> structure) {
  if (!row_fits(field, structure.size())) {
    return false;
  }
  if (field.shape != QMI_IDL_COUNTED) {
    return decode_elements(field, encoded, structure, array_bound(field));
  }
  uint32_t wire_count = 0;
  if (!take(encoded, &wire_count, field.count_wire_width)) {
    return false;
  }
  const auto count = static_cast<uint32_t>(std::min<size_t>(wire_count, field.max_count));
  if (count != wire_count && !field.drops_excess) {
    return false;
  }
  std::memcpy(structure.data() + field.count_offset, &count, sizeof count);
  return decode_elements(field, encoded, structure, count) &&
         skip_elements(field, encoded, wire_count - count);
}

bool decode_tlvs(const qmi_idl_message& message, std::span<const uint8_t> encoded,
                 std::span<uint8_t> c_struct) {
  std::bitset<256> seen;
  while (!encoded.empty()) {
    if (encoded.size() < kTlvHeaderSize) {
      return false;
    }
    const uint8_t type = encoded[0];
    const size_t length = encoded[1] | static_cast<size_t>(encoded[2]) << 8;
    encoded = encoded.subspan(kTlvHeaderSize);
    if (length > encoded.size()) {
      return false;
    }
    auto value = encoded.first(length);
    encoded = encoded.subspan(length);
    const auto field = std::find_if(message.fields.begin(), message.fields.end(),
                                    [type](const qmi_idl_field& row) { return row.tlv == type; });
    if (field == message.fields.end()) {
      continue;
    }
    // A repeated TLV would be merged with the leftovers of the first one.
    if (seen.test(type) || !decode_value(*field, value, c_struct) || !value.empty()) {
      return false;
    }
    seen.set(type);
    if (is_optional(*field)) {
      if (!range_fits(field->presence_offset, 1, c_struct.size())) {
        return false;
      }
      c_struct[field->presence_offset] = 1;
    }
  }
  return std::all_of(
      message.fields.begin(), message.fields.end(),
      [&seen](const qmi_idl_field& field) { return is_optional(field) || seen.test(field.tlv); });
}

bool decode_structure(const qmi_idl_message& message, std::span<const uint8_t> encoded,
                      std::span<uint8_t> c_struct) {
  if (c_struct.size() != message.c_struct_len) {
    return false;
  }
  if (!message.fields.empty()) {
    return decode_tlvs(message, encoded, c_struct);
  }
  return take(encoded, c_struct.data(), message.c_struct_len) && encoded.empty();
}

}  // namespace

const qmi_idl_message* find_message(const qmi_idl_service_object& service,
                                    qmi_idl_message_type type, uint16_t msg_id) {
  const auto& messages = type == QMI_IDL_REQUEST    ? service.requests
                         : type == QMI_IDL_RESPONSE ? service.responses
                                                    : service.indications;
  const auto message =
      std::find_if(messages.begin(), messages.end(),
                   [msg_id](const qmi_idl_message& row) { return row.id == msg_id; });
  return message == messages.end() ? nullptr : &*message;
}

std::optional<std::vector<uint8_t>> encode_message(const qmi_idl_message& message,
                                                   std::span<const uint8_t> c_struct) {
  if (c_struct.size() != message.c_struct_len) {
    return std::nullopt;
  }
  if (message.fields.empty()) {
    return std::vector<uint8_t>(c_struct.begin(), c_struct.end());
  }
  std::vector<uint8_t> encoded;
  encoded.reserve(message.max_encoded_len);
  for (const qmi_idl_field& field : message.fields) {
    if (is_optional(field)) {
      if (!range_fits(field.presence_offset, 1, c_struct.size())) {
        return std::nullopt;
      }
      if (c_struct[field.presence_offset] == 0) {
        continue;
      }
    }
    if (!encode_tlv(field, c_struct, encoded)) {
      return std::nullopt;
    }
  }
  return encoded;
}

bool decode_message(const qmi_idl_message& message, std::span<const uint8_t> encoded,
                    std::span<uint8_t> c_struct) {
  std::fill(c_struct.begin(), c_struct.end(), uint8_t{0});
  if (decode_structure(message, encoded, c_struct)) {
    return true;
  }
  std::fill(c_struct.begin(), c_struct.end(), uint8_t{0});
  return false;
}

}  // namespace kiv::platform

int qmi_idl_get_message_c_struct_len(qmi_idl_service_object_type service, qmi_idl_message_type type,
                                     uint16_t msg_id, uint32_t* c_struct_len) {
  if (c_struct_len == nullptr) {
    return -1;
  }
  *c_struct_len = 0;
  const qmi_idl_message* const message =
      service == nullptr ? nullptr : kiv::platform::find_message(*service, type, msg_id);
  if (message == nullptr) {
    return -1;
  }
  *c_struct_len = static_cast<uint32_t>(message->c_struct_len);
  return 0;
}
