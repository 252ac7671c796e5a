#include "tervik_kiv_test_main.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>

#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using KivMain = CommandLineTest;

TEST_F(KivMain, UnknownCategoriesShowTheWholeHelp) {
  const Strings whole = with_help(0);
  EXPECT_EQ(run({}), whole);
  EXPECT_EQ(run({"kiv"}), whole);
  for (const char* category : {"0", "13", "-4", "abc", "", "256", "2147483647"}) {
    EXPECT_EQ(run({"kiv", category, "1", "0", "550"}), whole) << category;
  }
  for (const char* category : {"1", "2", " 2x"}) {
    EXPECT_EQ(run({"kiv", category, "4", "550"}), Strings{"Not support"}) << category;
  }
}

// The blocks stand in the order of their categories, and each alone between the banners.
TEST_F(KivMain, HelpOfOneCategoryIsItsPartOfTheWhole) {
  const Strings whole = with_help(0);
  Strings assembled{whole.front()};
  for (const int category : {1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}) {
    const Strings help = with_help(category);
    EXPECT_EQ(help.front(), whole.front());
    EXPECT_TRUE(help[1].starts_with(std::to_string(category) + ": ")) << help[1];
    EXPECT_EQ(help.back(), "");
    assembled.insert(assembled.end(), help.begin() + 1, help.end() - 2);
  }
  assembled.insert(assembled.end(), whole.end() - 2, whole.end());
  EXPECT_EQ(assembled, whole);
}

TEST_F(KivMain, RunBeginsWithTheIdentityAndHelpReachesTheSystemLog) {
  tervik_hal_set_shell_print_mask(0);
  const LogCapture log;
  EXPECT_EQ(run({"kiv", "4"}), Strings{});
  const std::vector<LogLine> lines = log.lines();
  ASSERT_FALSE(lines.empty());
  const auto identity = std::find_if(lines.begin(), lines.end(), [](const LogLine& line) {
    return line.text.find("TERVIK_MANUFACTURER_ID_TERVIK(1), p_id: " + std::to_string(getpid())) !=
           std::string::npos;
  });
  ASSERT_NE(identity, lines.end());
  EXPECT_EQ(identity->priority, LOG_DEBUG);
  ASSERT_EQ(lines.end() - identity, 11);  // the note, two banners and the block
  EXPECT_EQ(identity[1].priority, LOG_ERR);
  for (auto line = identity + 2; line != lines.end(); ++line) {
    EXPECT_EQ(line->priority, LOG_DEBUG) << line->text;
  }
  EXPECT_EQ(message_of(identity[4].text), "   kiv 4 1 sub nv_id             /* nv read */");
}

}  // namespace
}  // namespace kiv::test
