// The kiv binary as an operator or a factory script starts it: exit status, both standard streams
// with their prefixes and masks, and the state directory between runs. What a command prints is in
// the transcripts.

#include <cstdlib>

#include "tests/e2e/program_runner.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Strings = std::vector<std::string>;

const std::string kQuiet = "persist.vendor.radio.adb_log_shell=296\n";

class KivTest : public StateDirectoryTest {
 protected:
  ProgramRun run_kiv(const Strings& arguments) const {
    const char* other_kiv = getenv("KIV_BINARY");
    return run_program(other_kiv != nullptr ? other_kiv : KIV_BINARY, arguments,
                       {"KIV_STATE_DIR=" + state_dir()});
  }

  // Runs kiv: it ends with status 0, prints what the regular expression says, and no errors.
  void expect_run(const Strings& arguments, const std::string& printed) const {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const ProgramRun run = run_kiv(arguments);
    EXPECT_EQ(run.exit_status, 0);
    const testing::Matcher<std::string> is_as_wanted = testing::MatchesRegex(printed);
    EXPECT_TRUE(is_as_wanted.Matches(run.standard_output)) << run.standard_output;
    EXPECT_EQ(run.standard_error, "");
  }
};

constexpr const char* kHelpOf4 =
    "=+ blew: kivora\\(kiv\\) cmd help =+\n4: nvefs option cmd: \n(   kiv 4 [0-9] sub [^\n]*\n){6}"
    "=+ above: kivora\\(kiv\\) cmd help =+\n\n";

TEST_F(KivTest, MasksChooseWhatIsPrinted) {
  const std::string note =
      "RIL\\[tervik_kiv_test_nvefs.cpp:[0-9]+\\] tervik_test_nvefs_do: note: Too few parameters, Pls "
      "refer to the following cmd:\n";
  for (const auto& [mask, printed] : std::vector<std::pair<std::string, std::string>>{
           {"296", note + kHelpOf4}, {"256", kHelpOf4}, {"8", note}, {"0", ""}, {"none", ""}}) {
    write_state_file_text("properties", "persist.vendor.radio.adb_log_shell=" + mask + "\n");
    expect_run({"4"}, printed);
  }
}

TEST_F(KivTest, RunsOnOneStateDirectoryFollowEachOther) {
  write_state_file_text("properties", kQuiet);
  const std::string place = "RIL\\[tervik_kiv_test_nvefs.cpp:[0-9]+\\] tervik_nvefs_test_nv_read: ";
  expect_run({"4", "2", "0", "550", "1", "256"}, "");
  expect_run({"4", "1", "0", "550"}, place + "data len\\(2\\)\ndata: \n" + place + " 01\n" + place +
                                         " 00\n" + place + "\n");
  EXPECT_EQ(read_state_file_text("nv/0/550"), std::string("\1\0", 2));
  expect_run({"4", "5", "0", "/../../out", "1"}, ".*");
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/../out"));
  expect_run({"10", "30", "2"}, "");
  EXPECT_EQ(read_state_file_text("properties"), kQuiet + "persist.radio.all_pdc_no_rsp_count=2\n");
}

TEST_F(KivTest, TheEndlessCommandPrintsOnUntilItIsEnded) {
  EXPECT_EQ(run_kiv({"11", "9", "1"}).signal, SIGXFSZ);
}

}  // namespace
}  // namespace kiv::test
