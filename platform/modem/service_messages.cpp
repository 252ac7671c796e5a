#include "platform/modem/service_messages.h"

#include <cstring>

#include "platform/android/state_directory.h"

namespace kiv::platform {

qmi_idl_service_object_type object_of_version(const qmi_idl_service_object& object,
                                              uint32_t idl_major_version,
                                              uint32_t idl_minor_version,
                                              uint32_t library_version) {
  const bool known = idl_major_version == object.idl_version &&
                     idl_minor_version == object.idl_minor_version &&
                     library_version == object.library_version;
  return known ? &object : nullptr;
}

uint32_t read_stored_number(std::string_view name, uint32_t initial) {
  const auto content = read_state_file(name);
  uint32_t number = initial;
  if (content && content->size() == sizeof number) {
    std::memcpy(&number, content->data(), sizeof number);
  }
  return number;
}

int write_stored_number(std::string_view name, uint32_t number) {
  return write_state_file(name, bytes_of(number));
}

}  // namespace kiv::platform
