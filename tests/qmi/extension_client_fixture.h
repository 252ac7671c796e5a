// Tests of what talks through the process's extension client: each starts without a client and
// ends with every handle of it released.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tervik_extend_api.h"
#include "tervik_utils_cmn.h"
#include "tests/support/extension_stub.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {

using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;

// The bytes 1, 2, 3 and so on.
inline Bytes counted_bytes(size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i + 1);
  return bytes;
}

// Writes `value` at `offset`, little-endian, which is what the machine is.
template <class Value>
void put(Bytes& bytes, size_t offset, Value value) {
  ASSERT_LE(offset + sizeof value, bytes.size());
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

// An answer whose payload is `body`.
inline ExtensionAnswer answer_of(const Bytes& body) {
  return {.result = 0, .len = static_cast<uint32_t>(body.size()), .payload = body};
}

// Numbers as the modem takes them, of 32 bits each.
inline Bytes words(const std::vector<uint32_t>& numbers) {
  Bytes bytes(numbers.size() * sizeof(uint32_t));
  if (!numbers.empty()) std::memcpy(bytes.data(), numbers.data(), bytes.size());
  return bytes;
}

// The whole payload that begins with `bytes`.
inline Bytes payload_of(Bytes bytes) {
  bytes.resize(kExtensionPayloadSize);
  return bytes;
}

// The payload of a common message.
inline Bytes common_payload(uint32_t type, const Bytes& data = {}) {
  Bytes bytes = words({2, 0, type, static_cast<uint32_t>(data.size())});
  bytes.insert(bytes.end(), data.begin(), data.end());
  return payload_of(bytes);
}

// What a request of class 2 says; everything else of its payload is zero.
struct NvefsFields {
  uint8_t operation = 0;
  uint8_t sub = 0;
  uint16_t id = 0;
  std::string path{};
  size_t all = 0;
  size_t chunk = 0;
  size_t offset = 0;
  Bytes data{};
};

inline Bytes nvefs_payload(const NvefsFields& fields) {
  Bytes bytes(kExtensionPayloadSize);
  put(bytes, 0, fields.operation);
  put(bytes, 1, fields.sub);
  put(bytes, 2, fields.id);
  put(bytes, 4, static_cast<uint8_t>(fields.path.size()));
  std::copy(fields.path.begin(), fields.path.end(), bytes.begin() + 5);
  put(bytes, 108, static_cast<uint32_t>(fields.all));
  put(bytes, 112, static_cast<uint32_t>(fields.chunk));
  put(bytes, 116, static_cast<uint32_t>(fields.offset));
  std::copy(fields.data.begin(), fields.data.end(), bytes.begin() + 120);
  return bytes;
}

// How long `run` takes, to the nanosecond.
template <class Run>
std::chrono::nanoseconds time_of(const Run& run) {
  const auto begin = virtual_now();
  run();
  return virtual_now() - begin;
}

// What a request that nobody answers takes beyond its time-out.
inline constexpr std::chrono::milliseconds kLateness(50);

class ExtensionClientTest : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
  }
  void TearDown() override {
    tervik_extend_qmi_init_force();
    EXPECT_EQ(platform::open_handle_count(), 0u);
    StateDirectoryTest::TearDown();
  }
};

}  // namespace kiv::test
