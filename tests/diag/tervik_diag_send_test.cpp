#include "tervik_diag_send.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

#include "platform/diag/diag_library.h"
#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::DiagAnswer;
using platform::DiagFaults;
using std::chrono::milliseconds;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

enum Mode { kCallback, kDci };
constexpr unsigned (*kSends[])(const uint8_t*, int, int, uint8_t*, int*) = {
    tervik_diag_cmd_send_with_result_by_callback_mode,
    tervik_diag_cmd_send_with_result_by_dci_mode};
constexpr auto kStart = tervik_diag_cmd_send_without_result_start_thread;
constexpr auto kLate = 30000ms;
constexpr int kLong = 60000;

Bytes response_of(size_t size, uint8_t first = 1) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(first + i * 7 + i / 256);
  return bytes;
}

auto count_starting(const Strings& lines, const std::string& begin) {
  return std::count_if(lines.begin(), lines.end(),
                       [&begin](const std::string& line) { return line.starts_with(begin); });
}

// Waits until `count` workers have ended.
void wait_for_end(const LogCapture& log, int count) {
  const auto ended = [&log] {
    return count_starting(log.messages_from("_mode_thread_proc:"), "function exit");
  };
  for (const auto give_up = Clock::now() + 10min; ended() < count && Clock::now() < give_up;) {
    std::this_thread::yield();
  }
  EXPECT_EQ(ended(), count);
}

class DiagSend : public StateDirectoryTest {
 protected:
  struct Reply {
    unsigned result;
    Bytes bytes;
  };

  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
    g_qcril_diag_rsp_buf = {};
  }
  // Whatever a send met, it leaves the library closed.
  void TearDown() override {
    EXPECT_EQ(g_diag_init_status, 0);
    EXPECT_EQ(g_diag_wait_cnt_limit, 30);
    EXPECT_FALSE(Diag_LSM_DeInit());
    platform::reset_diag_library();
    StateDirectoryTest::TearDown();
  }

  static void answer_with(std::vector<DiagAnswer> answers, platform::DiagModem modem = {}) {
    modem.processor = [answers](auto) { return answers; };
    platform::set_diag_modem(std::move(modem));
  }

  // Nothing is written behind the capacity.
  static Reply send(Mode mode, int time_out, size_t capacity = 10240, Bytes command = {0x4B, 4}) {
    Bytes buffer(capacity + 1, 0xEE);
    auto length = static_cast<int>(capacity);
    const unsigned result = kSends[mode](command.data(), static_cast<int>(command.size()), time_out,
                                         buffer.data(), &length);
    EXPECT_EQ(buffer.back(), 0xEE);
    return {result, {buffer.begin(), buffer.begin() + length}};
  }
};

TEST_F(DiagSend, ResponseTimeOutOrRefusalEndsTheWait) {
  const char* const whole = "stop waiting, receive success, length is times of 4096";
  const char* const expired = "stop waiting";
  const struct {
    Mode mode;
    size_t size;
    std::vector<milliseconds> delays;  // of the answers
    size_t capacity;
    unsigned result;
    size_t length;
    std::string line;  // with "stop", the send waits for the whole second of its time-out
  } rows[] = {
      {kCallback, 1, {0ms}, 10240, 0, 1, "callback, cmd_code = 0x01, data_size = 1"},
      {kCallback, 300, {10ms}, 100, 0, 100, "callback, cmd_code = 0x01, data_size = 300"},
      {kCallback, 4095, {0ms}, 10240, 0, 4095, "response from 0[MSM], len = 4095"},
      {kCallback, 4096, {0ms}, 4096, 0, 4096, "data hex show, len(4096), data: 01 08"},
      {kCallback, 4097, {0ms}, 4096, 0, 4096, "print_data_with_hex, invalid data len(4097)"},
      {kCallback, 8192, {0ms}, 10240, 0, 8192, "data_size = 8192"},
      {kCallback, 10240, {0ms, 0ms}, 10240, 0, 10240, "data_size = 10240"},
      {kCallback, 10241, {0ms}, 10240, 1, 0, expired},
      {kCallback, 0, {0ms}, 10240, 1, 0, expired},
      {kCallback, 20, {kLate}, 10240, 1, 0, expired},
      {kCallback, 20, {}, 1, 1, 0, expired},
      {kDci, 1, {0ms, kLate}, 10240, 0, 1, "response, cmd_code = 0x01, data_size = 1"},
      {kDci, 4095, {10ms}, 100, 0, 100, "context_data is null"},
      {kDci, 4096, {0ms}, 10240, 0, 4096, whole},
      {kDci, 4097, {0ms}, 10240, 0, 4097, "data_size = 4097"},
      {kDci, 8192, {0ms}, 8191, 0, 8191, whole},
      {kDci, 10240, {0ms}, 10240, 0, 10240, "data_size = 10240"},
      {kDci, 10241, {0ms}, 10240, 0, 10240, "data_size = 10241"},
      {kDci, 12000, {0ms}, 20000, 0, 12000, "response from -1[Unknown], len = 3808"},
      {kDci, 0, {0ms}, 10240, 1, 0, expired},
      {kDci, 20, {kLate}, 10240, 1, 0, expired},
      {kDci, 20, {}, 10240, 1, 0, expired},
  };
  const TimeLapse lapse(200);
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << &row - rows);
    g_qcril_diag_rsp_buf = {};
    Bytes response = response_of(row.size);
    std::vector<DiagAnswer> answers;
    for (const auto delay : row.delays) answers.push_back({.bytes = response, .delay = delay});
    answer_with(answers);
    const bool waits = row.line.starts_with(expired);
    const LogCapture log;
    const auto begin = Clock::now();
    const Reply reply = send(row.mode, waits ? 1000 : kLong, row.capacity);
    const auto took = Clock::now() - begin;
    EXPECT_EQ(reply.result, row.result);
    response.resize(row.length);
    EXPECT_EQ(reply.bytes, response);
    EXPECT_TRUE(log.contains(row.line));
    EXPECT_EQ(log.contains(expired), waits);
    EXPECT_GE(took, waits ? 1000ms : 0ms);
    EXPECT_LT(took, waits ? kLate : milliseconds(kLong));
    const auto ticks =
        count_starting(log.messages(), "tervik_diag_cmd_send_with_result_wait_thread_proc, ");
    EXPECT_TRUE(ticks == 10 || !waits) << ticks;
  }
}

TEST_F(DiagSend, LateResponseReachesNoLaterSend) {
  const TimeLapse lapse(200);
  uint8_t byte = 9;
  for (const Mode mode : {kCallback, kDci}) {
    g_qcril_diag_rsp_buf = {};
    answer_with({{.bytes = response_of(3), .delay = 5000ms}});
    EXPECT_EQ(send(mode, 1000).result, 1u);
    const LogCapture log;
    EXPECT_EQ(tervik_diag_cmd_response_by_callback(&byte, 1, nullptr), 1);
    tervik_diag_cmd_response_by_dci(&byte, 1, nullptr);
    EXPECT_EQ(log.count("late response is dropped, len = 1"), 2u);
    answer_with({{.bytes = response_of(20, 7), .delay = 10000ms}});
    EXPECT_EQ(send(mode, kLong).bytes, response_of(20, 7));
    answer_with({});
    const Reply unanswered = send(mode, 100);
    EXPECT_EQ(unanswered.result, 1u);
    // Callback mode shows the last response once more.
    EXPECT_EQ(unanswered.bytes, mode == kCallback ? response_of(20, 7) : Bytes{});
  }
}

TEST_F(DiagSend, TimeOutsAreTicksWithADefaultInCallbackModeAlone) {
  const TimeLapse lapse(200);
  for (const auto& [mode, time_out, limit] : {std::tuple{kCallback, 0, 30},
                                              {kCallback, -1, 30},
                                              {kCallback, 150, 1},
                                              {kCallback, kLong, 600},
                                              {kCallback, kLong + 1, 30},
                                              {kDci, 0, 0},
                                              {kDci, 150, 1},
                                              {kDci, -250, -2},
                                              {kDci, kLong + 1, 600}}) {
    const bool one_tick = limit <= 1;
    answer_with(one_tick ? std::vector<DiagAnswer>{} : std::vector<DiagAnswer>{{.bytes = {1}}});
    const LogCapture log;
    EXPECT_EQ(send(mode, time_out).result, one_tick ? 1u : 0u);
    const std::string line = "ommand time = " + std::to_string(limit);
    EXPECT_EQ(log.count(mode == kCallback ? "C" + line + " * 100ms" : "Dci C" + line), 1u) << line;
    EXPECT_EQ(log.contains("Time out is invalid, set default"), limit == 30);
    EXPECT_FALSE(one_tick && log.contains("cnt_of_100ms = 2"));
  }
}

TEST_F(DiagSend, WrongCommandsAndReplyBuffersAreRefusedBeforeTheLibraryIsOpened) {
  Bytes bytes(4097, 0xAB);
  uint8_t* const data = bytes.data();
  int one = 1;
  int none = 0;
  const std::string invalid = "Invalid input parameter, data_len = ";
  const std::tuple<uint8_t*, int, uint8_t*, int*, std::string> rows[] = {
      {nullptr, 1, data, &one, "data is null"},
      {data, 0, data, &one, invalid + "0"},
      {data, -1, data, &one, invalid + "-1"},
      {data, 4097, data, &one, invalid + "4097"},
      {data, 4096, nullptr, &one, "reply_buf is null"},
      {data, 4096, data, nullptr, "p_reply_len is null"},
      {data, 4096, data, &none, "Invalid output parameter, reply_len = 0"}};
  std::string dump = "data hex show, len(4096), data: AB";
  for (int i = 1; i < 4096; ++i) dump += " AB";
  for (const auto& [command, length, reply, reply_length, line] : rows) {
    const bool good_command = length == 4096;
    const std::string part = good_command ? "output_check" : "param_check";
    const LogCapture log;
    for (const Mode mode : {kCallback, kDci}) {
      EXPECT_EQ(kSends[mode](command, length, 1000, reply, reply_length), 1u);
      EXPECT_TRUE(good_command || kStart(command, length, mode) == 1u);
    }
    EXPECT_EQ(log.count(line), good_command ? 2u : 4u) << line;
    EXPECT_EQ(log.count(dump), good_command ? 2u : 0u);
    EXPECT_EQ(log.count("tervik_diag_comand_" + part + " fail"), 2u);
    EXPECT_FALSE(log.contains("ret_send") || log.contains("DCI"));
  }
}

TEST_F(DiagSend, FailuresOfTheLibraryEndTheSendAndReleaseWhatWasRegistered) {
  const std::string failed = "err: -7, errno: 5";
  const struct {
    DiagFaults faults;
    std::string line;      // of both DCI sends
    std::string released;  // the release's code
    int ret_send = 0;      // in callback mode
  } rows[] = {
      {{.init = true}, "Could not register with DCI, err: -1, errno: 107 ch:0", "", -1},
      {{.callback_send = -9, .register_dci_client = -7},
       "Could not register with DCI, " + failed + " ch:0",
       "",
       -9},
      {{.register_dci_signal = -7},
       "Could not register signal for DCI Data for ch:0, " + failed,
       "1001"},
      {{.dci_support_list = -7}, "Could not get support list for ch 0, " + failed, "1001"},
      {{.register_dci_stream = -7}, "Unable to register DCI stream for ch:0, " + failed, "1001"},
      {{.dci_send = 9}, "Error sending SEND_REQUEST_ASYNC to peripheral 2 for ch:0", "1001"},
      {{.release_dci_client = 6}, "MPSS on ch:0: DOWN", "6"},
  };
  const TimeLapse lapse(200);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    answer_with({{.bytes = {5}}}, {.dci_support = 0xFFFD, .faults = row.faults});
    const LogCapture log;
    EXPECT_EQ(send(kCallback, kLong).result, row.ret_send != 0 ? 1u : 0u);
    EXPECT_EQ(log.count("ret_send = " + std::to_string(row.ret_send) + ", will wait callback"), 1u);
    EXPECT_EQ(log.contains("Fail to send diag cmd"), row.ret_send != 0);
    EXPECT_EQ(send(kDci, kLong).result, row.released == "6" ? 0u : 1u);
    ASSERT_EQ(kStart(Bytes{1}.data(), 1, kDci), 0u);
    wait_for_end(log, 1);
    // A worker that cannot open the library goes no further.
    EXPECT_EQ(log.count(row.line), row.faults.init ? 1u : 2u);
    EXPECT_EQ(log.count("LSM init failed"), row.faults.init ? 3u : 0u);
    EXPECT_EQ(count_starting(log.messages(), "Releasing DCI connection, err: " + row.released),
              row.released.empty() ? 0 : 2);
  }
}

TEST_F(DiagSend, EveryProcessorOfTheMaskAnswersUnderItsName) {
  for (const auto& [processor, name] : {std::pair{0, "0[MSM]"}, {1, "1[MDM]"}, {3, "3[Unknown]"}}) {
    answer_with({{.bytes = {8, 9}, .processor = processor}}, {.remote_mask = 5});
    const LogCapture log;
    EXPECT_EQ(send(kCallback, kLong).bytes, (Bytes{8, 9}));
    EXPECT_EQ(log.messages_from("] tervik_diag_register_callback:"),
              (Strings{"register call back, g_diag_channel = [0]MSM, data_primary = 0, "
                       "remote_mask = [5] APSS",
                       "register remote call back, data_remote = 1",
                       "register remote call back, data_remote = 3"}));
    EXPECT_TRUE(log.contains(std::string("response from ") + name + ", len = 2 "));
  }
}

TEST_F(DiagSend, WorkersHandOverOneByOneAndAreWaitedForInBounds) {
  const TimeLapse lapse(100);
  std::promise<void> unblock;
  std::atomic<int> sum{0};
  platform::set_diag_modem({.processor = [&sum, gate = unblock.get_future().share()](auto command) {
    gate.wait();
    sum += command[0];
    return std::vector<DiagAnswer>{{.bytes = {1}}};
  }});
  const auto wait_time = [](int time_out) {
    const auto begin = Clock::now();
    tervik_diag_wait_for_workers(time_out);
    return Clock::now() - begin;
  };
  const LogCapture log;
  for (const Mode mode : {kCallback, kDci}) {
    Bytes command(4096, 0x4B);
    EXPECT_EQ(kStart(command.data(), 4096, mode), 0u);
    std::fill(command.begin(), command.end(), uint8_t{0});  // the worker has a copy of its own
  }
  EXPECT_GE(wait_time(2000), 2000ms);
  EXPECT_EQ(sum, 0);
  unblock.set_value();
  EXPECT_LT(wait_time(300'000), 300s);
  EXPECT_EQ(sum, 2 * 0x4B);
  wait_for_end(log, 2);
  auto slept = lapse.slept();
  std::sort(slept.begin(), slept.end());
  EXPECT_EQ(slept, (decltype(slept){200ms, 1s, 3s, 3s}));
  EXPECT_EQ(g_qcril_diag_rsp_buf.length, 0);
  tervik_diag_cmd_send_without_result_by_callback_mode_thread_proc(nullptr);
  EXPECT_EQ(log.count("param is null"), 1u);
  EXPECT_LT(wait_time(300'000), 300s) << "a worker that nobody started is waited for";
}

// Answers come about when their sends' time is over; one that is in time is the sender's own.
TEST_F(DiagSend, TwoThreadsSendWhileAnswersRaceTheTimeOut) {
  std::atomic<int> commands{0};
  platform::set_diag_modem({.processor = [&commands](std::span<const uint8_t> command) {
    const int round = ++commands;
    const DiagAnswer answer{.bytes = {command.begin(), command.end()},
                            .delay = milliseconds(round % 3 == 0 ? 10 : 90 + 5 * (round % 5))};
    return std::vector<DiagAnswer>(1 + static_cast<size_t>(round % 2), answer);
  }});
  const TimeLapse lapse(200);
  std::atomic<int> answered{0};
  const auto send_rounds = [&answered](uint8_t thread) {
    for (uint8_t round = 0; round < 150; ++round) {
      const Bytes command{0x4B, thread, round, 0, 1};
      const Reply reply = send((round + thread) % 2 == 0 ? kCallback : kDci, 100, 64, command);
      if (reply.result != 0) continue;
      ++answered;
      // A DCI response stands behind what callback mode left.
      ASSERT_GE(reply.bytes.size(), command.size());
      EXPECT_TRUE(std::equal(command.rbegin(), command.rend(), reply.bytes.rbegin()));
    }
  };
  std::thread other(send_rounds, uint8_t{1});
  send_rounds(0);
  other.join();
  EXPECT_EQ(commands, 300);
  EXPECT_GT(answered, 0);
}

}  // namespace
}  // namespace kiv::test
