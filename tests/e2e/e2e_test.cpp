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
constexpr const char* kHelp5 = "<help 5>";
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
                           ? split(golden("help_" + line.substr(6, line.size() - 7) + ".txt"))
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

constexpr const char* kEid = "eID=89001017000000000000000000000163";
constexpr const char* kGood = "value=SUCCEED";
constexpr const char* kBad = "value=FAILED";
constexpr const char* kBothPresent = "PRESENT,PRESENT";

// The eSIM cases from 1 on, without log: each prints one line and nothing else. Empty stands for no
// stored EID.
Scenario esim(const std::string& name, const std::string& conf, const Lines& results,
              const std::string& eid_before = "", const std::string& eid_after = "") {
  const std::string eid_file = "efs/1/nv/item_files/modem/uim/uimdrv/esim_eid";
  Scenario scenario{.name = name, .steps = {}, .files_before = {{"modem.conf", conf}}};
  if (!eid_before.empty()) scenario.files_before.emplace_back(eid_file, eid_before);
  scenario.files_after.emplace_back(eid_file, eid_after);
  for (const std::string& result : results) {
    const std::string number = std::to_string(scenario.steps.size() + 1);
    scenario.steps.push_back({{"5", "10", number, "0"}, {result}});
  }
  scenario.time_factor = 1000;
  return scenario;
}

// A command of category 5 that prints `lines`, then when it fails the code and the help.
Step common_step(std::string arguments, Lines lines, int code = 0) {
  std::replace(arguments.begin(), arguments.end(), ' ', '\n');
  if (code != 0) lines.insert(lines.end(), {error_note(code), kHelp5});
  return {split("5\n" + arguments), lines};
}

Step diag_step(const std::string& mode_and_type, const std::string& name, const Lines& lines,
               int code = 0) {
  Lines all{"work_mode: " + mode_and_type.substr(0, 1) + ", io_type: " + mode_and_type.substr(2) +
                ", wait_time_ms: 900",
            "diag cmd:", "0x4B 0x2C ", name};
  all.insert(all.end(), lines.begin(), lines.end());
  return common_step("0 " + mode_and_type + " 900 0x4B 300", all, code);
}

// `answer` is what the modem answered: type, length and data of a common message.
Step card_step(const std::string& arguments, Lines lines, const std::string& request,
               const std::string& answer) {
  lines[0] = "tervik_cmn_card_" + lines[0];
  lines.insert(lines.end(),
               {"tervik_cmn_cmd_send, t: " + request, "result = 0, rsp.result = 0",
                "data len(" + std::to_string(answer.size() / 3) + ")", "data:" + answer});
  return common_step(arguments, lines);
}

constexpr int kInvalidInput = 268431370;

const Lines kReadNv550{"4", "1", "0", "550"};
const Lines kReadFile{"4", "4", "0", "/nv/item_files/x"};

Step stats_step(const std::string& arguments, const std::string& line) {
  const size_t blank = arguments.find(' ');
  return {{"9", arguments.substr(0, blank), arguments.substr(blank + 1)}, {line}};
}

// A failed query of antenna state and Tx power, and of a carrier.
std::vector<Step> stats_failures() {
  return {
      {{"9", "30", "1"}, {"modem_lyrax_data_get failed", "modem_lyrax_mcs_trm_asdiv_get failed"}},
      {{"9", "31", "5"}, {"rat(-1) is invalid", "rat(-1) is invalid", "TX INFO: tx_power = 65535"}},
      {{"9", "4", "0"}, {"modem_lyrax_data_get failed", "get lyrax data failed"}}};
}

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
    esim("EsimHealthy", "", {kEid, kGood, kEid, kBothPresent, kGood, kBad}, "",
         std::string("\x89\0\x10\x17\0\0\0\0\0\0\0\0\0\0\1\x63", 16)),
    esim("EsimStoredBefore", "uim.reset = fail", {kEid, kGood, kEid, kBothPresent, kBad}, "old",
         "old"),
    esim("EsimNeverReported", "eid = none\ncard.0 = error",
         {kBad, kGood, kBad, "ERROR,PRESENT", kGood}),
    esim("EsimWithWrongCheckDigits",
         "eid = 89001017000000000000000000000164\ncard.1 = absent\nuim.open_channel = fail",
         {"value=FAILED - 89001017000000000000000000000164", kGood,
          "eID=89001017000000000000000000000164", "PRESENT,ABSENT", kBad}),
    esim("EsimServiceDown", "fault.uim = down", Lines(5, kBad)),
    esim("EsimServiceSilent", "fault.uim = silent", Lines(5, kBad)),
    esim("EsimServiceLost", "fault.uim = error:-2", Lines(5, kBad)),
    esim("EsimRequestsRefused", "fault.uim = result:1",
         {kBad, kGood, kBad, "UNKNOWN,UNKNOWN", kBad}),
    esim("EsimHardwareUnknown", "fault.extension = down", {kBad}),
    {.name = "EsimHardware",
     .steps = {common_step("10 1 0", {kBad}), common_step("10 6 1", {kBad}),
               common_step("10 1", {"invalid input"}, -1)},
     .files_before = {{"nv/0/6853", std::string(16, '\1') + std::string(108, '\0')}}},
    {.name = "EsimWithLog",
     .steps = {common_step("10 1 1", {"hw support esim", "switch to eSIM", "type value is 3",
                                      "get eid loop = 29", "get eid timeout", kBad}),
               common_step("10 2 1", {"switch to SIM2", "value is 1", "value is 1",
                                      "SIM2 Power Up successfully", kGood}),
               common_step("10 4 1", {"card_status, [1, 1]", "map_sim_state ...", kBothPresent}),
               common_step("10 5 1", {"res = 0, channel_id = 1", "apdu=08bf34038001009000",
                                      "tervik_uim_close_channel res = 0", kGood}),
               common_step("10 5 1", {"apdu=08bf34038001019000", "nothing to delete", kGood}),
               common_step("10 6 1", {"invalid input skip", kBad})},
     .files_before = {{"properties", ""},
                      {"modem.conf", "eid = none"},
                      {"nv/0/6853", std::string(16, '\0') + '\2' + std::string(107, '\0')}},
     .match = Match::kInSequence,
     .time_factor = 1000},
    {.name = "DiagCommandsInFourTransports",
     .steps = {diag_step("0 0", "callback mode with result",
                         {"rsp data len(2)", "rsp data: 0x4B 0x2C"}),
               diag_step("7 0", "dci mode with result", {"rsp data len(2)", "rsp data: 0x4B 0x2C"}),
               diag_step("0 1", "callback mode without result", {"done without rsp data"}),
               diag_step("1 -1", "dci mode without result", {"done without rsp data"}),
               common_step("0 0 0 900", {"note: Too few inputs, Pls refer to the following cmd:"},
                           kInvalidInput)}},
    {.name = "DiagCommandWithoutAnswer",
     .steps = {diag_step("1 0", "dci mode with result", {"tervik_diag_cmd_send fail"}, 1)},
     .files_before = {{"modem.conf", "fault.diag = silent"}},
     .time_factor = 100},
    {.name = "CardCommands",
     .steps = {card_step("1", {"status_query", "param(cnt: 0):"}, "39, l: 0",
                         " 27 00 00 00 08 00 00 00 01 00 00 00 00 00 00 00"),
               card_step("2 -7", {"status_get", "param(cnt: 1): 1"}, "55, l: 4",
                         " 37 00 00 00 04 00 00 00 00 00 00 00"),
               card_step("3 0 2 1", {"status_set", "param(cnt: 3): 0 1 1"}, "57, l: 12",
                         " 39 00 00 00 00 00 00 00"),
               card_step("4", {"type_query", "param(cnt: 0):"}, "56, l: 0",
                         " 38 00 00 00 04 00 00 00 02 00 00 00"),
               card_step("6 1 5 -5 7", {"hotswap_test", "opt: 1", "param(cnt: 4): 1 5 -5 7"},
                         "80, l: 16", " 50 00 00 00 00 00 00 00"),
               card_step("6 0 5", {"hotswap_test", "opt: 0"}, "80, l: 4",
                         " 50 00 00 00 00 00 00 00"),
               common_step("2 1 0",
                           {"tervik_cmn_card_status_get",
                            "note: need 4 inputs, Pls refer to the following cmd:"},
                           kInvalidInput),
               common_step("6 1 5 5",
                           {"tervik_cmn_card_hotswap_test", "opt: 1",
                            "note: need 7 inputs, Pls refer to the following cmd:"},
                           kInvalidInput),
               common_step("6",
                           {"tervik_cmn_card_hotswap_test",
                            "note: need 4 inputs at least, Pls refer to the following cmd:"},
                           kInvalidInput),
               common_step("9", {kInvalidCommand, kHelp5})},
     .files_before = {{"modem.conf", "card.1 = error"}}},
    {.name = "SarIndexAndDeviceStates",
     .steps = {common_step("5", {"JUDGE SAR DSI: 7", "Modem SAR DSI: 0"}),
               common_step("7 20", {"SAR DSI(to be set): 20, the setting result: 0"}),
               common_step("5", {"JUDGE SAR DSI: 7", "Modem SAR DSI: 20"}),
               common_step("7", {kTooFewParameters}, kInvalidInput),
               common_step(
                   "8", {"[0]WIFI_STATE: 0", "[2]MODEM_STATE: -1", "[18]GRAVITY_Y_AXES_STATE: 5"})},
     .files_before = {{"properties",
                       "persist.vendor.radio.adb_log_shell=296\n"
                       "debug.device.gravity_y_axes_state=5\ndebug.device.modem_state=-1\n"
                       "debug.device.wifi_state=0\ndebug.device.usb_state=-255\n"
                       "debug.modem.sar.judge_dsi=7\n"}}},
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
    {.name = "Statistics",
     .steps =
         {stats_step(
              "0 0",
              "ASDIV DATA: earfcn: 1300, pci: 101, rx_valid: 15, rsrp_rx0: -84.50, rsrq_rx0: -9.25, rssi_rx0: -55.75, snr_rx0: 18.50, rsrp_rx1: -85.50, rsrq_rx1: -9.50, rssi_rx1: -56.75, snr_rx1: 18.00, rsrp_rx2: -86.50, rsrq_rx2: -9.75, rssi_rx2: -57.75, snr_rx2: 17.50, rsrp_rx3: -87.50, rsrq_rx3: -10.00, rssi_rx3: -58.75, snr_rx3: 17.00"),
          stats_step("1 0", "earfcn: 1400, pci: 102, rx_valid: 15, rsrp_rx0: -86.50, "),
          stats_step("2 0", "earfcn: 1500, pci: 103, rx_valid: 15, rsrp_rx0: -88.50, "),
          stats_step("3 0", "earfcn: 1600, pci: 104, rx_valid: 15, rsrp_rx0: -90.50, "),
          stats_step("4 0", "earfcn: 1700, pci: 105, rx_valid: 15, rsrp_rx0: -92.50, "),
          stats_step("5 0", "earfcn: 1800, pci: 106, rx_valid: 15, rsrp_rx0: -94.50, "),
          stats_step("6 0", "earfcn: 1900, pci: 107, rx_valid: 15, rsrp_rx0: -96.50, "),
          stats_step(
              "7 1",
              "ASDIV DATA: rssi_rx0: -61.50, rssi_rx1: -62.75, rssi_rx2: -64.00, rssi_rx3: -65.25"),
          stats_step("8 1",
                     "ASDIV DATA: snr_rx0: 21.25, snr_rx1: 20.00, snr_rx2: 18.75, snr_rx3: 17.50"),
          stats_step(
              "9 1",
              "ASDIV DATA: ant_rx_0_old = 0, ant_rx_0_new = 4, ant_rx_1_old = 1, ant_rx_1_new = 5, ant_rx_2_old = 2, ant_rx_2_new = 6, ant_rx_3_old = 3, ant_rx_3_new = 7, ant_tx_0_old = 8, ant_tx_0_new = 10, ant_tx_1_old = 9, ant_tx_1_new = 11"),
          stats_step(
              "10 1",
              "ASDIV DATA: rsrp_rx0: -88.25, rsrp_rx1: -89.25, rsrp_rx2: -90.25, rsrp_rx3: -91.25, rsrq: -10.75"),
          stats_step("11 1", "rsrp_rx3: -93.25, rsrq: -11.25"),
          stats_step("12 1", "rsrp_rx3: -95.25, rsrq: -11.75"),
          stats_step("20 0", "ASDIV DATA: rx_agc_0: -72.50, rx_agc_1: -75.25"),
          stats_step("21 0", "ASDIV DATA: rx_prx: -68.75, rx_drx: -71.50"),
          stats_step(
              "30 1",
              "ANT INFO: ant_num: 4, ant_path: 2, sig_path: 5, old_config: 0, new_config: 1"),
          stats_step("31 0", "TX INFO: tx_power = 12"),
          stats_step("31 1", "TX INFO: tx_power = 18"),
          stats_step("31 2", "TX INFO: tx_power = 12"),
          stats_step("31 -1", "TX INFO: tx_power = 18"),
          stats_step("7 0", "modem_lyrax_nr5g_ll1_fw_rx_control_agc_get failed"),
          stats_step("13 0", "tervik_test_qmi_modem_stats_hdl: Unknown opt(13), sub(0)")},
     .match = Match::kInSequence},
    {.name = "StatisticsServiceThatIsDown",
     .steps = stats_failures(),
     .files_before = {{"modem.conf", "fault.vs = down\n"}},
     .match = Match::kInSequence,
     .time_factor = 1000},
    {.name = "StatisticsServiceThatIsSilent",
     .steps = stats_failures(),
     .files_before = {{"modem.conf", "fault.vs = silent\n"}},
     .match = Match::kInSequence,
     .time_factor = 1000},
    {.name = "StatisticsServiceThatFails",
     .steps = stats_failures(),
     .files_before = {{"modem.conf", "fault.vs = error:-1\n"}},
     .match = Match::kInSequence},
    {.name = "NetworkScans",
     .steps = {{{"12", "0", "anything"},
                {"tervik_send_nas_perform_network_scan_req_msg_v01, scan_scope = 0"}},
               {{"12", "1"},
                {"tervik_send_nas_perform_incremental_network_scan_req_msg_v01, scan_scope = 0"}},
               {{"12", "2"}, {kInvalidCommand, "<help 12>"}}}},
    {.name = "NetworkScanThatFails",
     .steps = {{{"12", "0"},
                {"tervik_send_nas_perform_network_scan_req_msg_v01, scan_scope = 0",
                 "qmi_client_send_msg_sync fail, qmi_client_error = -1", error_note(-1),
                 "<help 12>"}}},
     .files_before = {{"modem.conf", "fault.nas = down\n"}},
     .time_factor = 1000},
    {.name = "ReactivationKeepsTheConfigurationUnlessItsIndicationsAreDropped",
     .steps = {{{"10", "0", "3"}, {"pdc_info init done"}},
               {{"10", "1", "3"}, {"pdc_info init done"}},
               {{"10", "7", "1"}, {"invalid mbn_i = 7", "<help 10>"}},
               {{"10", "0"}, {kTooFewParameters, "<help 10>"}},
               {{"10", "30", "1"}},
               {{"10", "1", "1"},
                {"NOTICE!!! PROPERTY_DEBUG_ALL_PDC_NO_RSP_COUNT(1) is running",
                 "SUB_0 pdc_get_current_config_ex fail"}}},
     .files_before = {{"modem.conf", "pdc.active.1 = 4142\n"}},
     .files_after = {{"pdc/1/active", "AB"}},
     .match = Match::kInSequence,
     .time_factor = 20},
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

TEST_F(KivTest, EsimCasesCloseTheLog) {
  for (const char* number : {"1", "2", "3", "4", "5", "6"}) {
    const Lines lines = messages(run_kiv({"5", "10", number, "0"}).standard_output);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(lines[lines.size() - 2].starts_with("TERVIK_MANUFACTURER_ID is")) << number;
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

INSTANTIATE_TEST_SUITE_P(Kiv, CategoryHelp, ::testing::Values(3, 4, 5, 6, 7, 8, 9, 10, 11, 12));

}  // namespace
}  // namespace kiv::test
