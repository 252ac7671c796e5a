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
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

enum Mode { kCallback, kDci };
constexpr unsigned (*kSends[])(const uint8_t*, int, int, uint8_t*, int*) = {
    tervik_diag_cmd_send_with_result_by_callback_mode,
    tervik_diag_cmd_send_with_result_by_dci_mode};
constexpr auto kStart = tervik_diag_cmd_send_without_result_start_thread;
constexpr int kLong = 60000;

Bytes response_of(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(1 + i * 7 + i / 256);
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

TEST_F(DiagSend, ResponsesOfEverySizeAreTakenAsFarAsTheyFit) {
  const TimeLapse lapse(200);
  for (const size_t size : {0u, 1u, 300u, 4095u, 4096u, 4097u, 8192u, 10240u, 10241u, 12000u}) {
    for (const Mode mode : {kCallback, kDci}) {
      SCOPED_TRACE(::testing::Message() << size << " bytes, mode " << mode);
      const bool refused = size == 0 || (mode == kCallback && size > 10240);
      const bool whole_pieces = !refused && mode == kDci && size % 4096 == 0;
      Bytes response = response_of(size);
      answer_with({{.bytes = response}});
      const LogCapture log;
      g_qcril_diag_rsp_buf = {};
      const auto begin = Clock::now();
      const Reply reply = send(mode, refused || whole_pieces ? 1000 : kLong, 10000);
      EXPECT_LT(Clock::now() - begin, 60s);
      EXPECT_EQ(reply.result, refused ? 1u : 0u);
      response.resize(refused ? 0 : std::min<size_t>(size, 10000));
      EXPECT_EQ(reply.bytes, response);
      EXPECT_EQ(log.contains("tervik_diag_cmd_response_check fail"), refused);
      EXPECT_EQ(log.count("stop waiting"), refused ? 1u : 0u);
      EXPECT_EQ(log.count("stop waiting, receive success, length is times of 4096"),
                whole_pieces ? 1u : 0u);
    }
  }
}

TEST_F(DiagSend, LateResponseReachesNoLaterSend) {
  const TimeLapse lapse(200);
  uint8_t byte = 9;
  for (const Mode mode : {kCallback, kDci}) {
    answer_with({{.bytes = response_of(3), .delay = 5000ms}});
    const LogCapture log;
    const auto begin = Clock::now();
    EXPECT_EQ(send(mode, 1000).result, 1u);
    EXPECT_GE(Clock::now() - begin, 1000ms);
    EXPECT_EQ(count_starting(log.messages(), "tervik_diag_cmd_send_with_result_wait_thread"), 10);
    EXPECT_EQ(tervik_diag_cmd_response_by_callback(&byte, 1, nullptr), 1);
    tervik_diag_cmd_response_by_dci(&byte, 1, nullptr);
    EXPECT_EQ(log.count("late response is dropped, len = 1"), 2u);
    const Bytes response = response_of(20);
    answer_with({{.bytes = response, .delay = 8s}, {.bytes = response_of(4), .delay = 50s}});
    EXPECT_EQ(send(mode, kLong).bytes, response);
    answer_with({});
    const Reply unanswered = send(mode, 100);
    EXPECT_EQ(unanswered.result, 1u);
    // Callback mode shows the last response once more.
    EXPECT_EQ(unanswered.bytes, mode == kCallback ? response : Bytes{});
  }
}

TEST_F(DiagSend, TimeOutsAreTicksWithADefaultInCallbackModeAlone) {
  const int time_outs[] = {0, -250, 150, 60000, 60001};
  const int limits[2][5] = {{30, 30, 1, 600, 30}, {0, -2, 1, 600, 600}};
  const TimeLapse lapse(200);
  for (const Mode mode : {kCallback, kDci}) {
    for (size_t i = 0; i < std::size(time_outs); ++i) {
      const int limit = limits[mode][i];
      if (limit > 1) answer_with({{.bytes = {1}}});
      const LogCapture log;
      EXPECT_EQ(send(mode, time_outs[i]).result, limit > 1 ? 0u : 1u);
      const std::string line = "ommand time = " + std::to_string(limit);
      EXPECT_EQ(log.count(mode == kCallback ? "C" + line + " * 100ms" : "Dci C" + line), 1u) << i;
      EXPECT_EQ(log.contains("Time out is invalid, set default"), limit == 30);
      EXPECT_TRUE(limit > 1 || !log.contains("cnt_of_100ms = 2"));
      platform::set_diag_modem({});
    }
  }
}

TEST_F(DiagSend, WrongCommandsAndReplyBuffersAreRefusedBeforeTheLibraryIsOpened) {
  uint8_t bytes[4097] = {};
  int one = 1;
  int none = 0;
  const std::tuple<uint8_t*, int, uint8_t*, int*, const char*> rows[] = {
      {nullptr, 1, bytes, &one, "data is null"},
      {bytes, 0, bytes, &one, "Invalid input parameter, data_len = 0"},
      {bytes, 4097, bytes, &one, "Invalid input parameter, data_len = 4097"},
      {bytes, 4096, nullptr, &one, "reply_buf is null"},
      {bytes, 4096, bytes, nullptr, "p_reply_len is null"},
      {bytes, 4096, bytes, &none, "Invalid output parameter, reply_len = 0"}};
  for (const auto& [command, length, reply, reply_length, line] : rows) {
    const bool good_command = length == 4096;
    const LogCapture log;
    for (const Mode mode : {kCallback, kDci}) {
      EXPECT_EQ(kSends[mode](command, length, 1000, reply, reply_length), 1u);
      EXPECT_TRUE(good_command || kStart(command, length, mode) == 1u);
    }
    EXPECT_EQ(log.count(line), good_command ? 2u : 4u) << line;
    EXPECT_FALSE(log.contains("ret_send") || log.contains("DCI"));
  }
}

TEST_F(DiagSend, FailuresOfTheLibraryEndTheSendAndReleaseWhatWasRegistered) {
  const std::string failed = ", err: -7, errno: 5";
  const struct {
    DiagFaults faults;
    std::string line;  // of both DCI sends
    int ret_send = 0;  // in callback mode
  } rows[] = {
      {{.init = true}, "Could not register with DCI, err: -1, errno: 107 ch:0", -1},
      {{.callback_send = -9}, "MPSS on ch:0: DOWN", -9},
      {{.register_dci_client = -7}, "Could not register with DCI" + failed + " ch:0"},
      {{.register_dci_signal = -7}, "Could not register signal for DCI Data for ch:0" + failed},
      {{.dci_support_list = -7}, "Could not get support list for ch 0" + failed},
      {{.register_dci_stream = -7}, "Unable to register DCI stream for ch:0" + failed},
      {{.dci_send = 9}, "Error sending SEND_REQUEST_ASYNC to peripheral 2 for ch:0"},
      {{.release_dci_client = 6}, "MPSS on ch:0: DOWN"},
  };
  const TimeLapse lapse(200);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    answer_with({{.bytes = {5}}}, {.dci_support = 0xFFFD, .faults = row.faults});
    const LogCapture log;
    EXPECT_EQ(send(kCallback, kLong).result, row.ret_send != 0 ? 1u : 0u);
    EXPECT_EQ(log.count("ret_send = " + std::to_string(row.ret_send) + ", will wait callback"), 1u);
    EXPECT_EQ(log.contains("Fail to send diag cmd"), row.ret_send != 0);
    EXPECT_EQ(send(kDci, kLong).result, row.line.starts_with("MPSS") ? 0u : 1u);
    ASSERT_EQ(kStart(Bytes{1}.data(), 1, kDci), 0u);
    wait_for_end(log, 1);
    // A worker that cannot open the library goes no further.
    EXPECT_EQ(log.count(row.line), row.faults.init ? 1u : 2u);
    EXPECT_EQ(log.count("LSM init failed"), row.faults.init ? 3u : 0u);
    const std::string code = row.faults.release_dci_client == 0 ? "1001" : "6";
    EXPECT_EQ(count_starting(log.messages(), "Releasing DCI connection, err: " + code),
              row.line.starts_with("Could not register with DCI") ? 0 : 2);
  }
}

TEST_F(DiagSend, EveryProcessorOfTheMaskAnswersUnderItsName) {
  const TimeLapse lapse(200);
  for (const auto& [processor, name] : {std::pair{0, "0[MSM]"}, {1, "1[MDM]"}, {3, "3[Unknown]"}}) {
    answer_with({{.bytes = {8, 9}, .processor = processor}}, {.remote_mask = 5});
    const LogCapture log;
    EXPECT_EQ(send(kCallback, kLong).bytes, (Bytes{8, 9}));
    EXPECT_TRUE(log.contains("data_primary = 0, remote_mask = [5] APSS"));
    EXPECT_EQ(count_starting(log.messages(), "register remote call back, data_remote = "), 2);
    EXPECT_TRUE(log.contains(std::string("response from ") + name + ", len = 2 "));
  }
}

TEST_F(DiagSend, WorkersHandOverOneByOneAndAreWaitedForInBounds) {
  const TimeLapse lapse(25);
  std::promise<void> unblock;
  std::atomic<int> sum{0};
  platform::set_diag_modem({.processor = [&sum, gate = unblock.get_future().share()](auto command) {
    gate.wait();
    sum += command[0] + command.back();
    return std::vector<DiagAnswer>{{.bytes = {1}}};
  }});
  const LogCapture log;
  for (const Mode mode : {kCallback, kDci}) {
    EXPECT_EQ(kStart(Bytes(4096, 100).data(), 4096, mode), 0u);
  }
  const auto begin = Clock::now();
  tervik_diag_wait_for_workers(2000);
  EXPECT_GE(Clock::now() - begin, 2s);
  EXPECT_EQ(sum, 0);
  unblock.set_value();
  tervik_diag_wait_for_workers(100'000);
  EXPECT_EQ(sum, 400);
  EXPECT_FALSE(log.contains("Releasing DCI connection")) << "waited for more than the hand-over";
  wait_for_end(log, 2);
  auto slept = lapse.slept();
  std::sort(slept.begin(), slept.end());
  EXPECT_EQ(slept, (decltype(slept){200ms, 1s, 3s, 3s}));
  tervik_diag_cmd_send_without_result_by_callback_mode_thread_proc(nullptr);
  EXPECT_EQ(log.count("param is null"), 1u);
  tervik_diag_wait_for_workers(200'000);
  EXPECT_LT(Clock::now() - begin, 200s) << "a worker that nobody started is waited for";
}

// Answers come about when their sends' time is over; one that is in time is the sender's own.
TEST_F(DiagSend, TwoThreadsSendWhileAnswersRaceTheTimeOut) {
  std::atomic<int> commands{0};
  platform::set_diag_modem({.processor = [&commands](std::span<const uint8_t> command) {
    const int round = ++commands;
    const DiagAnswer answer{
        .bytes = {command.begin(), command.end()},
        .delay = std::chrono::milliseconds(round % 3 == 0 ? 10 : 90 + 5 * (round % 5))};
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
      ASSERT_GE(reply.bytes.size(), command.size());
      EXPECT_TRUE(std::equal(command.begin(), command.end(), reply.bytes.begin()));
    }
  };
  std::thread other(send_rounds, uint8_t{1});
  send_rounds(0);
  other.join();
  EXPECT_GT(answered, 0);
}

}  // namespace
}  // namespace kiv::test
