#include "tervik_diag_send.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <future>
#include <thread>

#include "platform/diag/diag_library.h"
#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {

// ---- the calls of the library, in their order and with what they are handed ----

namespace {

using namespace std::chrono_literals;

struct Calls {
  std::mutex mutex;
  std::string text;
  std::chrono::nanoseconds last{0};
};
Calls& g_calls = *new Calls;

// A call that comes after a pause has its length before it.
void note(const std::string& call, const std::vector<long>& handed = {}) {
  const std::lock_guard lock(g_calls.mutex);
  const auto pause = (virtual_now() - std::exchange(g_calls.last, virtual_now())) / 1ms;
  if (!g_calls.text.empty()) g_calls.text += pause != 0 ? " " + std::to_string(pause) + "ms " : " ";
  g_calls.text += call;
  for (const long each : handed) g_calls.text += "," + std::to_string(each);
}

std::string noted() {
  const std::lock_guard lock(g_calls.mutex);
  return std::exchange(g_calls.text, {});
}

long number_at(const void* place) {
  int32_t number = 0;
  if (place != nullptr) std::memcpy(&number, place, sizeof number);
  return place != nullptr ? number : -1;
}

}  // namespace

// The linker has calls of `name` come here first.
#define NOTED(result, name, parameters, arguments, ...) \
  result real_##name parameters asm("__real_" #name);   \
  result noted_##name parameters asm("__wrap_" #name);  \
  result noted_##name parameters {                      \
    note(__VA_ARGS__);                                  \
    return real_##name arguments;                       \
  }
using Packet = unsigned char;
using Answered = diag_response_callback;
using DciAnswered = diag_dci_response_callback;
using Streamed = diag_dci_stream_callback;

NOTED(bool, Diag_LSM_Init, (Packet * none), (none), none == nullptr ? "open" : "open what")
NOTED(bool, Diag_LSM_DeInit, (), (), "close")
NOTED(void, diag_switch_logging, (int mode, char* folder), (mode, folder), "mode", {mode})
NOTED(void, diag_register_callback, (Answered callback, void* context), (callback, context),
      "primary", {number_at(context)})
NOTED(void, diag_register_remote_callback, (Answered callback, int processor, void* context),
      (callback, processor, context), "remote", {processor, number_at(context)})
NOTED(int, diag_callback_send_data, (int processor, Packet* data, int len), (processor, data, len),
      "send", {processor, len})
NOTED(int, diag_register_dci_client, (int* id, uint16_t* list, int channel, void* signal_type),
      (id, list, channel, signal_type), "client", {*list, channel, number_at(signal_type)})
NOTED(int, diag_register_dci_signal_data, (int id, int signal), (id, signal), "signal",
      {signal - SIGRTMIN})
NOTED(int, diag_get_dci_support_list_proc, (int channel, uint16_t* list), (channel, list), "list",
      {channel})
NOTED(int, diag_register_dci_stream_proc, (int id, Streamed log, Streamed event), (id, log, event),
      "streams")
NOTED(int, diag_send_dci_async_req,
      (int id, Packet* command, int len, Packet* response, int size, DciAnswered callback,
       void* context),
      (id, command, len, response, size, callback, context), "send",
      {len, size, number_at(context)})
NOTED(int, diag_release_dci_client, (int* id), (id), "release")
#undef NOTED

namespace {

using platform::DiagAnswer;
using platform::DiagFaults;
using Bytes = std::vector<uint8_t>;

enum Mode { kCallback, kDci };
constexpr unsigned (*kSends[])(const uint8_t*, int, int, uint8_t*, int*) = {
    tervik_diag_cmd_send_with_result_by_callback_mode,
    tervik_diag_cmd_send_with_result_by_dci_mode};
constexpr auto kStart = tervik_diag_cmd_send_without_result_start_thread;
constexpr int kLong = 60000;
// A worker's longest time: its pause, the same of the one before it, and the 3 s that it lingers.
constexpr unsigned kWorkerTimeS = 6;

Bytes response_of(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(1 + i * 7 + i / 256);
  return bytes;
}

class DiagSend : public StateDirectoryTest {
 protected:
  struct Reply {
    unsigned result;
    Bytes bytes;
    std::chrono::milliseconds passed;
  };

  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
    g_qcril_diag_rsp_buf = {};
    noted();
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
    const auto begin = virtual_now();
    const unsigned result = kSends[mode](command.data(), static_cast<int>(command.size()), time_out,
                                         buffer.data(), &length);
    EXPECT_EQ(buffer.back(), 0xEE);
    return {result,
            {buffer.begin(), buffer.begin() + length},
            std::chrono::duration_cast<std::chrono::milliseconds>(virtual_now() - begin)};
  }

  static void expect_stray_is_dropped() {
    uint8_t byte = 9;
    EXPECT_EQ(tervik_diag_cmd_response_by_callback(&byte, 1, nullptr), 1);
    const int32_t length = g_qcril_diag_rsp_buf.length;
    tervik_diag_cmd_response_by_dci(&byte, 1, nullptr);
    EXPECT_EQ(g_qcril_diag_rsp_buf.length, length);
  }

  // Runs a worker to its end.
  static void run_worker(Mode mode) {
    EXPECT_EQ(kStart(Bytes{0x4B, 4}.data(), 2, mode), 0u);
    sleep(kWorkerTimeS);
  }
};

TEST_F(DiagSend, TheLibraryIsCalledInOrder) {
  answer_with({{.bytes = {5}}}, {.remote_mask = 0x8005});
  const std::string receivers = "primary,0 remote,1,1 remote,3,3 remote,16,16 mode,6 send,0,2 ";
  EXPECT_EQ(send(kCallback, kLong).passed, 0ms);
  EXPECT_EQ(noted(), "open " + receivers + "mode,1 close");
  run_worker(kCallback);
  EXPECT_EQ(noted(), "open " + receivers + "200ms mode,1 close");
  const std::string client = "client,2,0,18 signal,30 list,0 streams send,2,16384,-1 ";
  EXPECT_EQ(send(kDci, kLong).passed, 0ms);
  EXPECT_EQ(noted(), "open " + client + "close release");
  run_worker(kDci);
  EXPECT_EQ(noted(), "open " + client + "1000ms release close");
}

TEST_F(DiagSend, AFailedCallEndsTheSendAndReleasesWhatWasRegistered) {
  const struct {
    DiagFaults faults;
    Mode mode;
    std::string calls;
    std::string end = "close release";
    std::string worker_end = "release close";
  } rows[] = {
      // Both sends of callback mode hand the command over, come what may.
      {{.callback_send = -9},
       kCallback,
       "open primary,0 mode,6 send,0,2 ",
       "mode,1 close",
       "200ms mode,1 close"},
      {{.register_dci_client = -7}, kDci, "open client,2,0,18 ", "close", "close"},
      {{.dci_send = 9}, kDci, "open client,2,0,18 signal,30 list,0 streams send,2,16384,-1 "}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.calls);
    answer_with({{.bytes = {5}}}, {.faults = row.faults});
    EXPECT_EQ(send(row.mode, kLong).result, 1u);
    expect_stray_is_dropped();
    EXPECT_EQ(noted(), row.calls + row.end);
    run_worker(row.mode);
    EXPECT_EQ(noted(), row.calls + row.worker_end);
  }
  answer_with({}, {.faults = {.init = true}});
  EXPECT_EQ(send(kDci, kLong).result, 1u);
  EXPECT_EQ(noted(), "open client,2,0,18 close");
  run_worker(kDci);
  EXPECT_EQ(noted(), "open");
}

TEST_F(DiagSend, ResponsesOfEverySizeAreTakenAsFarAsTheyFit) {
  // Of a response without end the first MiB is kept.
  constexpr size_t kEndless = (1 << 20) + 4097;
  for (const size_t size :
       {size_t{0}, size_t{1}, size_t{300}, size_t{4095}, size_t{4096}, size_t{4097}, size_t{8192},
        size_t{10240}, size_t{10241}, size_t{12000}, kEndless}) {
    for (const Mode mode : {kCallback, kDci}) {
      SCOPED_TRACE(::testing::Message() << size << " bytes, mode " << mode);
      const bool refused = size == 0 || (mode == kCallback && size > 10240);
      const bool no_last_piece = mode == kDci && (size % 4096 == 0 || size == kEndless);
      Bytes response = response_of(size);
      answer_with({{.bytes = response}});
      g_qcril_diag_rsp_buf = {};
      const Reply reply = send(mode, 1000, 10000);
      EXPECT_EQ(reply.passed, refused || no_last_piece ? 1000ms : 0ms);
      EXPECT_EQ(reply.result, refused ? 1u : 0u);
      response.resize(refused ? 0 : std::min<size_t>(size, 10000));
      EXPECT_EQ(reply.bytes, response);
      EXPECT_EQ(g_qcril_diag_rsp_buf.data != nullptr, mode == kCallback && !refused);
    }
  }
}

TEST_F(DiagSend, LateResponseReachesNoLaterSend) {
  for (const Mode mode : {kCallback, kDci}) {
    answer_with({{.bytes = response_of(3), .delay = 5000ms}});
    EXPECT_EQ(send(mode, 1000).result, 1u);
    expect_stray_is_dropped();
    const Bytes response = response_of(20);
    answer_with({{.bytes = response, .delay = 8s}, {.bytes = response_of(4), .delay = 50s}});
    const Reply reply = send(mode, kLong);
    EXPECT_EQ(reply.bytes, response);
    EXPECT_EQ(reply.passed, 8s);
    answer_with({});
    const Reply unanswered = send(mode, 100);
    EXPECT_EQ(unanswered.result, 1u);
    // Callback mode shows the last response once more.
    EXPECT_EQ(unanswered.bytes, mode == kCallback ? response : Bytes{});
  }
}

TEST_F(DiagSend, TheWaitThreadEndsNoWaitThatIsAnsweredAndNoLaterOne) {
  // As a worker has it at the same time: no close gives way to other threads then.
  ASSERT_TRUE(Diag_LSM_Init(nullptr));
  for (const Mode mode : {kCallback, kDci}) {
    for (const auto delay : {60ms, 90ms}) {
      answer_with({{.bytes = {1}, .delay = delay}});
      EXPECT_EQ(send(mode, 100).passed, delay);
    }
    // The response comes first, the limit second, and the sender last.
    auto sender = std::async(std::launch::async, [mode] { return send(mode, 100).result; });
    std::this_thread::sleep_for(50ms);
    std::unique_lock lock(g_diag_dci_rsp_mutex);
    std::this_thread::sleep_for(100ms);
    lock.unlock();
    EXPECT_EQ(sender.get(), 0u);
  }
  Diag_LSM_DeInit();
}

TEST_F(DiagSend, TimeOutsAreTicksWithADefaultInCallbackModeAlone) {
  answer_with({});
  for (const auto& [time_out, passed] :
       {std::pair{-250, 3000ms}, {60000, 60000ms}, {60001, 3000ms}}) {
    EXPECT_EQ(send(kCallback, time_out).passed, passed);
    EXPECT_EQ(send(kDci, time_out).passed, time_out < 0 ? 100ms : 60000ms);
  }
}

TEST_F(DiagSend, WorkersHandOverOneByOneAndAreWaitedForInBounds) {
  std::promise<void> unblock;
  std::atomic<int> sum{0};
  platform::set_diag_modem({.processor = [&sum, gate = unblock.get_future().share()](auto command) {
    gate.wait();
    sum += command[0] + command.back();
    return std::vector<DiagAnswer>{{.bytes = {1}}};
  }});
  for (const Mode mode : {kCallback, kDci}) {
    EXPECT_EQ(kStart(Bytes(4096, 100).data(), 4096, mode), 0u);
  }
  auto begin = virtual_now();
  const auto waits = [&begin](int bound) {
    tervik_diag_wait_for_workers(bound);
    return virtual_now() - std::exchange(begin, virtual_now());
  };
  EXPECT_EQ(waits(2000), 2s);
  EXPECT_EQ(sum, 0);
  unblock.set_value();
  EXPECT_EQ(waits(100'000), 200ms) << "the pause of the first one, and the hand-over of the second";
  EXPECT_EQ(sum, 400);
  sleep(kWorkerTimeS);
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
  const auto send_rounds = [](uint8_t thread) {
    int answered = 0;
    for (uint8_t round = 0; round < 15; ++round) {
      const Bytes command{0x4B, thread, round, 0, 1};
      const Reply reply = send((round + thread) % 2 == 0 ? kCallback : kDci, 100, 64, command);
      if (reply.result != 0) continue;
      ++answered;
      EXPECT_GE(reply.bytes.size(), command.size());
      EXPECT_TRUE(std::equal(command.begin(), command.end(), reply.bytes.begin()));
    }
    return answered;
  };
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    const Shuffle shuffle(seed);
    auto other = std::async(std::launch::async, send_rounds, uint8_t{1});
    EXPECT_GT(send_rounds(0), 0);
    EXPECT_GT(other.get(), 0);
  }
}

}  // namespace
}  // namespace kiv::test
