// Tests of what talks through the process's extension client: each starts without a client and
// ends with every handle of it released.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tervik_extend_api.h"
#include "tervik_utils_cmn.h"
#include "tests/support/extension_stub.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"

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
