#include "platform/android/state_directory.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using platform::read_state_file;
using platform::read_state_file_part;
using platform::remove_state_file;
using platform::update_state_file;
using platform::write_state_file;
using Bytes = std::vector<uint8_t>;

std::string property(const char* name, const char* default_value = "none") {
  std::array<char, PROPERTY_VALUE_MAX> value;
  value.fill('x');
  const int length = property_get(name, value.data(), default_value);
  EXPECT_EQ(static_cast<size_t>(length), strlen(value.data()));
  return value.data();
}

class StateFileTest : public StateDirectoryTest {};
class PropertyTest : public StateDirectoryTest {};

TEST_F(StateFileTest, FilesAreReplacedReadInPartsAndRemoved) {
  EXPECT_EQ(write_state_file("efs/0/a/b", Bytes{1, 2, 3, 4, 5}), 0);
  EXPECT_EQ(write_state_file("efs/0/a/b", Bytes{6, 7, 8}), 0);
  EXPECT_EQ(read_state_file("efs/0/a/b"), (Bytes{6, 7, 8}));
  const struct {
    uint64_t offset;
    size_t length;
    Bytes bytes;
  } parts[] = {{0, 2, {6, 7}}, {2, 9, {8}}, {3, 9, {}}, {UINT64_MAX, 9, {}}, {1, 0, {}}};
  for (const auto& row : parts) {
    const auto part = read_state_file_part("efs/0/a/b", row.offset, row.length);
    ASSERT_TRUE(part);
    EXPECT_EQ(part->file_size, 3u);
    EXPECT_EQ(part->bytes, row.bytes);
  }
  EXPECT_EQ(remove_state_file("efs/0/a/b"), 0);
  EXPECT_EQ(remove_state_file("efs/0/a/b"), ENOENT);
}

TEST_F(StateFileTest, AFileLongerThanOneReadIsWhole) {
  Bytes bytes(3 * 4096 + 17);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<uint8_t>(i * 7);
  }
  ASSERT_EQ(write_state_file("nv/0/1", bytes), 0);
  EXPECT_EQ(read_state_file("nv/0/1"), bytes);
}

TEST_F(StateFileTest, NothingIsCreatedByReadingOrRemoving) {
  EXPECT_FALSE(read_state_file("properties"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(read_state_file_part("nv/0/1", 0, 1));
  EXPECT_EQ(remove_state_file("nv/0/1"), ENOENT);
  EXPECT_EQ(property("some.name"), "none");
  EXPECT_FALSE(std::filesystem::exists(state_dir()));
}

TEST_F(StateFileTest, WhatIsNoFileIsRefused) {
  ASSERT_EQ(write_state_file("efs/0/folder/file", Bytes{1}), 0);
  ASSERT_EQ(mkfifo((state_dir() + "/fifo").c_str(), 0600), 0);
  EXPECT_EQ(write_state_file("efs/0/folder", Bytes{1}), EISDIR);
  EXPECT_NE(write_state_file("efs/0/folder/file/below", Bytes{1}), 0);
  EXPECT_NE(remove_state_file("efs/0/folder"), 0);
  EXPECT_FALSE(read_state_file("efs/0/folder"));
  EXPECT_FALSE(read_state_file_part("efs/0/folder", 0, 1));
  EXPECT_FALSE(read_state_file_part("fifo", 0, 1));
  EXPECT_EQ(read_state_file("fifo"), Bytes{});
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/.new")) << "left behind by a failed write";
}

TEST_F(StateFileTest, TheDirectoryComesFromTheEnvironment) {
  const std::string previous = getenv("HOME") == nullptr ? "" : getenv("HOME");
  setenv("XDG_STATE_HOME", "/x", 1);
  setenv("HOME", "/h", 1);
  setenv("KIV_STATE_DIR", "", 1);
  EXPECT_EQ(platform::state_directory(), "/x/kiv");
  unsetenv("XDG_STATE_HOME");
  EXPECT_EQ(platform::state_directory(), "/h/.local/state/kiv");
  unsetenv("HOME");
  EXPECT_EQ(platform::state_directory(), "");
  EXPECT_NE(write_state_file("properties", Bytes{1}), 0);
  EXPECT_FALSE(read_state_file("properties"));
  setenv("HOME", previous.c_str(), 1);
}

TEST_F(PropertyTest, ValuesFollowTheRulesOfTheFile) {
  const std::string longest(92, 'v');
  write_state_file_text("properties", "# by hand\na.b=1\na=x=y\nempty=\na.b=2\nlong=" + longest +
                                          "vvv\r\ncr=7\r\nnul=1" + std::string("\0", 1) +
                                          "2\nlast=end");
  const struct {
    const char* name;
    std::string value;
  } cases[] = {{"a.b", "2"}, {"a", "x=y"},    {"empty", "none"}, {"long", longest},
               {"cr", "7"},  {"last", "end"}, {"b", "none"},     {"a.", "none"},
               {"nul", "1"}, {"", "none"},    {"a=x", "none"}};
  for (const auto& row : cases) {
    EXPECT_EQ(property(row.name), row.value) << row.name;
  }
  EXPECT_EQ(property("b", nullptr), "");
  EXPECT_EQ(property("b", (longest + "more").c_str()), longest);
  EXPECT_EQ(property(nullptr), "none");
}

TEST_F(PropertyTest, SettingKeepsWhatItDoesNotUnderstand) {
  write_state_file_text("properties", "# by hand\na=1\n\njunk\nb=2\na=3");
  EXPECT_EQ(property_set("a", "4"), 0);
  EXPECT_EQ(property_set("c", "x=#y "), 0);
  EXPECT_EQ(property_set("b", ""), 0);
  EXPECT_EQ(read_state_file_text("properties"), "# by hand\na=4\n\njunk\nb=\nc=x=#y \n");
  EXPECT_EQ(property("b"), "none");
  std::array<char, PROPERTY_VALUE_MAX> value{};
  EXPECT_EQ(__system_property_get("c", value.data()), 5);
  EXPECT_STREQ(value.data(), "x=#y ");
}

TEST_F(PropertyTest, WhatCannotBeStoredIsRefused) {
  ASSERT_EQ(property_set(std::string(255, 'n').c_str(), std::string(92, 'v').c_str()), 0);
  const std::string before = read_state_file_text("properties");
  const std::string long_name(256, 'n');
  const std::string long_value(93, 'v');
  const struct {
    const char* name;
    const char* value;
  } cases[] = {{nullptr, "1"},
               {"", "1"},
               {"a=b", "1"},
               {"a\nb", "1"},
               {"a", "1\n2"},
               {"a", "1\r"},
               {"a", long_value.c_str()},
               {long_name.c_str(), "1"}};
  for (const auto& row : cases) {
    EXPECT_EQ(property_set(row.name, row.value), -1);
  }
  EXPECT_EQ(read_state_file_text("properties"), before);
}

std::string property_name(int process, int number) {
  return std::to_string(process).append(1, '.').append(std::to_string(number));
}

// Runs `body` in a child process, which ends with its result.
template <class Body>
pid_t start_child(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body());
  }
  EXPECT_GT(child, 0);
  return child;
}

TEST_F(PropertyTest, SeveralWritersLoseNoChange) {
  constexpr int kProcesses = 4;
  constexpr int kSets = 50;
  const auto set_all = [](int process) {
    for (int i = 0; i < kSets; ++i) {
      const std::string name = property_name(process, i);
      if (property_set(name.c_str(), "1") != 0) {
        return 1;
      }
    }
    return 0;
  };
  std::array<pid_t, kProcesses> children;
  for (int process = 0; process < kProcesses; ++process) {
    children[static_cast<size_t>(process)] = start_child([&] { return set_all(process); });
  }
  // Threads of one process exclude each other as processes do.
  std::thread first([&] { EXPECT_EQ(set_all(kProcesses), 0); });
  std::thread second([&] { EXPECT_EQ(set_all(kProcesses + 1), 0); });
  first.join();
  second.join();
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  for (int process = 0; process < kProcesses + 2; ++process) {
    for (int i = 0; i < kSets; ++i) {
      const std::string name = property_name(process, i);
      EXPECT_EQ(property(name.c_str()), "1") << name;
    }
  }
}

TEST_F(PropertyTest, AKilledWriterLeavesTheOldFileOrTheNewOne) {
  // Long enough that a torn file could not look whole.
  const std::string filler(16384, 'f');
  write_state_file_text("properties", "# " + filler + "\ncounter=0\nguard=whole\n");
  for (int round = 0; round < 8; ++round) {
    const pid_t child = start_child([] {
      for (int value = 1;; ++value) {
        if (property_set("counter", std::to_string(value).c_str()) != 0) {
          return 1;
        }
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(read_state_file_text("properties"),
              "# " + filler + "\ncounter=" + property("counter") + "\nguard=whole\n");
  }
  EXPECT_NE(property("counter"), "0") << "no write was under way";
  EXPECT_EQ(property_set("guard", "still"), 0) << "the lock outlived its holder";
}

}  // namespace
}  // namespace kiv::test
