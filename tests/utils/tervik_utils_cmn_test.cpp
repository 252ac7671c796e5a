#include "tervik_utils_cmn.h"

#include <unistd.h>

#include <algorithm>

#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {
namespace {

constexpr tervik_log_place kPlace{"a.cpp", 12, "do_it"};

using UtilsCmn = StateDirectoryTest;

TEST_F(UtilsCmn, StatementsOfAnyLengthArriveWhole) {
  tervik_log_error("masks are loaded");
  tervik_hal_set_shell_print_mask(0xFFFF);
  const std::string place = "[a.cpp:12] do_it: ";
  for (const std::string& text : {std::string("100%s%n%d"), std::string(1023, 'x'),
                                  std::string(1024, 'x'), std::string(70000, 'x')}) {
    const LogCapture log;
    const std::string out =
        captured_stdout([&] { tervik_log_write(kPlace, LOG_CLASS_DEBUG, 2, "%s", text.c_str()); });
    EXPECT_EQ(out, "RIL" + place + text + "\n");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].text, place + text);
    EXPECT_EQ(log.lines()[0].priority, 7);
  }
}

TEST_F(UtilsCmn, TheProcessKnowsItsNumber) {
  pid_info info{};
  tervik_get_current_pid_info(&info);
  EXPECT_EQ(info.p_id, getpid());
}

TEST_F(UtilsCmn, HexTextStaysInItsBuffer) {
  const uint8_t data[] = {0x01, 0xAB, 0x0C, 0xFF, 0x10};
  for (const auto& [out_max, data_len, text] :
       {std::tuple{5, 3, " 01"}, {7, 5, " 01"}, {8, 5, " 01 AB"}, {19, -1, ""}}) {
    char out[] = "###################";
    EXPECT_EQ(tervik_get_hex_str(out, out_max, data, data_len), 1);
    std::string expected = text;
    expected.resize(static_cast<size_t>(out_max), '\0');
    expected.resize(sizeof out - 1, '#');
    EXPECT_EQ(std::string(out, sizeof out - 1), expected) << out_max;
  }
}

}  // namespace
}  // namespace kiv::test
