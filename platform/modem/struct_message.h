// What the services share whose messages travel as C structures and who keep a number in the state
// directory. Called on the threads of their senders; requests and files are untrusted.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/qmi/service_bus.h"
#include "qmi_idl.h"

namespace kiv::platform {

// The description of a message that travels as its C structure.
template <class Body>
constexpr qmi_idl_message struct_message(uint16_t id) {
  return {.id = id, .c_struct_len = sizeof(Body), .max_encoded_len = sizeof(Body)};
}

// False when the request is shorter or longer than its structure.
template <class Body>
[[nodiscard]] bool read_struct(std::span<const uint8_t> request, Body& body) {
  if (request.size() != sizeof body) {
    return false;
  }
  std::memcpy(&body, request.data(), sizeof body);
  return true;
}

template <class Body>
ServiceReply reply_with(const Body& body) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&body);
  return ServiceReply::response({bytes, bytes + sizeof body});
}

// `object`, or null when it is of another version.
qmi_idl_service_object_type object_of_version(const qmi_idl_service_object& object,
                                              uint32_t idl_major_version,
                                              uint32_t idl_minor_version, uint32_t library_version);

// The number in the state file (4 bytes, little-endian), or `initial` when it holds none.
uint32_t read_stored_number(std::string_view name, uint32_t initial);

// 0 or errno.
[[nodiscard]] int write_stored_number(std::string_view name, uint32_t number);

}  // namespace kiv::platform
