#include "platform/android/state_directory.h"

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using platform::read_state_file;
using platform::read_state_file_part;
using platform::remove_state_file;
using platform::write_state_file;
using Bytes = std::vector<uint8_t>;

std::string property(const char* name, const char* default_value = "none") {
  std::array<char, PROPERTY_VALUE_MAX> value;
  value.fill('x');
  const int length = property_get(name, value.data(), default_value);
  EXPECT_EQ(static_cast<size_t>(length), strlen(value.data()));
  return value.data();
}

int set_property(const std::string& name, const std::string& value) {
  return property_set(name.c_str(), value.c_str());
}

using StateFileTest = StateDirectoryTest;
using PropertyTest = StateDirectoryTest;

TEST_F(StateFileTest, FilesAreReplacedReadInPartsAndRemoved) {
  const Bytes longer_than_a_read(3 * 4096 + 17, 0xA7);
  EXPECT_EQ(write_state_file("efs/0/a/b", longer_than_a_read), 0);
  EXPECT_EQ(read_state_file("efs/0/a/b"), longer_than_a_read);
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

TEST_F(StateFileTest, NothingIsCreatedByReadingOrRemoving) {
  EXPECT_FALSE(read_state_file("properties"));
  EXPECT_EQ(errno, ENOENT);
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
  EXPECT_FALSE(read_state_file_part("fifo", 0, 1));
  EXPECT_EQ(read_state_file("fifo"), Bytes{});
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/.new")) << "left behind by a failed write";
}

TEST_F(StateFileTest, TheDirectoryComesFromTheEnvironment) {
  setenv("XDG_STATE_HOME", "/x", 1);
  setenv("HOME", "/h", 1);
  setenv("KIV_STATE_DIR", "", 1);
  EXPECT_EQ(platform::state_directory(), "/x/kiv");
  unsetenv("XDG_STATE_HOME");
  EXPECT_EQ(platform::state_directory(), "/h/.local/state/kiv");
  unsetenv("HOME");
  EXPECT_NE(write_state_file("properties", Bytes{1}), 0);
  EXPECT_FALSE(read_state_file("properties"));
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
  for (const auto& row : cases) EXPECT_EQ(property(row.name), row.value) << row.name;
  EXPECT_EQ(property("b", nullptr), "");
  EXPECT_EQ(property("b", (longest + "more").c_str()), longest);
  EXPECT_EQ(property(nullptr), "none");
}

TEST_F(PropertyTest, SettingKeepsTheRestAndRefusesWhatCannotBeStored) {
  write_state_file_text("properties", "# by hand\na=1\n\njunk\nb=2\na=3");
  EXPECT_EQ(set_property("a", "4"), 0);
  EXPECT_EQ(set_property("c", "x=#y "), 0);
  EXPECT_EQ(set_property("b", ""), 0);
  EXPECT_EQ(property("c"), "x=#y ");
  const std::string long_name(255, 'n');
  const std::string long_value(92, 'v');
  EXPECT_EQ(set_property(long_name, long_value), 0);
  for (const auto& [name, value] : {std::pair<std::string, std::string>{"", "1"},
                                    {"a=b", "1"},
                                    {"a\nb", "1"},
                                    {"a", "1\n2"},
                                    {"a", "1\r"},
                                    {"a", long_value + "v"},
                                    {long_name + "n", "1"}}) {
    EXPECT_EQ(set_property(name, value), -1) << name;
  }
  EXPECT_EQ(property_set(nullptr, "1"), -1);
  EXPECT_EQ(read_state_file_text("properties"),
            "# by hand\na=4\n\njunk\nb=\nc=x=#y \n" + long_name + "=" + long_value + "\n");
}

TEST_F(PropertyTest, ThreadsLoseNoChange) {
  const auto set_all = [](const std::string& thread) {
    for (int i = 0; i < 50; ++i) EXPECT_EQ(set_property(thread + std::to_string(i), "1"), 0);
  };
  std::thread other([&] { set_all("a."); });
  set_all("b.");
  other.join();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(property(((i % 2 != 0 ? "a." : "b.") + std::to_string(i / 2)).c_str()), "1") << i;
  }
}

}  // namespace
}  // namespace kiv::test
