#include "cutils/properties.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "platform/android/state_directory.h"

namespace {

constexpr std::string_view kPropertyFile = "properties";
constexpr size_t kValueMax = PROPERTY_VALUE_MAX - 1;
constexpr size_t kNameMax = 255;

// Takes the first line off `text`, without its line end.
std::string_view take_line(std::string_view& text) {
  const size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return line;
}

// The value that the line gives to the name. A line of an editor may have blanks on both sides of
// the equals sign; without one in front of it, one behind it belongs to the value.
std::optional<std::string_view> value_in(std::string_view line, std::string_view name) {
  constexpr std::string_view kBlanks = " \t";
  if (!line.starts_with(name)) {
    return std::nullopt;
  }
  line.remove_prefix(name.size());
  const size_t equals = std::min(line.find_first_not_of(kBlanks), line.size());
  if (!line.substr(equals).starts_with('=')) {
    return std::nullopt;
  }
  line.remove_prefix(equals + 1);
  line.remove_prefix(equals == 0 ? 0 : std::min(line.find_first_not_of(kBlanks), line.size()));
  return line;
}

// The last line that sets the name counts. A carriage return before the line end is an editor's.
std::string_view find_value(std::string_view text, std::string_view name) {
  std::string_view value;
  while (!text.empty()) {
    const std::string_view line = take_line(text);
    value = value_in(line, name).value_or(value);
  }
  if (value.ends_with('\r')) {
    value.remove_suffix(1);
  }
  return value.substr(0, value.find('\0'));
}

// The text with one line for the name, in the place of its first one or else at the end.
std::string with_value(std::string_view text, std::string_view name, std::string_view value) {
  std::string changed;
  changed.reserve(text.size() + name.size() + value.size() + 3);
  bool stored = false;
  const auto store = [&] {
    changed.append(name).append(1, '=').append(value).append(1, '\n');
    stored = true;
  };
  while (!text.empty()) {
    const std::string_view line = take_line(text);
    if (!value_in(line, name)) {
      changed.append(line).append(1, '\n');
    } else if (!stored) {
      store();
    }
  }
  if (!stored) {
    store();
  }
  return changed;
}

bool name_allowed(std::string_view name) {
  return !name.empty() && name.size() <= kNameMax &&
         name.find_first_of("=\r\n") == std::string_view::npos;
}

bool value_allowed(std::string_view value) {
  return value.size() <= kValueMax && value.find_first_of("\r\n") == std::string_view::npos;
}

int store_value(std::string_view source, char* value) {
  const size_t length = std::min(source.size(), kValueMax);
  std::memcpy(value, source.data(), length);
  value[length] = '\0';
  return static_cast<int>(length);
}

}  // namespace

int property_get(const char* name, char* value, const char* default_value) {
  if (value == nullptr) {
    return 0;
  }
  const std::string_view fallback = default_value == nullptr ? "" : default_value;
  if (name == nullptr || !name_allowed(name)) {
    return store_value(fallback, value);
  }
  const auto content = kiv::platform::read_state_file(kPropertyFile);
  if (!content || content->empty()) {
    return store_value(fallback, value);
  }
  const std::string_view text{reinterpret_cast<const char*>(content->data()), content->size()};
  const std::string_view found = find_value(kiv::platform::without_byte_order_mark(text), name);
  return store_value(found.empty() ? fallback : found, value);
}

int property_set(const char* name, const char* value) {
  const std::string_view new_value = value == nullptr ? "" : value;
  if (name == nullptr || !name_allowed(name) || !value_allowed(new_value)) {
    return -1;
  }
  const int error = kiv::platform::update_state_file(
      kPropertyFile,
      [name, new_value](std::string_view text) { return with_value(text, name, new_value); });
  return error == 0 ? 0 : -1;
}

int __system_property_get(const char* name, char* value) {
  return property_get(name, value, nullptr);
}
