#include "platform/modem/modem_conf.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using platform::ModemConf;
using Kind = platform::ServiceFault::Kind;

using ModemConfTest = StateDirectoryTest;

TEST_F(ModemConfTest, ValuesTheModemUnderstands) {
  const struct {
    const char* text;
    Kind kind;
    int32_t code = 0;
    int32_t rsp_result = 0;
  } cases[] = {
      {"", Kind::kNone},
      {"fault.extension=down", Kind::kDown},
      {"\n# fault.extension = down\n\tfault.extension = silent # why\r\n", Kind::kSilent},
      {"fault.extension = error:-2147483648", Kind::kError, INT32_MIN},
      {"fault.extension = result:2147483647\nextension.rsp_result = -7", Kind::kResult, INT32_MAX,
       -7},
      {"fault.extension = down\nfault.extension = error:5", Kind::kError, 5},
  };
  testing::internal::CaptureStderr();
  for (const auto& row : cases) {
    const ModemConf conf = platform::parse_modem_conf(row.text);
    EXPECT_EQ(conf.extension_fault.kind, row.kind) << row.text;
    EXPECT_EQ(conf.extension_fault.code, row.code) << row.text;
    EXPECT_EQ(conf.extension_rsp_result, row.rsp_result) << row.text;
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ModemConfTest, WhatIsNotUnderstoodIsNamedAndTheRestCounts) {
  const struct {
    std::string line;
    std::string complaint;  // empty: the line has a bad value
  } cases[] = {
      {"fault.extension", "no \"key = value\" \"fault.extension\""},
      {"fault.nosuch = down", "unknown key \"fault.nosuch\""},
      {" = down", "unknown key \"\""},
      {"a\x1b[31m\xff = 1", "unknown key \"a?[31m?\""},
      {std::string(200, 'k') + " = 1", "unknown key \"" + std::string(60, 'k') + "\"..."},
      {"fault.extension =", ""},
      {"fault.extension = Down", ""},
      {"fault.extension = down now", ""},
      {"fault.extension = error:", ""},
      {"fault.extension = error:0", ""},
      {"fault.extension = error:5x", ""},
      {"fault.extension = result:2147483648", ""},
      {"extension.rsp_result = 1 2", ""},
  };
  for (const auto& row : cases) {
    testing::internal::CaptureStderr();
    const ModemConf conf =
        platform::parse_modem_conf("\nextension.rsp_result = 3\n" + row.line + "\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "modem.conf:3: " +
                  (row.complaint.empty() ? "bad value \"" + row.line + "\"" : row.complaint) +
                  "\n");
    EXPECT_EQ(conf.extension_fault.kind, Kind::kNone) << row.line;
    EXPECT_EQ(conf.extension_rsp_result, 3) << row.line;
  }
}

TEST_F(ModemConfTest, AnUnreadableFileIsNotIgnored) {
  std::filesystem::create_directories(state_dir() + "/modem.conf");
  testing::internal::CaptureStderr();
  EXPECT_EQ(platform::load_modem_conf().extension_rsp_result, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "modem.conf: Is a directory\n");
}

}  // namespace
}  // namespace kiv::test
