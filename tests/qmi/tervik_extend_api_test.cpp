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
};

Outcome send(uint32_t id, const Bytes& req, int capacity) {
  const auto rsp = std::make_unique<uint8_t[]>(static_cast<size_t>(capacity));
  const uint8_t nothing = 0;
  int rsp_len = capacity;
  const int result = tervik_extend_qmi_send_sync(id, req.empty() ? &nothing : req.data(),
                                                 static_cast<int>(req.size()), rsp.get(), &rsp_len);
  return {result, rsp_len, Bytes(rsp.get(), rsp.get() + capacity)};
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
  const Bytes request(551);
  Bytes response(551);
  const uint8_t* const req = request.data();
  uint8_t* const rsp = response.data();
  const struct {
    const uint8_t* req;
    int req_len;
    uint8_t* rsp;
    int capacity;
    const char* line;
  } rows[] = {
      {nullptr, 4, rsp, 4, "0,  put Invalid param"},
      {nullptr, 551, nullptr, 551, "0,  put Invalid param"},
      {req, 551, rsp, 550, "put data_len 551 > max 550"},
      {req, 4, rsp, 551, "put data_len 4 > max 550"},
      {req, -1, rsp, 4, "put data_len -1 > max 550"},
      {req, 4, rsp, -1, "put data_len 4 > max 550"},
      {req, INT32_MIN, rsp, INT32_MAX, "put data_len -2147483648 > max 550"},
  };
  for (const auto& row : rows) {
    const LogCapture log;
    int rsp_len = row.capacity;
    EXPECT_EQ(tervik_extend_qmi_send_sync(2, row.req, row.req_len, row.rsp, &rsp_len), -1);
    EXPECT_EQ(log.count(row.line), 1u) << row.line;
    EXPECT_EQ(log.count("result: -1, id: 2"), 1u);
  }
  EXPECT_EQ(tervik_extend_qmi_send_sync(2, req, 4, nullptr, nullptr), -1);
  EXPECT_EQ(tervik_extend_qmi_send_sync(2, req, 4, rsp, nullptr), -1);
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
      {{0, 10, full}, 4, 0, 4, "resp_len:4"},
      {{0, 0, full}, 10, 0, 0, "resp_len:0"},
      {{0, 10, full}, 0, 0, 0, "resp_len:0"},
      {{0, 10, {}}, 10, 0, 0, "resp_len:0"},
      {{0, UINT32_MAX, full}, 550, 0, 550, "resp_len:550"},
      {{0, 0x80000000, full}, 3, 0, 3, "resp_len:3"},
      {{5, 4, full}, 4, -3, 4, "5 QMI service framework error. Check client"},
      {{UINT32_MAX, 0, {}}, 4, -3, 4, "-1 QMI service framework error. Check client"},
  };
  ExtensionAnswer answer;
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  for (const auto& row : rows) {
    answer = row.answer;
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
    bytes = Bytes(whole.data(), whole.data() + length);
    const Outcome outcome = send(2, {1}, 550);
    ASSERT_EQ(outcome.result, length == kMandatory || length == whole.size() ? 0 : -3) << length;
    ASSERT_EQ(outcome.rsp_len, length == kMandatory ? 0 : 550) << length;
  }
  bytes = whole;
  bytes.insert(bytes.end(), {0x55, 2, 0, 7, 7});  // a TLV that nobody knows
  EXPECT_EQ(send(2, {1}, 550).result, 0);
  bytes = encode_extension_answer({.result = 0, .len = 550, .payload = counted_bytes(551)});
  EXPECT_EQ(send(2, {1}, 550).result, -3);
}

TEST_F(ExtendApi, FailedSendRebuildsTheClientAndTheNextOneWorks) {
  bool fail = false;
  const ExtensionStub stub([&fail](const ExtensionRequest& request) {
    return fail ? ServiceReply::transport_error(-17) : echo(request);
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
  const ExtensionStub stub([&silent](const ExtensionRequest& request) {
    return silent ? ServiceReply::silence() : echo(request);
  });
  for (int round = 0; round < 3; ++round) {
    silent = true;
    const LogCapture log;
    const auto start = steady_clock::now();
    EXPECT_EQ(send(4, {1}, 1).result, -3);
    EXPECT_GE(steady_clock::now() - start, seconds(3));
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
  Strings order = log.messages();
  std::erase_if(order, [](const std::string& line) {
    const auto has = [&line](const char* part) { return line.find(part) != std::string::npos; };
    return !has("expired") && !has("fail") && !has("Not find") && !has("_LOCK_DONE");
  });
  const char* const locked = "TERVIK_EXTEND_QMI_CLIENT_CRIT_SECT_LOCK_DONE";
  EXPECT_EQ(order, (Strings{locked, "The timer expired with ID 1",
                            "Not find the timer_callback, timer_id = 1",
                            "send msg sync failed: -3, id: 2", locked}));
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
  for (int round = 1; round <= 2; ++round) {
    const auto start = steady_clock::now();
    EXPECT_EQ(send(2, {1}, 1).result, -2);
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(980));
    EXPECT_EQ(log.count(missing), 50u * static_cast<size_t>(round));
    EXPECT_EQ(platform::open_handle_count(), 0u);
  }
  EXPECT_EQ(log.count("qmi_client_get_service_list, err = -2, num_entries = 0, num_services = 0"),
            2u);
  EXPECT_EQ(log.count("-2 QMI client init failed"), 2u);
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
  const auto indication = [](uint32_t sub_id, size_t length = 567) {
    Bytes bytes = encode_extension_answer({sub_id, 700, Bytes{1}});
    bytes.resize(length);
    return bytes;
  };
  const struct {
    uint16_t msg_id;
    Bytes bytes;
    const char* line;  // the last one
  } rows[] = {
      {3, indication(7, 14), "No function defined to handle indication: 7"},
      {3, indication(8), "Indicaion: 8 greater than maximum known indication."},
      {3, indication(UINT32_MAX), "Indicaion: -1 greater than maximum known indication."},
      {3, indication(0, 566), "indication 0x3 does not decode, buf_len: 566"},
      {3, indication(0, 7), "indication 0x3 does not decode, buf_len: 7"},
      {3, {}, "indication 0x3 does not decode, buf_len: 0"},
      {0x0B, Bytes(21), "indication 0xb does not decode, buf_len: 21"},
      {0x0D, Bytes(23), "indication 0xd does not decode, buf_len: 23"},
      {0x0D, Bytes(24), ""},
      {5, Bytes(1128), ""},
      {2, indication(0), ""},
      {0xFFFF, indication(0), ""},
  };
  LogCapture log;
  for (const auto& row : rows) {
    log.clear();
    platform::send_indication(kServiceId, row.msg_id, row.bytes);
    platform::send_indication(kServiceId, 3, indication(6));  // marks the end by two lines
    ASSERT_TRUE(comes(log, "No function defined to handle indication: 6"));
    Strings lines = log.messages();
    lines.insert(lines.begin(), "");
    EXPECT_EQ(lines[lines.size() - 3], row.line) << row.msg_id;
  }
  tervik_extend_qmi_ind_cb(nullptr, 3, nullptr, 0, nullptr);
}

}  // namespace
}  // namespace kiv::test
