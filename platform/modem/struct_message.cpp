#include "platform/modem/struct_message.h"

#include "platform/android/state_directory.h"

namespace kiv::platform {

uint32_t read_stored_number(std::string_view name, uint32_t initial) {
  const auto content = read_state_file(name);
  uint32_t number = initial;
  if (content && content->size() == sizeof number) {
    std::memcpy(&number, content->data(), sizeof number);
  }
  return number;
}

int write_stored_number(std::string_view name, uint32_t number) {
  return write_state_file(name, {reinterpret_cast<const uint8_t*>(&number), sizeof number});
}

}  // namespace kiv::platform
