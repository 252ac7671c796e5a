// QMI message descriptions: what the framework needs to know to turn the C structure of a message
// into TLVs (type, length, value) and back. A service is described by one constant
// qmi_idl_service_object; its rows are data, walked by the framework's codec.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// The standard outcome in a response: both 0 on success, else 1 and the error's number.
struct qmi_result {
  int32_t result;
  int32_t error;
};
static_assert(sizeof(qmi_result) == 8);

// Which of a service's three message tables a message id belongs to.
enum qmi_idl_message_type : uint8_t {
  QMI_IDL_REQUEST = 0,
  QMI_IDL_RESPONSE = 1,
  QMI_IDL_INDICATION = 2,
};

enum qmi_idl_shape : uint8_t {
  QMI_IDL_SINGLE,   // one element
  QMI_IDL_FIXED,    // exactly max_count elements, no count on the wire
  QMI_IDL_COUNTED,  // a count on the wire, then that many elements, at most max_count
};

inline constexpr size_t QMI_IDL_MANDATORY = SIZE_MAX;

// One field of a message, or of a record inside a message. Offsets are byte offsets in the C
// structure that holds the field. All integers are little-endian, in memory and on the wire.
struct qmi_idl_field {
  uint8_t tlv = 0;           // TLV type; unused inside a record
  uint8_t wire_width = 0;    // bytes of one integer on the wire: 1, 2, 4 or 8; 0 for records
  uint8_t memory_width = 0;  // bytes of one integer in the C structure, at least wire_width
  qmi_idl_shape shape = QMI_IDL_SINGLE;
  size_t offset = 0;                           // of the first element
  size_t presence_offset = QMI_IDL_MANDATORY;  // of the one-byte presence flag of an optional field
  size_t max_count = 1;                        // array bound in elements
  size_t count_offset = 0;       // COUNTED: of the 32-bit element count in the C structure
  uint8_t count_wire_width = 0;  // COUNTED: bytes of the count on the wire: 1 or 2
  bool drops_excess = false;     // COUNTED: what exceeds max_count is skipped, else it fails
  std::span<const qmi_idl_field> record{};  // the element's own fields, in wire order
  size_t record_size = 0;                   // bytes of one record element in the C structure
};

// One message. A message without field rows travels as its C structure, byte for byte.
struct qmi_idl_message {
  uint16_t id;
  size_t c_struct_len;     // sizeof the C structure
  size_t max_encoded_len;  // longest encoded form in bytes
  std::span<const qmi_idl_field> fields{};
};

struct qmi_idl_service_object {
  uint32_t library_version;
  uint32_t idl_version;
  uint32_t service_id;
  uint32_t idl_minor_version;
  size_t max_message_len;  // longest encoded message of the service in bytes
  std::span<const qmi_idl_message> requests;
  std::span<const qmi_idl_message> responses;
  std::span<const qmi_idl_message> indications;
};

using qmi_idl_service_object_type = const qmi_idl_service_object*;

extern "C" {

// Stores the C structure size of message `msg_id` in `*c_struct_len`.
// Returns 0, or -1 (and stores 0) when the service has no such message. Any thread.
[[nodiscard]] int qmi_idl_get_message_c_struct_len(qmi_idl_service_object_type service,
                                                   qmi_idl_message_type type, uint16_t msg_id,
                                                   uint32_t* c_struct_len);

}  // extern "C"
