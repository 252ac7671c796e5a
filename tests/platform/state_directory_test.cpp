#include "platform/android/state_directory.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <future>

#include "tests/platform/callback_record.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
using platform::read_state_file;
using platform::read_state_file_part;
using platform::remove_state_file;
using platform::update_state_file;
using platform::write_state_file;
using std::this_thread::sleep_for;
using Bytes = std::vector<uint8_t>;

std::string keep(std::string_view present) {
  return std::string(present);
}

class StateFileTest : public StateDirectoryTest {
 protected:
  std::string path_of(const std::string& name) const { return state_dir() + "/" + name; }
};

TEST_F(StateFileTest, WhatIsRefusedHasItsErrorAndLeavesNothingBehind) {
  ASSERT_EQ(write_state_file("folder/file", Bytes{1}), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(write_state_file("folder", Bytes{1}), EISDIR);
  EXPECT_EQ(update_state_file(std::string(300, 'n'), keep), ENAMETOOLONG);
  EXPECT_FALSE(std::filesystem::exists(path_of(".new")));
  // Files that someone else put there: one under the new name, one without end, one too long.
  write_state_file_text("victim", "untouched");
  std::filesystem::create_symlink(path_of("victim"), path_of(".new"));
  EXPECT_EQ(write_state_file("a", Bytes{'a'}), 0);
  EXPECT_EQ(read_state_file_text("victim"), "untouched");
  EXPECT_FALSE(std::filesystem::is_symlink(path_of("a")));
  ASSERT_EQ(mkfifo(path_of("fifo").c_str(), 0600), 0);
  EXPECT_EQ(read_state_file_part("fifo", 0, 1) ? 0 : errno, EINVAL);
  write_state_file_text("long", "");
  std::filesystem::resize_file(path_of("long"), 16 << 20);
  EXPECT_EQ(read_state_file("long")->size(), 16u << 20);
  std::filesystem::resize_file(path_of("long"), (16 << 20) + 1);
  EXPECT_EQ(read_state_file("long") ? 0 : errno, EFBIG);
  EXPECT_EQ(update_state_file("long", keep), EFBIG);
  // No directory can be made here, and none is named there.
  setenv("KIV_STATE_DIR", path_of("folder/file/state").c_str(), 1);
  EXPECT_EQ(write_state_file("a", Bytes{1}), ENOTDIR);
  for (const char* name : {"KIV_STATE_DIR", "XDG_STATE_HOME", "HOME"}) unsetenv(name);
  EXPECT_EQ(write_state_file("a", Bytes{1}), ENOENT);
  testing::internal::GetCapturedStderr();
  setenv("XDG_STATE_HOME", "", 1);
  setenv("HOME", "/h", 1);
  EXPECT_EQ(platform::state_directory(), "/h/.local/state/kiv");
}

// A change that comes while another one is at work goes before that one's next.
TEST_F(StateFileTest, WhoWaitsForTheDirectoryComesBeforeTheNextChangeOfItsHolder) {
  const auto add = [](const char* letter) {
    return update_state_file("letters", [letter](std::string_view present) {
      sleep_for(1ms);
      return std::string(present) + letter;
    });
  };
  ASSERT_EQ(add("h"), 0);
  auto other = std::async(std::launch::async, [&] {
    sleep_for(100us);
    return add("w");
  });
  for (int i = 0; i < 5; ++i) ASSERT_EQ(add("h"), 0);
  EXPECT_EQ(other.get(), 0);
  EXPECT_EQ(read_state_file_text("letters"), "hhwhhhh");
  EXPECT_EQ(time_of([] { EXPECT_EQ(write_state_file("letters", {}), 0); }), 0ms);
}

// A holder that does not come back: 2 s, and less than the 3 s that a client waits for the modem.
TEST_F(StateFileTest, ADirectoryThatIsHeldIsWaitedForSoLongAndNoLonger) {
  ASSERT_EQ(write_state_file("a", Bytes{1}), 0);
  const int directory = open(state_dir().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(flock(directory, LOCK_EX), 0);
  for (int (*const change)() :
       {+[] { return write_state_file("a", Bytes{2}); },
        +[] { return update_state_file("a", keep); }, +[] { return remove_state_file("a"); }}) {
    const auto waited = time_of([&] { EXPECT_EQ(change(), EBUSY); });
    EXPECT_TRUE(waited > 2s && waited < 3s) << waited.count();
    EXPECT_EQ(time_of([] { EXPECT_EQ(read_state_file("a"), Bytes{1}); }), 0ms);
  }
  EXPECT_FALSE(std::filesystem::exists(path_of(".new")));
  const auto holder = std::async(std::launch::async, [directory] {
    sleep_for(1900ms);
    close(directory);
  });
  EXPECT_EQ(write_state_file("a", Bytes{3}), 0);
}

TEST_F(StateFileTest, PropertiesFollowTheRulesOfTheirFile) {
  const std::string name(255, 'n');
  const std::string value(92, 'v');
  write_state_file_text(
      "properties",
      "\xEF\xBB\xBFmark=1\ned = i t\nno= x\n# by hand\na.b=1\n\njunk\na=x=y\na.b=2\nb=\nlong=" +
          value + "v\r\ncr=7\r\ngone=1\ngone=\nlast=end");
  const auto get = [](const char* key, const char* otherwise = "none") {
    std::array<char, PROPERTY_VALUE_MAX> stored;
    stored.fill('x');
    const int length = property_get(key, stored.data(), otherwise);
    EXPECT_EQ(static_cast<size_t>(length), strlen(stored.data()));
    return std::string(stored.data());
  };
  const std::pair<const char*, std::string> stored_values[] = {
      {"a.b", "2"},    {"a", "x=y"},  {"long", value}, {"cr", "7"},
      {"last", "end"}, {"b", "none"}, {"a.", "none"},  {"gone", "none"},
      {"a=x", "none"}, {"mark", "1"}, {"ed", "i t"},   {"no", " x"}};
  for (const auto& [key, stored] : stored_values) EXPECT_EQ(get(key), stored) << key;
  EXPECT_EQ(get("b", (value + "more").c_str()), value);
  EXPECT_EQ(property_set("a.b", "4") + property_set("c", "x=#y "), 0);
  EXPECT_EQ(property_set("cr", "") + property_set(name.c_str(), value.c_str()), 0);
  const std::pair<std::string, std::string> refused_values[] = {
      {"", "1"},    {"a=b", "1"},       {"a\nb", "1"},    {"a", "1\n2"},
      {"a", "1\r"}, {"a", value + "v"}, {name + "n", "1"}};
  for (const auto& [key, refused] : refused_values) {
    EXPECT_EQ(property_set(key.c_str(), refused.c_str()), -1) << key;
  }
  EXPECT_EQ(read_state_file_text("properties"),
            "\xEF\xBB\xBFmark=1\ned = i t\nno= x\n# by hand\na.b=4\n\njunk\na=x=y\nb=\nlong=" +
                value + "v\r\ncr=\ngone=1\ngone=\nlast=end\nc=x=#y \n" + name + "=" + value + "\n");
}

}  // namespace
}  // namespace kiv::test
