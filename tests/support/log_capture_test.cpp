#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace kiv::test {
namespace {

TEST(LogCapture, TakesPrefixesOffAndNothingElse) {
  const struct {
    const char* line;
    const char* message;
  } rows[] = {
      {"SUB[1][a.cpp:12] do_it: sub: 1", "sub: 1"},
      {"[kiv][a.cpp:12] do_it: text", "text"},
      {"RIL[a.cpp:12] do_it: [0]WIFI_STATE: 1", "[0]WIFI_STATE: 1"},
      {"[0]WIFI_STATE: 1", "[0]WIFI_STATE: 1"},
      {"[a.cpp:12] not a name: text", "[a.cpp:12] not a name: text"},
      {"", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(message_of(row.line), row.message);
}

}  // namespace
}  // namespace kiv::test
