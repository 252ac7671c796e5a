#include "tervik_kiv_test_main.h"

#include <gtest/gtest.h>

#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using KivMain = CommandLineTest;

TEST_F(KivMain, UnknownCategoriesShowTheWholeHelp) {
  const Strings whole = with_help(0);
  EXPECT_EQ(run({}), whole);
  for (const char* category : {"0", "13", "-4", "abc", "", "256", "2147483647"}) {
    EXPECT_EQ(run({"kiv", category, "1", "0", "550"}), whole) << category;
  }
  EXPECT_EQ(run({"kiv", " 2x", "4", "550"}), Strings{"Not support"});
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

}  // namespace
}  // namespace kiv::test
