// Android system properties as kiv uses them. Values changed by another process are seen by the
// next read. Any thread.
#pragma once

// Longest value in characters plus its terminating NUL.
inline constexpr int PROPERTY_VALUE_MAX = 93;

extern "C" {

// Copies the property's value, or `default_value` when it is not set or empty, into `value`
// (PROPERTY_VALUE_MAX bytes). Returns the length stored. A null `default_value` counts as "".
int property_get(const char* name, char* value, const char* default_value);

// Sets the property. Returns 0, or -1 when the name or the value cannot be stored.
[[nodiscard]] int property_set(const char* name, const char* value);

// As property_get with an empty default: the length of the value, 0 when it is not set.
int __system_property_get(const char* name, char* value);

}  // extern "C"
