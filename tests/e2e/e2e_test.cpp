// The kiv binary as an operator or a factory script sees it: command lines, what they print, and
// what is left in the state directory for the next run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/e2e/program_runner.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Lines = std::vector<std::string>;

// Values of the mask of what is printed: all but traces, and nothing but help texts.
constexpr const char* kNoTraces = "296";
constexpr const char* kHelpOnly = "256";

// In expected lines: the help of a category as a whole.
constexpr const char* kHelp3 = "<help 3>";
constexpr const char* kHelp4 = "<help 4>";
constexpr const char* kTooFewParameters =
    "note: Too few parameters, Pls refer to the following cmd:";
constexpr const char* kInvalidCommand =
    "note: the second parameters is invalid, Pls refer to the following cmd:";
constexpr const char* kRequestFailed = "tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS";

std::string golden(const std::string& name) {
  std::string text = read_file_text(std::string(KIV_GOLDEN_DIR) + "/" + name);
  EXPECT_FALSE(text.empty()) << name;
  return text;
}

Lines split(std::string_view text) {
  Lines lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

// The lines without the place of the statement that printed them.
Lines messages(std::string_view text) {
  Lines lines = split(text);
  for (std::string& line : lines) line = message_of(line);
  return lines;
}

Lines with_help(const Lines& lines) {
  Lines all;
  for (const std::string& line : lines) {
    const Lines more = line.starts_with("<help ")
                           ? split(golden("help_" + line.substr(6, 1) + ".txt"))
                           : Lines{line};
    all.insert(all.end(), more.begin(), more.end());
  }
  return all;
}

std::string error_note(int code) {
  return "note: Error happen! error_code(" + std::to_string(code) + ")";
}

// `lines`, then the bytes as a read prints them.
Lines with_bytes(Lines lines, const std::vector<int>& bytes) {
  for (const int byte : bytes) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    lines.push_back(
        {' ', kDigits[static_cast<size_t>(byte / 16)], kDigits[static_cast<size_t>(byte % 16)]});
  }
  lines.emplace_back();
  return lines;
}

Lines dump(const std::vector<int>& bytes) {
  return with_bytes({"data len(" + std::to_string(bytes.size()) + ")", "data: "}, bytes);
}

class KivTest : public StateDirectoryTest {
 protected:
  void set_print_mask(const std::string& mask) const {
    write_state_file_text("properties", "persist.vendor.radio.adb_log_shell=" + mask + "\n");
  }

  // Runs kiv, or with a `time_factor` the kiv whose time runs that much faster. Whatever happened
  // to the command, kiv ends in time and with status 0.
  ProgramRun run_kiv(const Lines& arguments, int time_factor = 0) const {
    const char* other_kiv = getenv("KIV_BINARY");
    const char* kiv = other_kiv != nullptr ? other_kiv : KIV_BINARY;
    ProgramRun run = run_program(
        time_factor == 0 ? kiv : KIV_TIME_LAPSE_BINARY, arguments,
        {"KIV_STATE_DIR=" + state_dir(), "KIV_TIME_FACTOR=" + std::to_string(time_factor)});
    EXPECT_FALSE(run.timed_out);
    EXPECT_EQ(run.exit_status, 0) << run.standard_error;
    return run;
  }
};

enum class Match {
  kWhole,       // these lines and no others
  kInSequence,  // in this order among others, each a part of its line
};

struct Step {
  Lines arguments;
  Lines printed{};
};

struct Scenario {
  std::string name;
  std::vector<Step> steps;
  std::vector<std::pair<std::string, std::string>> files_before{};
  std::vector<std::pair<std::string, std::string>> files_after{};
  Match match = Match::kWhole;
  int time_factor = 0;
  std::string standard_error{};
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

class Commands : public KivTest, public ::testing::WithParamInterface<Scenario> {};

void expect_in_sequence(const Lines& printed, const Lines& expected) {
  auto next = printed.begin();
  for (const std::string& text : expected) {
    next = std::find_if(next, printed.end(), [&text](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
    ASSERT_NE(next, printed.end()) << "not printed (in this order): " << text;
    ++next;
  }
}

TEST_P(Commands, PrintAndLeave) {
  const Scenario& scenario = GetParam();
  set_print_mask(kNoTraces);
  for (const auto& [name, content] : scenario.files_before) write_state_file_text(name, content);
  for (const Step& step : scenario.steps) {
    SCOPED_TRACE("kiv " + ::testing::PrintToString(step.arguments));
    const ProgramRun run = run_kiv(step.arguments, scenario.time_factor);
    if (scenario.match == Match::kWhole) {
      EXPECT_EQ(messages(run.standard_output), with_help(step.printed));
    } else {
      expect_in_sequence(messages(run.standard_output), with_help(step.printed));
    }
    EXPECT_EQ(run.standard_error, scenario.standard_error);
  }
  for (const auto& [name, content] : scenario.files_after) {
    EXPECT_EQ(read_state_file_text(name), content) << name;
  }
}

Lines failed(int code) {
  return {kRequestFailed, error_note(code), kHelp4};
}

Lines failed_after(const std::string& error, int code) {
  return {error, kRequestFailed, error_note(code), kHelp4};
}

// argv of a write of `count` bytes, all of the same value.
Lines write_many(Lines arguments, size_t count, const std::string& value) {
  arguments.insert(arguments.end(), count, value);
  return arguments;
}

const Lines kReadNv550{"4", "1", "0", "550"};
const Lines kReadFile{"4", "4", "0", "/nv/item_files/x"};

const Scenario kCommands[] = {
    {.name = "Unsupported",
     .steps = {{{"1"}, {"Not support"}}, {{"2", "1", "2"}, {"Not support"}}}},
    {.name = "NvKeepsWhatWasWritten",
     .steps = {{{"4", "2", "0", "550", "1", "2", "255", "256"}},
               {kReadNv550, dump({1, 2, 255, 0})},
               {{"4", "2", "0", "550", "7"}},
               {kReadNv550, dump({7})}},
     .files_after = {{"nv/0/550", "\x07"}}},
    {.name = "AnySubscriptionButZeroIsTheSecond",
     .steps = {{{"4", "2", "1", "7232", "16"}},
               {{"4", "2", "zero", "7232", "171", "-1"}},
               {{"4", "1", "7", "7232"}, dump({0x10})},
               {{"4", "1", "0", "7232"}, dump({0xAB, 0xFF})}}},
    {.name = "NvDeletedIsGone",
     .steps = {{{"4", "3", "0", "550"}}, {kReadNv550, {kRequestFailed, "error_code(", kHelp4}}},
     .match = Match::kInSequence},
    {.name = "NvIdOutOfRange",
     .steps = {{{"4", "1", "0", "7233"}, failed(-109)},
               {{"4", "2", "0", "-1", "1"}, failed(-109)},
               {{"4", "3", "0", "7233"}, failed(-109)}}},
    {.name = "EfsKeepsWhatWasWritten",
     .steps = {{{"4", "5", "0", "/nv/item_files/x", "0", "10", "200"}},
               {kReadFile, dump({0, 10, 200})}},
     .files_after = {{"efs/0/nv/item_files/x", std::string("\0\n\xC8", 3)}}},
    {.name = "EfsDeletedIsGone",
     .steps = {{{"4", "5", "0", "/nv/item_files/x", "1"}},
               {{"4", "6", "0", "/nv/item_files/x"}},
               {kReadFile, {kRequestFailed, "error_code(", kHelp4}}},
     .match = Match::kInSequence},
    {.name = "EfsFileThatFillsTheBufferIsReportedByItsLength",
     .steps = {{write_many({"4", "5", "0", "/nv/item_files/x"}, 400, "65")},
               {kReadFile, failed(365)},
               {{"4", "4", "0", "/big"}, failed(5000)}},
     .files_before = {{"efs/0/big", std::string(5000, 'b')}},
     .files_after = {{"efs/0/nv/item_files/x", std::string(365, 'A')}}},
    {.name = "EfsPathsStayInTheirFolder",
     .steps = {{{"4", "5", "0", "/../../../out", "1"}, {kRequestFailed, "error_code(", kHelp4}},
               {{"4", "4", "0", "../../properties"}, {kRequestFailed, "error_code(", kHelp4}},
               {{"4", "6", "0", "../../properties"}, {kRequestFailed, "error_code(", kHelp4}}},
     .files_after = {{"properties", "persist.vendor.radio.adb_log_shell=296\n"}, {"../out", ""}},
     .match = Match::kInSequence},
    {.name = "EfsPathLengths",
     .steps = {{{"4", "5", "0", std::string(99, 'p'), "1"}},
               {{"4", "4", "0", std::string(99, 'p')}, dump({1})},
               {{"4", "5", "0", std::string(100, 'p'), "1"}, failed(-106)},
               {{"4", "4", "0", std::string(101, 'p')}, failed(-106)},
               {{"4", "6", "0", ""}, failed(-106)}}},
    {.name = "TooFewParameters", .steps = {{{"4"}, {kTooFewParameters, kHelp4}}}},
    {.name = "InvalidCommand",
     .steps = {{{"4", "0"}, {kInvalidCommand, kHelp4}},
               {{"4", "7", "0", "550"}, {kInvalidCommand, kHelp4}},
               {{"4", "x"}, {kInvalidCommand, kHelp4}}}},
    {.name = "WrongNumberOfInputs",
     .steps =
         {{{"4", "1", "0"},
           {"note: need 5 inputs, Pls refer to the following cmd:", error_note(268431370), kHelp4}},
          {{"4", "6", "0", "/a", "/b"},
           {"note: need 5 inputs, Pls refer to the following cmd:", error_note(268431370), kHelp4}},
          {{"4", "2", "0", "550"},
           {"note: Too few inputs, Pls refer to the following cmd:", error_note(268431370),
            kHelp4}}}},
    {.name = "RfSettingsAreKeptUntilTheyAreClosed",
     .steps = {{{"3", "3", "1", "4", "0x3"},
                {"tervik_rf_tx_test_set, argc(6)", " v_ant(1)", " v_sys(4)", " v_band_list(3)"}},
               {{"3", "4"},
                with_bytes({"tervik_rf_tx_test_get", "data len(16)", "data: "},
                           {1, 0, 0, 0, 4, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0})},
               {{"3", "5"}, {"tervik_rf_tx_test_closed"}},
               {{"3", "4"}, {"tervik_rf_tx_test_get", kRequestFailed, error_note(2), kHelp3}},
               {{"3", "0", "-1"}, {"tervik_gpio_test_set", "tervik_gpio_test_set, gpio_v[0]: -1"}},
               {{"3", "1"},
                with_bytes({"tervik_gpio_test_get", "data len(8)data: "},
                           {1, 0, 0, 0, 255, 255, 255, 255})},
               {{"3", "2"}, {"tervik_gpio_test_closed"}}}},
    {.name = "RestartsAreCountedAndTheRestartTypeIsPutBack",
     .steps = {{{"11", "0"}, {"Will trigger SSR of modem"}},
               {{"11", "0"}, {"Will trigger SSR of modem"}},
               {{"11", "10"}, {"Will trigger Crash of modem"}},
               {{"11", "1"}, {"Will trigger Full dump of modem"}}},
     .files_before = {{"properties",
                       "persist.vendor.radio.adb_log_shell=296\n"
                       "persist.radio.ssr_wait_s=0\n"
                       "persist.vendor.ssr.restart_level=x\n"}},
     .files_after = {{"properties",
                      "persist.vendor.radio.adb_log_shell=296\n"
                      "persist.radio.ssr_wait_s=0\n"
                      "persist.vendor.ssr.restart_level=ALL_DISABLE\n"
                      "persist.radio.ssr_count_0x80000010=2\n"
                      "persist.vendor.ssr.type_bak=x\n"
                      "persist.vendor.ssr.type_bak_flag=yes\n"
                      "persist.radio.ssr_count_0x80000011=1\n"
                      "persist.radio.ssr_count_0x80000012=1\n"}}},
    {.name = "PrintSwitchLeavesItsFileAndRestartsTheModem",
     .steps = {{{"11", "6", "1"},
                {"bp_rf_print, opt = 1", "Will trigger NV SYNC", "Will trigger SSR of modem",
                 "success, pls wait 10 seconds "}}},
     .files_after = {{"efs/0/oem/debug/rf_print_mask", std::string("\x0F\0\0\0", 4)}}},
    {.name = "RawRequestShowsTheAnswer",
     .steps = {{{"6", "4", "0x02", "0", "0", "0", "0", "0", "0", "0", "73"},
                {"tk_qmi req data(qmi_id: 4, len: 9[max: 500]):", "0x02 ", "0x49 ",
                 "qmi_id = 4, result = 0", "tk_qmi rsp data(qmi_id: 4, len: 500[max: 500]):", " 49",
                 " 00"}}},
     .match = Match::kInSequence},
    {.name = "TimerTestEndsWithItsTimer",
     .steps = {{{"11", "8", "20"},
                {"Timer test start, timeout_s = 20", "Start one timer(timer_id 501)",
                 "Timer test done"}}},
     .match = Match::kInSequence,
     .time_factor = 1000},
    {.name = "ModemThatIsDown",
     .steps = {{kReadNv550, {"QMI client init failed", kRequestFailed, error_note(-102), kHelp4}}},
     .files_before = {{"modem.conf", "fault.extension = down\n"}},
     .match = Match::kInSequence,
     .time_factor = 100},
    {.name = "ModemThatIsSilent",
     .steps = {{kReadNv550, failed_after("send msg sync failed: -3, id: 2", -103)},
               {{"4", "5", "0", "/x", "1"}, failed_after("send msg sync failed: -3, id: 2", -103)}},
     .files_before = {{"modem.conf", "fault.extension = silent\n"}},
     .match = Match::kInSequence,
     .time_factor = 100},
    {.name = "TransportError",
     .steps = {{kReadNv550, failed_after("send msg sync failed: -14, id: 2", -103)}},
     .files_before = {{"modem.conf", "fault.extension = error:-14\n"}}},
    {.name = "ServiceError",
     .steps = {{kReadNv550, failed_after("5 QMI service framework error. Check client", -103)}},
     .files_before = {{"modem.conf", "fault.extension = result:5\n"}}},
    {.name = "RequestError",
     .steps = {{kReadNv550, failed(9)}, {{"4", "3", "0", "550"}, failed(9)}},
     .files_before = {{"modem.conf", "extension.rsp_result = 9\n"}}},
    {.name = "BadLineOfModemConfIsNamedAndTheRestCounts",
     .steps = {{kReadNv550, failed(9)}},
     .files_before = {{"modem.conf",
                       "# what is wrong with it\nfault.extensio = down\n"
                       "extension.rsp_result = 9\n"}},
     .standard_error = "modem.conf:2: unknown key \"fault.extensio\"\n"},
};

INSTANTIATE_TEST_SUITE_P(Kiv, Commands, ::testing::ValuesIn(kCommands),
                         [](const auto& each) { return each.param.name; });

TEST_F(KivTest, PrintsEveryStatementWithItsPlaceByDefault) {
  const ProgramRun run = run_kiv({"1"});
  const Lines lines = split(run.standard_output);
  const auto identity = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.find("TERVIK_MANUFACTURER_ID is") != std::string::npos;
  });
  ASSERT_NE(identity, lines.end());
  EXPECT_TRUE(identity->starts_with("RIL[tervik_utils_cmn.cpp:")) << *identity;
  EXPECT_TRUE(
      identity->ends_with("] tervik_modem_check_odm_white_list: TERVIK_MANUFACTURER_ID is "
                          "TERVIK_MANUFACTURER_ID_TERVIK(1), p_id: " +
                          std::to_string(run.pid) + ", p_name: kiv"))
      << *identity;
  EXPECT_EQ(message_of(lines.back()), "Not support");
  EXPECT_EQ(run.standard_error, "");
}

TEST_F(KivTest, PrintsNothingWithAnEmptyMask) {
  for (const char* mask : {"0", "none"}) {
    set_print_mask(mask);
    for (const Lines& arguments : {Lines{}, Lines{"1"}, Lines{"4"}, kReadNv550}) {
      EXPECT_EQ(run_kiv(arguments).standard_output, "") << ::testing::PrintToString(arguments);
    }
  }
}

TEST_F(KivTest, PrintsTheWholeHelpWhenThereIsNoSuchCategory) {
  for (const char* mask : {kHelpOnly, kNoTraces}) {
    set_print_mask(mask);
    for (const Lines& arguments :
         {Lines{}, Lines{"0"}, Lines{"13"}, Lines{"abc"}, Lines{"-4", "1", "0", "550"}}) {
      EXPECT_EQ(run_kiv(arguments).standard_output, golden("help_all.txt"))
          << ::testing::PrintToString(arguments);
    }
  }
}

class CategoryHelp : public KivTest, public ::testing::WithParamInterface<int> {};

TEST_P(CategoryHelp, FollowsACommandLineWithoutCommand) {
  const std::string category = std::to_string(GetParam());
  set_print_mask(kHelpOnly);
  std::string printed;
  for (const std::string& line : split(run_kiv({category}).standard_output)) {
    // A category that sets the mask by itself prints its note as well.
    if (!line.starts_with("RIL[")) printed += line + "\n";
  }
  EXPECT_EQ(printed, golden("help_" + category + ".txt"));
}

INSTANTIATE_TEST_SUITE_P(Kiv, CategoryHelp, ::testing::Values(3, 4, 6, 8, 11));

}  // namespace
}  // namespace kiv::test
