#include "tervik_extend_api.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "tervik_utils_timer.h"
#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr uint32_t kServiceId = 0xFFE4;

using ExtendApi = ExtensionClientTest;

// What one request came to. The buffer is exactly the capacity, for the sanitizer's sake.
struct Outcome {
  int result;
  int rsp_len;
  Bytes rsp;  // the whole capacity

  bool operator==(const Outcome&) const = default;
  friend void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << outcome.result << ", " << outcome.rsp_len << " bytes, "
         << ::testing::PrintToString(outcome.rsp);
  }
};

Outcome send(uint32_t id, const Bytes& req, int capacity) {
  Outcome outcome{.result = 0, .rsp_len = capacity, .rsp = Bytes(static_cast<size_t>(capacity), 0)};
  const auto rsp = std::make_unique<uint8_t[]>(static_cast<size_t>(capacity));
  const uint8_t nothing = 0;
  outcome.result =
      tervik_extend_qmi_send_sync(id, req.empty() ? &nothing : req.data(),
                                  static_cast<int>(req.size()), rsp.get(), &outcome.rsp_len);
  outcome.rsp.assign(rsp.get(), rsp.get() + capacity);
  return outcome;
}

ExtensionStub::Answer echo(const ExtensionRequest& request) {
  return ExtensionAnswer{.result = 0, .len = request.len, .payload = request.payload};
}

// Polls for a line that another thread logs.
bool comes(const LogCapture& log, std::string_view message, size_t count = 1) {
  for (int tick = 0; tick < 5000 && log.count(message) < count; ++tick) usleep(1000);
  return log.count(message) >= count;
}

TEST_F(ExtendApi, RequestCarriesClassLengthAndPayloadAndNothingElse) {
  const ExtensionStub stub(echo);
  uint32_t id = 0;
  for (const size_t size : {550u, 3u, 0u, 549u, 1u}) {
    id += 0x40000001;
    const Bytes req = counted_bytes(size);
    const auto capacity = static_cast<int>(size);
    EXPECT_EQ(send(id, req, capacity), (Outcome{0, capacity, req}));
    const ExtensionRequest request = stub.requests().back();
    Bytes payload = req;
    payload.resize(kExtensionPayloadSize);
    EXPECT_EQ(request.id, id);
    EXPECT_EQ(request.len, size);
    EXPECT_EQ(request.payload, payload);
  }
}

TEST_F(ExtendApi, WrongArgumentsAreRefusedWithoutARequest) {
  const ExtensionStub stub(echo);
  const Bytes req(551);
  Bytes rsp(551);
  const struct {
    const uint8_t* req;
    int req_len;
    uint8_t* rsp;
    int capacity;
    const char* line;
  } rows[] = {
      {nullptr, 4, rsp.data(), 4, "0,  put Invalid param"},
      {nullptr, 551, nullptr, 551, "0,  put Invalid param"},
      {req.data(), 551, rsp.data(), 550, "put data_len 551 > max 550"},
      {req.data(), 4, rsp.data(), 551, "put data_len 4 > max 550"},
      {req.data(), -1, rsp.data(), 4, "put data_len -1 > max 550"},
      {req.data(), 4, rsp.data(), -1, "put data_len 4 > max 550"},
      {req.data(), INT32_MIN, rsp.data(), INT32_MAX, "put data_len -2147483648 > max 550"},
  };
  tervik_extend_qmi_init_do();
  for (const auto& row : rows) {
    const LogCapture log;
    int rsp_len = row.capacity;
    EXPECT_EQ(tervik_extend_qmi_send_sync(2, row.req, row.req_len, row.rsp, &rsp_len), -1);
    EXPECT_EQ(log.messages(),
              (Strings{"TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_WAIT...",
                       "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_DONE", "done, do nothing", row.line,
                       "result: -1, id: 2", "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_UNLOCK_DONE"}));
  }
  EXPECT_EQ(tervik_extend_qmi_send_sync(2, req.data(), 4, nullptr, nullptr), -1);
  EXPECT_EQ(tervik_extend_qmi_send_sync(2, req.data(), 4, rsp.data(), nullptr), -1);
  EXPECT_TRUE(stub.requests().empty());
}

TEST_F(ExtendApi, ResponseIsCutToTheCapacityAndNeverFollowedBeyondItsPayload) {
  const Bytes full = counted_bytes(550);
  const struct {
    ExtensionAnswer answer;
    int capacity;
    int result;
    int rsp_len;
    const char* line;
  } rows[] = {
      {{.result = 0, .len = 10, .payload = full}, 4, 0, 4, "resp_len:4"},
      {{.result = 0, .len = 4, .payload = full}, 10, 0, 4, "resp_len:4"},
      {{.result = 0, .len = 0, .payload = full}, 10, 0, 0, "resp_len:0"},
      {{.result = 0, .len = 10, .payload = full}, 0, 0, 0, "resp_len:0"},
      {{.result = 0, .len = 10, .payload = {}}, 10, 0, 0, "resp_len:0"},
      {{.result = 0, .len = 551, .payload = full}, 550, 0, 550, "resp_len:550"},
      {{.result = 0, .len = UINT32_MAX, .payload = full}, 550, 0, 550, "resp_len:550"},
      {{.result = 0, .len = 0x80000000, .payload = full}, 3, 0, 3, "resp_len:3"},
      {{.result = 5, .len = 4, .payload = full},
       4,
       -3,
       4,
       "5 QMI service framework error. Check client"},
      {{.result = UINT32_MAX, .len = 0, .payload = {}},
       4,
       -3,
       4,
       "-1 QMI service framework error. Check client"},
  };
  for (const auto& row : rows) {
    const ExtensionStub stub([&row](const ExtensionRequest&) { return row.answer; });
    tervik_extend_qmi_init_force();
    const LogCapture log;
    Outcome expected{row.result, row.rsp_len, Bytes(static_cast<size_t>(row.capacity))};
    if (row.result == 0) std::copy_n(full.begin(), row.rsp_len, expected.rsp.begin());
    EXPECT_EQ(send(4, {1}, row.capacity), expected) << row.line;
    EXPECT_EQ(log.count(row.line), 1u) << row.line;
    EXPECT_EQ(log.count("result: " + std::to_string(row.result) + ", id: 4"), 1u);
  }
}

TEST_F(ExtendApi, EveryTruncationAndExtensionOfAResponseIsTakenOrRefused) {
  const Bytes payload = counted_bytes(550);
  const Bytes whole = encode_extension_answer({.result = 0, .len = 550, .payload = payload});
  Bytes bytes;
  const ExtensionStub stub(
      [&bytes](const ExtensionRequest&) { return ServiceReply::response(bytes); });
  constexpr size_t kMandatory = 14;  // the two integers, without the payload
  for (size_t length = 0; length <= whole.size(); ++length) {
    bytes.assign(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    bytes.shrink_to_fit();
    const Outcome outcome = send(2, {1}, 550);
    ASSERT_EQ(outcome.result, length == kMandatory || length == whole.size() ? 0 : -3) << length;
    ASSERT_EQ(outcome.rsp_len, length == kMandatory ? 0 : 550) << length;
    ASSERT_LE(platform::open_handle_count(), 2u);
  }
  bytes = whole;
  bytes.insert(bytes.end(), {0x55, 2, 0, 7, 7});  // a TLV that nobody knows
  EXPECT_EQ(send(2, {1}, 550).result, 0);
  bytes = encode_extension_answer({.result = 0, .len = 550, .payload = counted_bytes(551)});
  EXPECT_EQ(send(2, {1}, 550).result, -3);
}

TEST_F(ExtendApi, FailedSendRebuildsTheClientAndTheNextOneWorks) {
  bool fail = false;
  const ExtensionStub stub([&fail](const ExtensionRequest& request) -> ExtensionStub::Answer {
    if (fail) return ServiceReply::transport_error(-17);
    return echo(request);
  });
  EXPECT_EQ(send(2, {1}, 1).result, 0);
  EXPECT_EQ(platform::open_handle_count(), 2u);  // client and notifier
  fail = true;
  const LogCapture log;
  EXPECT_EQ(send(2, {1}, 1).result, -3);
  EXPECT_EQ(log.messages(),
            (Strings{"TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_WAIT...",
                     "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_DONE", "done, do nothing",
                     "timer_id = 1, is_active = 0", "ret = 0, timeout_s = 3, timer_id = 1",
                     "ret = 0, timeout_s = 3, timer_id = 1", "send msg sync failed: -17, id: 2",
                     "start, inited = 1", "qmi_client_release client_handle, err = 0",
                     "qmi_client_release notifier, err = 0", "end, inited = 0", "start, inited = 0",
                     "end, inited = 1", "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_UNLOCK_DONE"}));
  EXPECT_EQ(platform::open_handle_count(), 0u);
  fail = false;
  EXPECT_EQ(send(2, {1}, 1).result, 0);
  stub.restart();  // the open client stays dead
  EXPECT_EQ(send(2, {1}, 1).result, -3);
  EXPECT_EQ(log.count("send msg sync failed: -2, id: 2"), 1u);
  EXPECT_EQ(send(2, {1}, 1).result, 0);
  EXPECT_EQ(log.count("qmi_client_get_service_list() returned 0 num_services = 1"), 2u);
  EXPECT_FALSE(tervik_timer_stop(1));
}

TEST_F(ExtendApi, SilentModemCostsThreeSecondsAndTheNextRequestWorks) {
  const TimeLapse lapse(100);
  bool silent = true;
  const ExtensionStub stub([&silent](const ExtensionRequest& request) -> ExtensionStub::Answer {
    if (silent) return ServiceReply::silence();
    return echo(request);
  });
  for (int round = 0; round < 3; ++round) {
    silent = true;
    const LogCapture log;
    const auto start = steady_clock::now();
    EXPECT_EQ(send(4, {1}, 1).result, -3);
    const auto took = steady_clock::now() - start;
    EXPECT_GE(took, seconds(3));
    EXPECT_LT(took, seconds(60));
    EXPECT_EQ(log.count("send msg sync failed: -3, id: 4"), 1u);
    silent = false;
    // A watchdog that was late may take down the client between the two.
    EXPECT_EQ(send(4, {1}, 1).result, 0);
  }
}

// The service keeps the sender beyond the watchdog's time.
TEST_F(ExtendApi, WatchdogReportsAndRebuildsOnceTheSenderHasLeft) {
  const TimeLapse lapse(100);
  std::atomic<bool> stuck{true};
  const ExtensionStub stub([&stuck](const ExtensionRequest& request) -> ExtensionStub::Answer {
    if (!stuck) return echo(request);
    usleep(9'000'000);
    return ServiceReply::silence();
  });
  const LogCapture log;
  EXPECT_EQ(send(2, {1}, 1).result, -3);
  EXPECT_TRUE(comes(log, "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_UNLOCK_DONE", 2));
  const Strings lines = log.messages();
  const auto at = [&lines](const char* line, int nth = 1) {
    auto found = lines.begin();
    while ((found = std::find(found, lines.end(), line)) != lines.end() && --nth > 0) ++found;
    EXPECT_NE(found, lines.end()) << line;
    return found - lines.begin();
  };
  const char* const done = "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_DONE";
  EXPECT_EQ(log.count("The timer expired with ID 1"), 1u);
  EXPECT_LT(at("The timer expired with ID 1"), at("Not find the timer_callback, timer_id = 1"));
  EXPECT_LT(at("Not find the timer_callback, timer_id = 1"), at("send msg sync failed: -3, id: 2"));
  EXPECT_LT(at("send msg sync failed: -3, id: 2"), at(done, 2));
  EXPECT_LT(at(done, 2), at("start, inited = 1", 2));
  EXPECT_EQ(platform::open_handle_count(), 0u);
  stuck = false;
  EXPECT_EQ(send(2, {1}, 1).result, 0);
}

TEST_F(ExtendApi, MissingServiceIsAwaitedForASecond) {
  const ExtensionStub stub(echo);
  platform::withdraw_service(kServiceId);
  const TimeLapse lapse(20);
  LogCapture log;
  const char* const missing = "qmi_client_get_service_list() returned -2 num_services = 0";
  for (int round = 0; round < 2; ++round) {
    log.clear();
    const auto start = steady_clock::now();
    EXPECT_EQ(send(2, {1}, 1).result, -2);
    const auto took = steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(980));
    EXPECT_LT(took, seconds(20));
    EXPECT_EQ(log.count(missing), 50u);
    EXPECT_EQ(log.count("qmi_client_get_service_list, err = -2, num_entries = 0, num_services = 0"),
              1u);
    EXPECT_EQ(log.count("-2 QMI client init failed"), 1u);
    EXPECT_EQ(log.count("result: -2, id: 2"), 1u);
    EXPECT_EQ(platform::open_handle_count(), 0u);
  }
  log.clear();
  std::thread modem([&] {
    comes(log, missing, 3);
    stub.restart();
  });
  EXPECT_EQ(send(2, {1}, 1).result, 0);
  modem.join();
  EXPECT_LT(log.count(missing), 50u);
}

TEST_F(ExtendApi, ThreadsAreServedOneAfterTheOther) {
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  const ExtensionStub stub([&](const ExtensionRequest& request) {
    if (++inside != 1) overlapped = true;
    std::this_thread::yield();
    --inside;
    return echo(request);
  });
  std::vector<std::thread> threads;
  for (uint8_t seed = 1; seed <= 4; ++seed) {
    threads.emplace_back([seed] {
      for (int round = 0; round < 40; ++round) {
        const Bytes req(static_cast<size_t>(seed) * 100, static_cast<uint8_t>(seed + round));
        const auto capacity = static_cast<int>(req.size());
        EXPECT_EQ(send(seed, req, capacity), (Outcome{0, capacity, req}));
        if (round % 16 == seed) tervik_extend_qmi_init_force();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(overlapped);
}

TEST_F(ExtendApi, IndicationsAreDecodedAndDropped) {
  const ExtensionStub stub(echo);
  ASSERT_EQ(send(2, {1}, 1).result, 0);
  const auto indication = [](uint32_t sub_id, size_t length = SIZE_MAX) {
    Bytes bytes = encode_extension_answer({.result = sub_id, .len = 700, .payload = Bytes{1}});
    bytes.resize(std::min(bytes.size(), length));
    return bytes;
  };
  const auto head = [](const char* length, const char* sub_id) {
    return std::string("msg_id: 0x3, buf_len: ") + length + ", ind.ind: " + sub_id;
  };
  const struct {
    uint16_t msg_id;
    Bytes bytes;
    Strings lines;
  } rows[] = {
      {3, indication(0), {head("567", "0"), "No function defined to handle indication: 0"}},
      {3, indication(7, 14), {head("14", "7"), "No function defined to handle indication: 7"}},
      {3, indication(8), {head("567", "8"), "Indicaion: 8 greater than maximum known indication."}},
      {3,
       indication(UINT32_MAX),
       {head("567", "-1"), "Indicaion: -1 greater than maximum known indication."}},
      {3, indication(0, 566), {"indication 0x3 does not decode, buf_len: 566"}},
      {3, indication(0, 7), {"indication 0x3 does not decode, buf_len: 7"}},
      {3, {}, {"indication 0x3 does not decode, buf_len: 0"}},
      {5, Bytes(1128), {}},
      {0x0B, Bytes(21), {"indication 0xb does not decode, buf_len: 21"}},
      {0x0D, Bytes(24), {}},
      {0x0D, Bytes(23), {"indication 0xd does not decode, buf_len: 23"}},
      {2, indication(0), {}},
      {0xFFFF, indication(0), {}},
  };
  LogCapture log;
  for (const auto& row : rows) {
    log.clear();
    platform::send_indication(kServiceId, row.msg_id, row.bytes);
    platform::send_indication(kServiceId, 3, indication(6));  // marks the end
    ASSERT_TRUE(comes(log, "No function defined to handle indication: 6"));
    Strings lines = row.lines;
    lines.push_back(head("567", "6"));
    lines.push_back("No function defined to handle indication: 6");
    EXPECT_EQ(log.messages(), lines) << row.msg_id;
  }
  log.clear();
  tervik_extend_qmi_ind_cb(nullptr, 3, nullptr, 0, nullptr);
  EXPECT_EQ(log.messages(), Strings{"indication 0x3 does not decode, buf_len: 0"});
}

TEST_F(ExtendApi, SetUpAndReleaseAreIdempotentAndTraceCanBeSwitchedOff) {
  tervik_extend_qmi_deinit_do();
  LogCapture log;
  tervik_extend_qmi_deinit_do();
  tervik_extend_qmi_init_do();
  tervik_extend_qmi_init_do();
  tervik_extend_qmi_deinit_do();
  EXPECT_EQ(log.messages(), (Strings{"no init, do nothing", "start, inited = 0", "end, inited = 1",
                                     "done, do nothing", "start, inited = 1",
                                     "qmi_client_release client_handle, err = -4",
                                     "qmi_client_release notifier, err = -4", "end, inited = 0"}));
  const ExtensionStub stub(echo);
  log.clear();
  g_extend_qmi_trace = 0;
  EXPECT_EQ(send(2, {1}, 1).result, 0);
  g_extend_qmi_trace = 1;
  EXPECT_FALSE(log.contains("resp_len:") || log.contains("result: "));
  for (const auto& [major, minor, library, known] : {std::tuple{1u, 1u, 6u, true},
                                                     {2u, 1u, 6u, false},
                                                     {1u, 0u, 6u, false},
                                                     {1u, 1u, 7u, false}}) {
    EXPECT_EQ(tervik_extend_get_service_object_internal_v01(major, minor, library) != nullptr,
              known);
  }
}

}  // namespace
}  // namespace kiv::test
