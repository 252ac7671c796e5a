// Sixteen processes change one state directory at once, and none loses an update.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/android/state_directory.h"
#include "platform/modem/nv_efs_store.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kProcesses = 16;
constexpr int kRounds = 100;

std::string property(const std::string& name) {
  std::array<char, PROPERTY_VALUE_MAX> value{};
  property_get(name.c_str(), value.data(), "");
  return value.data();
}

std::string one_more(std::string_view count) {
  return std::to_string(std::atoi(std::string(count).c_str()) + 1);
}

// In every byte different from what the rounds before wrote.
Bytes file_content(int round) {
  return Bytes(5000, static_cast<uint8_t>(round / 10));
}

bool run_round(int process, int round) {
  const std::string own = std::to_string(process);
  const std::string value = std::to_string(round);
  const std::string file = "efs/0/" + own + "/file";
  const auto item = static_cast<uint32_t>(process);
  const Bytes bytes(value.begin(), value.end());
  Bytes read;
  const std::string name =
      round % 10 < 4 ? "own." + own + '.' + std::to_string(round % 10) : "shared";
  return property_set(name.c_str(), value.c_str()) == 0 &&
         (name == "shared" || property(name) == value) &&
         (round % 10 != 5 || platform::update_state_file("counter", one_more) == 0) &&
         platform::write_nv_item(0, item, bytes) == 0 &&
         platform::read_nv_item(0, item, read) == 0 && read == bytes &&
         platform::write_state_file(file, file_content(round)) == 0 &&
         platform::read_state_file(file) == file_content(round);
}

using StateStressTest = StateDirectoryTest;

TEST_F(StateStressTest, NoUpdateIsLost) {
  for (int process = 0; process < kProcesses; ++process) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child != 0) continue;
    for (int round = 0; round < kRounds; ++round) {
      if (run_round(process, round)) continue;
      std::fprintf(stderr, "process %d, round %d: errno %d\n", process, round, errno);
      _exit(1);
    }
    _exit(0);
  }
  for (int status = -1; wait(&status) > 0;) EXPECT_EQ(status, 0);

  for (int process = 0; process < kProcesses; ++process) {
    const std::string own = std::to_string(process);
    for (const char* key : {"0", "1", "2", "3"}) {
      EXPECT_EQ(property("own." + own + '.' + key), "9" + std::string(key)) << process;
    }
    EXPECT_EQ(read_state_file_text("nv/0/" + own), "99");
    EXPECT_EQ(platform::read_state_file("efs/0/" + own + "/file"), file_content(99));
  }
  EXPECT_EQ(read_state_file_text("counter"), std::to_string(kProcesses * kRounds / 10));
  const std::string lines = read_state_file_text("properties");  // none twice
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 4 * kProcesses + 1);
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/.new"));
}

}  // namespace
}  // namespace kiv::test
