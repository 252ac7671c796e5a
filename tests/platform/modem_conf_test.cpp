#include "platform/modem/modem_conf.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using platform::ModemConf;
using platform::ServiceFault;

class ModemConfTest : public StateDirectoryTest {};

// The configuration, and in `complaints` what went to standard error meanwhile.
ModemConf parse(const std::string& text, std::string& complaints) {
  testing::internal::CaptureStderr();
  const ModemConf conf = platform::parse_modem_conf(text);
  complaints = testing::internal::GetCapturedStderr();
  return conf;
}

TEST(ModemConfText, ValuesTheModemUnderstands) {
  const struct {
    const char* text;
    ServiceFault::Kind kind;
    int32_t code;
    int32_t rsp_result;
  } cases[] = {
      {"", ServiceFault::Kind::kNone, 0, 0},
      {"fault.extension=down", ServiceFault::Kind::kDown, 0, 0},
      {"\n# fault.extension = down\n\tfault.extension = silent # why\r\n",
       ServiceFault::Kind::kSilent, 0, 0},
      {"fault.extension = error:-2147483648", ServiceFault::Kind::kError, INT32_MIN, 0},
      {"fault.extension = result:2147483647\nextension.rsp_result = -7",
       ServiceFault::Kind::kResult, INT32_MAX, -7},
      {"fault.extension = down\nfault.extension = error:5", ServiceFault::Kind::kError, 5, 0},
  };
  for (const auto& row : cases) {
    std::string complaints;
    const ModemConf conf = parse(row.text, complaints);
    EXPECT_EQ(conf.extension_fault.kind, row.kind) << row.text;
    EXPECT_EQ(conf.extension_fault.code, row.code) << row.text;
    EXPECT_EQ(conf.extension_rsp_result, row.rsp_result) << row.text;
    EXPECT_EQ(complaints, "") << row.text;
  }
}

TEST(ModemConfText, WhatIsNotUnderstoodIsNamedAndTheRestCounts) {
  const std::string long_key(200, 'k');
  const struct {
    std::string line;
    std::string complaint;
  } cases[] = {
      {"fault.extension", "no \"key = value\" \"fault.extension\""},
      {"fault.nosuch = down", "unknown key \"fault.nosuch\""},
      {" = down", "unknown key \"\""},
      {"fault.extension =", "bad value \"fault.extension =\""},
      {"fault.extension = Down", "bad value \"fault.extension = Down\""},
      {"fault.extension = down now", "bad value \"fault.extension = down now\""},
      {"fault.extension = error:", "bad value \"fault.extension = error:\""},
      {"fault.extension = error:0", "bad value \"fault.extension = error:0\""},
      {"fault.extension = error:5x", "bad value \"fault.extension = error:5x\""},
      {"fault.extension = result:2147483648", "bad value \"fault.extension = result:2147483648\""},
      {"extension.rsp_result = 1 2", "bad value \"extension.rsp_result = 1 2\""},
      {"a\x1b[31m\xff = 1", "unknown key \"a?[31m?\""},
      {long_key + " = 1", "unknown key \"" + std::string(60, 'k') + "\"..."},
  };
  for (const auto& row : cases) {
    std::string complaints;
    const ModemConf conf = parse("\nextension.rsp_result = 3\n" + row.line + "\n", complaints);
    EXPECT_EQ(complaints, "modem.conf:3: " + row.complaint + "\n");
    EXPECT_EQ(conf.extension_fault.kind, ServiceFault::Kind::kNone) << row.line;
    EXPECT_EQ(conf.extension_rsp_result, 3) << row.line;
  }
}

TEST_F(ModemConfTest, TheFileIsOptionalButNotIgnoredWhenUnreadable) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(platform::load_modem_conf().extension_rsp_result, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  write_state_file_text("modem.conf", "extension.rsp_result = 9");
  EXPECT_EQ(platform::load_modem_conf().extension_rsp_result, 9);
  std::filesystem::remove(state_dir() + "/modem.conf");
  std::filesystem::create_directories(state_dir() + "/modem.conf");
  testing::internal::CaptureStderr();
  EXPECT_EQ(platform::load_modem_conf().extension_rsp_result, 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "modem.conf: Is a directory\n");
}

}  // namespace
}  // namespace kiv::test
