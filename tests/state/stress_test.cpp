// Sixteen processes change one state directory at once, and none loses an update.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/android/state_directory.h"
#include "platform/modem/nv_efs_store.h"
#include "tests/e2e/program_runner.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr int kProcesses = 16;
constexpr int kOperations = 1000;
constexpr int kRuns = 20;
constexpr int kOwnProperties = 7;

Bytes bytes_of(const std::string& text) {
  return {text.begin(), text.end()};
}

std::string property(const std::string& name) {
  std::array<char, PROPERTY_VALUE_MAX> value{};
  property_get(name.c_str(), value.data(), "");
  return value.data();
}

std::string own_property(int process, int round) {
  return "own." + std::to_string(process) + '.' + std::to_string(round % kOwnProperties);
}

std::string own_file(int process) {
  return "efs/0/" + std::to_string(process) + "/file";
}

// Long, and different in every byte from what any other round writes there.
std::string own_content(int process, int round) {
  return std::string(5000, static_cast<char>('A' + round / 10 % 26)) + std::to_string(process);
}

bool set_and_read_back(const std::string& name, const std::string& value) {
  return property_set(name.c_str(), value.c_str()) == 0 && property(name) == value;
}

bool count_one_more() {
  const auto one_more = [](std::string_view text) {
    return std::to_string(std::atoi(std::string(text).c_str()) + 1);
  };
  return platform::update_state_file("counter", one_more) == 0;
}

bool write_item_and_read_back(int process, int round) {
  const auto id = static_cast<uint32_t>(process);
  const Bytes value = bytes_of(std::to_string(round));
  Bytes read;
  return platform::write_nv_item(0, id, value) == 0 && platform::read_nv_item(0, id, read) == 0 &&
         read == value;
}

bool write_file_and_read_back(int process, int round) {
  const Bytes content = bytes_of(own_content(process, round));
  return platform::write_state_file(own_file(process), content) == 0 &&
         platform::read_state_file(own_file(process)) == content;
}

// Another process's values are there whole, old or new, but never empty again.
bool shared_values_are_whole() {
  const std::string shared = property("shared");
  const auto counter = platform::read_state_file("counter");
  return (shared.empty() || (shared.starts_with("of ") && shared.ends_with('.'))) &&
         (!counter || !counter->empty());
}

bool run_operation(int process, int round) {
  switch (round % 10) {
    case 0:
    case 1:
    case 2:
      return set_and_read_back(own_property(process, round), std::to_string(round));
    case 3:
      return property_set("shared", ("of " + std::to_string(process) + '.').c_str()) == 0;
    case 4:
      return count_one_more();
    case 5:
    case 6:
      return write_item_and_read_back(process, round);
    case 7:
      return platform::remove_state_file(own_file(process)) == (round == 7 ? ENOENT : 0);
    case 8:
      return write_file_and_read_back(process, round);
    default:
      return shared_values_are_whole();
  }
}

using LongestWaits = std::array<std::atomic<int64_t>, kProcesses>;

// The body of a child process: 0, or 1 after a line on what went wrong.
int change_state(int process, std::atomic<int64_t>& longest_us) {
  for (int round = 0; round < kOperations; ++round) {
    const auto start = Clock::now();
    if (!run_operation(process, round)) {
      std::fprintf(stderr, "process %d, round %d: errno %d\n", process, round, errno);
      return 1;
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
    longest_us = std::max(longest_us.load(), int64_t{us.count()});
  }
  for (int run = 0; run < kRuns; ++run) {
    const std::string id = std::to_string(100 + process);
    const ProgramRun nv = run_program(
        KIV_WITH_STATE_FAULTS, {"4", "2", "1", id, std::to_string(run + 1)}, {"KIV_TIME_FACTOR=0"});
    if (nv.exit_status != 0 || !nv.standard_error.empty()) {
      std::fprintf(stderr, "kiv 4 2 1 %s: %s\n", id.c_str(), nv.standard_error.c_str());
      return 1;
    }
  }
  return 0;
}

class StateStressTest : public StateDirectoryTest {
 protected:
  void run_processes() {
    void* const shared = mmap(nullptr, sizeof(LongestWaits), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto& longest_us = *new (shared) LongestWaits{};
    std::vector<pid_t> children;
    for (int process = 0; process < kProcesses; ++process) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        _exit(change_state(process, longest_us[static_cast<size_t>(process)]));
      }
      children.push_back(child);
    }
    for (const pid_t child : children) {
      int status = -1;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 0);
    }
    std::printf("longest operation: %.1f ms\n",
                static_cast<double>(*std::max_element(longest_us.begin(), longest_us.end())) / 1e3);
    munmap(shared, sizeof(LongestWaits));
  }

  // The last round up to 999 that sets the own property of that number.
  static int last_round_of(int number) {
    int round = kOperations - 1;
    while (round % 10 > 2 || round % kOwnProperties != number) --round;
    return round;
  }
};

TEST_F(StateStressTest, NoUpdateIsLost) {
  run_processes();
  for (int process = 0; process < kProcesses; ++process) {
    SCOPED_TRACE(process);
    for (int number = 0; number < kOwnProperties; ++number) {
      EXPECT_EQ(property(own_property(process, number)), std::to_string(last_round_of(number)));
    }
    EXPECT_EQ(read_state_file_text("nv/0/" + std::to_string(process)), "996");
    EXPECT_EQ(read_state_file_text("nv/1/" + std::to_string(100 + process)), std::string(1, kRuns));
    EXPECT_EQ(read_state_file_text(own_file(process)), own_content(process, 998));
  }
  EXPECT_EQ(read_state_file_text("counter"), std::to_string(kProcesses * kOperations / 10));
  std::istringstream properties(read_state_file_text("properties"));
  std::multiset<std::string> names;
  for (std::string line; std::getline(properties, line);)
    names.insert(line.substr(0, line.find('=')));
  EXPECT_EQ(names.size(), kProcesses * kOwnProperties + 1u);
  for (const std::string& name : names) EXPECT_EQ(names.count(name), 1u) << name;
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/.new"));
}

}  // namespace
}  // namespace kiv::test
