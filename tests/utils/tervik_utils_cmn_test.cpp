#include "tervik_utils_cmn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {
namespace {

constexpr tervik_log_place kPlace{"a.cpp", 12, "do_it"};

class UtilsCmn : public StateDirectoryTest {
 protected:
  // What it printed. Masks, trace switch and process cache are loaded once in a process: each run
  // has its own. An expectation that fails in `run` fails the test.
  std::string run_in_child(const std::function<void()>& run) const {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      write_state_file_text("out", captured_stdout(run));
      _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    const std::string out = read_state_file_text("out");
    EXPECT_EQ(status, 0) << out;
    return out;
  }
};

TEST_F(UtilsCmn, StatementsOfAnyLengthArriveWhole) {
  const std::string place = "[a.cpp:12] do_it: ";
  for (const std::string& text : {std::string("100%s%n%d"), std::string(1023, 'x'),
                                  std::string(1024, 'x'), std::string(70000, 'x')}) {
    const std::string out = run_in_child([&] {
      const LogCapture log;
      tervik_log_write(kPlace, LOG_CLASS_DEBUG, 2, "%s", text.c_str());
      const auto lines = log.lines();
      const auto line = std::ranges::find(lines, place + text, &LogLine::text);
      EXPECT_TRUE(line != lines.end() && line->priority == 7);
    });
    EXPECT_EQ(out, "RIL" + place + text + "\n");
  }
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
