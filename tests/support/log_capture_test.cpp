#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace kiv::test {
namespace {

[[gnu::format(printf, 2, 3)]] void log(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

TEST(LogCapture, TakesPrefixesOffAndNothingElse) {
  const struct {
    const char* line;
    const char* message;
  } rows[] = {
      {"SUB[1][a.cpp:12] do_it: sub: 1", "sub: 1"},
      {"[kiv][a.cpp:12] do_it: text", "text"},
      {"[a.cpp:12] do_it: ", ""},
      {"RIL[a.cpp:12] do_it: [0]WIFI_STATE: 1", "[0]WIFI_STATE: 1"},
      {"new mask 0x80", "new mask 0x80"},
      {"[0]WIFI_STATE: 1", "[0]WIFI_STATE: 1"},
      {"[a.cpp:12] not a name: text", "[a.cpp:12] not a name: text"},
      {"", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(message_of(row.line), row.message);
}

TEST(LogCapture, HoldsTheLinesOfItsLifetime) {
  log(LOG_ERR, "before %d", 1);
  LogCapture outer;
  log(LOG_ERR, "[a.cpp:%d] f: value %d", 1, 7);
  {
    const LogCapture inner;
    log(LOG_DEBUG, "%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(inner.lines().size(), 1u);
    EXPECT_EQ(inner.lines()[0].text.size(), 5000u);
  }
  ASSERT_EQ(outer.lines().size(), 2u);
  EXPECT_EQ(outer.lines()[0].priority, LOG_ERR);
  EXPECT_EQ(outer.messages()[0], "value 7");
  EXPECT_TRUE(outer.contains("f: value"));
  EXPECT_EQ(outer.count("value 7"), 1u);
  EXPECT_EQ(outer.count("value"), 0u);
  outer.clear();
  EXPECT_TRUE(outer.lines().empty());
}

TEST(CapturedStdout, HasWhatWasPrintedInsideOnly) {
  printf("before\n");
  EXPECT_EQ(captured_stdout([] {
              printf("in");
              puts("side");
            }),
            "inside\n");
}

}  // namespace
}  // namespace kiv::test
