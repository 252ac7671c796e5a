// What the simulated modem makes of a modem.conf that is wrong, and of paths that lead out.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/modem/extension_service.h"
#include "platform/modem/modem_conf.h"
#include "platform/modem/nv_efs_store.h"
#include "platform/modem/stats_parameters.h"
#include "platform/modem/uim_service.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using platform::ModemConf;

using ModemTest = StateDirectoryTest;

// The settings of the text, and what was said about it.
std::pair<ModemConf, std::string> parsed(const std::string& text) {
  testing::internal::CaptureStderr();
  ModemConf conf = platform::parse_modem_conf(text);
  return {conf, testing::internal::GetCapturedStderr()};
}

TEST_F(ModemTest, WhatIsNotUnderstoodIsNamedAndTheRestCounts) {
  const auto [conf, complaints] = parsed(
      "fault.extension=down\r\n# fault.extension = down\n\tfault.extension = silent # why\r\n"
      "fault.extension\n = down\na\x1b[31m\xff = 1\nfault.uim = error:-2147483648\n" +
      std::string(61, 'k') + " = 1\nfault.uim = down now");
  EXPECT_EQ(complaints,
            "modem.conf:4: no \"key = value\" \"fault.extension\"\n"
            "modem.conf:5: unknown key \"\"\nmodem.conf:6: unknown key \"a?[31m?\"\n"
            "modem.conf:8: unknown key \"" +
                std::string(60, 'k') +
                "\"...\nmodem.conf:9: bad value \"fault.uim = down now\"; wanted: down, silent, "
                "error:<n> or result:<n>, then \"from <n>\", \"for <n>\" or nothing\n");
  EXPECT_EQ(conf.fault_of(platform::kExtensionServiceId).kind,
            platform::ServiceFault::Kind::kSilent)
      << "the last line counts";
  EXPECT_EQ(conf.fault_of(platform::kUimServiceId).code, INT32_MIN);
  std::filesystem::create_directories(state_dir() + "/modem.conf");
  testing::internal::CaptureStderr();
  static_cast<void>(platform::load_modem_conf());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "modem.conf: Is a directory\n");
}

TEST_F(ModemTest, NumbersBytesAndWordsHaveTheirLimits) {
  const auto repeated = [](const std::string& key, const char* value, size_t count) {
    std::string line = key + " = ";
    for (size_t i = 0; i < count; ++i) line += value;
    return line + '\n';
  };
  const std::string bad =
      "fault.uim = down from 0\nfault.uim = down for\nfault.uim = down for 1 from 2\n"
      "fault.uim = down from 1 from 2\nfault.diag = down from 2\nstats.fading = 41\n"
      "fault.extension = Down\nfault.extension = error:\nfault.extension = error:0\n"
      "fault.extension = error:5x\nfault.extension = result:2147483648\nsar.dsi = 1 2\n"
      "card.2 = absent\neid = 8900101700000000000000000000016\n"
      "eid = 890010170000000000000000000001630\neid = 8900101700000000000000000000016A\n"
      "uim.profiles = -1\nuim.profiles = 256\nuim.reset = no\ndiag.remote = 65536\n"
      "diag.delay_ms = 600001\ndiag.response_size = 0\ndiag.response_size = 20001\nrat.2 = 9\n"
      "stats.debug_version = 5\nstats.enable = 2\nstats.log_ids =\nstats.log_ids = 65536\n"
      "stats.82 = 01\nstats.82.2 = 01\nstats.82.0.0 = 01\nstats.0x.0 = 01\nstats.5g.0 = 01\n"
      "stats.4294967296.0 = 01\nstats.82.0 =\nstats.82.0 = 0 1\nstats.82.0 = +1\n"
      "vs.indication. = 00\nvs.indication.10000 = 00\n" +
      repeated("stats.log_ids", "1 ", 250) + repeated("stats.1.0", "00", 701) +
      repeated("vs.indication.1", "00", 10673) + repeated("pdc.active.0", "00", 126);
  const auto [conf, complaints] =
      parsed(bad + "uim.profiles = 255\ndiag.remote = 65535\ndiag.delay_ms = 600000\n" +
             "diag.response_size = 20000\nstats.debug_version = 4\n" +
             repeated("stats.log_ids", "1 ", 249) + repeated("stats.1.1", "00", 700) +
             repeated("vs.indication.0xFFFF", "00", 10672) + repeated("pdc.active.0", "00", 125));
  EXPECT_EQ(std::count(complaints.begin(), complaints.end(), '\n'),
            std::count(bad.begin(), bad.end(), '\n'))
      << complaints;
  EXPECT_EQ(conf.uim_profiles, 255);
  EXPECT_EQ(conf.stats_log_ids.size(), 249u);
  EXPECT_EQ(conf.stats_overrides.at(0).value.size(), 700u);
}

TEST_F(ModemTest, LevelsFadeWithTheClock) {
  const ModemConf conf = platform::parse_modem_conf("\xEF\xBB\xBFstats.fading = 10");
  const auto level = [&conf] {
    const std::vector<uint8_t> record = platform::read_stats_parameter(conf, 1, 0x5E);
    float value = 0;
    memcpy(&value, &record.at(4), sizeof(value));
    return value;
  };
  const auto clock = std::chrono::system_clock::now().time_since_epoch();
  std::this_thread::sleep_for(std::chrono::seconds(20) - clock % std::chrono::seconds(20));
  EXPECT_NEAR(level(), -61.5F, 0.1F);
  sleep(5);
  EXPECT_NEAR(level(), -51.5F, 0.1F);
  sleep(10);
  EXPECT_NEAR(level(), -71.5F, 0.1F);
}

TEST_F(ModemTest, NoPathLeadsOutOfTheFolder) {
  const std::pair<std::string, int> cases[] = {{"a//./b/", 0},      {{"/a/b\0c", 6}, 0},
                                               {"./.", EINVAL},     {{"\0/a/b", 5}, EINVAL},
                                               {"../../x", EACCES}, {"/a/..", EACCES}};
  for (const auto& [path, result] : cases) {
    std::string file;
    EXPECT_EQ(platform::efs_state_file(0, path, file), result) << path;
    EXPECT_EQ(result == 0 ? file : "efs/0/a/b", "efs/0/a/b");
  }
}

}  // namespace
}  // namespace kiv::test
