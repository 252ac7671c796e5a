// The statistics client over its wire: what is sent, and what becomes of answers and indications.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <future>
#include <map>

#include "modem_lyrax_mgr.h"
#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/process_name.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {
namespace {

using Bytes = std::vector<uint8_t>;
using platform::ServiceReply;

// The little-endian bytes of the numbers, one after the other.
template <class... Numbers>
Bytes bytes_of(Numbers... numbers) {
  Bytes all((sizeof(Numbers) + ...));
  size_t at = 0;
  ((std::memcpy(&all[at], &numbers, sizeof numbers), at += sizeof numbers), ...);
  return all;
}

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes tlv(uint8_t type, const Bytes& value) {
  return bytes_of(type) + bytes_of(static_cast<uint16_t>(value.size())) + value;
}

Bytes entry(uint16_t sub, uint16_t half, uint32_t id, const Bytes& value) {
  return bytes_of(sub, half) + bytes_of(id) + bytes_of(static_cast<uint16_t>(value.size())) + value;
}

Bytes result_tlv(uint32_t result, uint32_t error) {
  return tlv(2, bytes_of(result, error));
}

ServiceReply listed(uint8_t count, const Bytes& entries) {
  return ServiceReply::response(result_tlv(0, 0) + tlv(0x10, bytes_of(count) + entries));
}

// A statistics service (0xE4) that answers as the test says, in place of the modem's own.
class StatsServiceTest : public StateDirectoryTest {
 protected:
  // Not a number that a fetch carries: those are counted.
  static constexpr uint16_t kOwnSlot = 0xBEEF;

  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
    publish();
  }
  void TearDown() override {
    modem_lyrax_api_deinit();
    EXPECT_EQ(platform::open_handle_count(), 0u);
    StateDirectoryTest::TearDown();
  }

  void publish() {
    platform::publish_service(VS_SERVICE_ID, [this](uint16_t msg_id, std::span<const uint8_t> raw) {
      const std::lock_guard lock(mutex_);
      requests.emplace_back(msg_id, Bytes(raw.begin(), raw.end()));
      return answer ? answer() : answer_by_values();
    });
  }

  // The only entry is what `values` has for its id and subscription.
  ServiceReply answer_by_values() const {
    const auto& [msg_id, bytes] = requests.back();
    if (msg_id != VS_GET_STATS_PARAMETER) return ServiceReply::response(result_tlv(0, 0));
    const uint8_t sub = bytes.at(3);
    const uint8_t id = bytes.at(18);
    EXPECT_EQ(bytes, tlv(1, bytes_of(uint16_t{sub})) +
                         tlv(2, bytes_of(static_cast<uint16_t>(++fetches))) +
                         tlv(3, bytes_of(uint8_t{1}) + entry(0, 0, id, {})));
    const auto value = values.find({id, sub});
    return value == values.end() ? listed(0, {}) : listed(1, entry(sub, 0, id, value->second));
  }

  std::vector<std::pair<uint16_t, Bytes>> requests;  // message ids and bytes
  std::function<ServiceReply()> answer;
  std::map<std::pair<uint8_t, uint8_t>, Bytes> values;  // by id and subscription
  static inline uint32_t fetches = 0;                   // of the process

 private:
  std::mutex mutex_;
};

using VsClient = StatsServiceTest;
using ModemApi = StatsServiceTest;
using StatsManager = StatsServiceTest;

// ---- the connection ----

TEST_F(VsClient, HasOneServiceObjectAndHearsOfItsLoss) {
  for (uint32_t other = 0; other < 9; ++other) {
    EXPECT_EQ(vs_get_service_object_internal_v01(other, 2, 6) != nullptr, other == 1);
    EXPECT_EQ(vs_get_service_object_internal_v01(1, other, 6) != nullptr, other == 2);
    EXPECT_EQ(vs_get_service_object_internal_v01(1, 2, other) != nullptr, other == 6);
  }
  vs_init(nullptr);
  ASSERT_EQ(vs_client_init(nullptr), 1u);
  const LogCapture log;
  platform::send_indication(VS_SERVICE_ID, VS_STATE_IND, {1, 1, 0, 1});
  platform::withdraw_service(VS_SERVICE_ID);
  sleep(1);
  EXPECT_EQ(log.count("vs_client_info.event_cb is null, do nothing"), 1u);
  EXPECT_EQ(log.count("service down with error -2"), 1u);
  vs_client_release();
}

// ---- indications ----

using Events = std::vector<std::pair<uint32_t, Bytes>>;

std::mutex g_mutex;
Events g_events;

void note_event(uint32_t event_id, const void* data, uint32_t data_len) {
  const auto* const bytes = static_cast<const uint8_t*>(data);
  const std::lock_guard lock(g_mutex);
  g_events.emplace_back(event_id, Bytes(bytes, bytes + data_len));
}

Events events_of(uint16_t msg_id, const Bytes& indication) {
  platform::send_indication(VS_SERVICE_ID, msg_id, indication);
  sleep(1);
  const std::lock_guard lock(g_mutex);
  return std::exchange(g_events, {});
}

TEST_F(VsClient, ListsAndValuesOfIndicationsAreCutToTheirEvents) {
  vs_init(nullptr);
  ASSERT_EQ(vs_client_init(note_event), 1u);
  // One more than an event holds, or 200 bytes more than its values do.
  Bytes entries;
  Bytes more;
  Bytes event;
  Bytes numbers;
  for (uint16_t i = 0; i < 11; ++i) entries = entries + entry(i, 0xABCD, 90u + i, Bytes(900, 7));
  for (uint16_t i = 0; i < 6; ++i) more = more + entry(0, 0, i, Bytes(900, 7));
  for (uint16_t i = 0; i < 10; ++i) {
    event = event + bytes_of(90u + i) + Bytes(700, 7) + bytes_of(700u, i, uint16_t{0xABCD});
  }
  event = event + bytes_of(10u);
  for (uint32_t i = 0; i < 5; ++i) event = event + bytes_of(i) + Bytes(700, 7) + bytes_of(700u, 0u);
  for (int i = 0; i < 100; ++i) numbers = numbers + bytes_of(101u);
  const Bytes head = bytes_of(0x87654321);
  const Bytes words = tlv(3, {0x34, 0x12}) + tlv(4, {0xDC, 0xFE});
  EXPECT_TRUE(events_of(0x0203, tlv(1, head) + tlv(2, Bytes{11} + entries) +
                                    tlv(0x10, Bytes{6} + more) + tlv(0x11, bytes_of(77u))) ==
              (Events{{3, head + event + bytes_of(5u, 77u)}}));
  EXPECT_TRUE(events_of(0x0204, tlv(1, head) + tlv(2, Bytes(102, 101)) + words) ==
              (Events{{4, head + numbers + bytes_of(100u, uint16_t{0x1234}, uint16_t{0xFEDC})}}));
  vs_client_release();
}

// ---- the client manager ----

constexpr const char* kOtherName = "modem_api_tes";

TEST(WhiteList, KeepsOtherProcessesOut) {
  if (std::string(tervik_utils_get_pid_name()) == kOtherName) {
    int32_t id = -1;
    const LogCapture log;
    const bool refused = modem_api_init() == 6 && modem_api_init_client(0, {}, {}, &id) == 6;
    _exit(refused && id == -1 && modem_lyrax_api_init() == 0
              ? static_cast<int>(log.count("check fail, do nothing"))
              : 1);
  }
  EXPECT_EXIT(restart_under_name(kOtherName, {"--gtest_filter=WhiteList.*"}),
              ::testing::ExitedWithCode(4), "");
}

TEST_F(ModemApi, RequestsAreSentInTheirBytesAndAnswersTakenAsFarAsTheyFit) {
  ASSERT_EQ(modem_lyrax_api_init(), 1u);
  EXPECT_EQ(modem_lyrax_stats_start(), 1u);
  EXPECT_EQ(modem_lyrax_set_feature_status(3, 0, 1), 1u);
  stats_para_data data = {};
  data.para_num = 2;
  data.para[0] = {9, 7, 0x11223344, 3, {1, 2, 3, 4}};
  data.para[1].value_len = 900;
  Bytes entries;
  for (uint16_t i = 0; i < 12; ++i) {
    entries = entries + entry(i, 0xA1B2, 90u + i, Bytes(i * 100u, 0xCC));
  }
  answer = [&entries] { return listed(12, entries); };
  EXPECT_EQ(modem_api_get_stats_parameter(0, 1, kOwnSlot, &data), 0u);
  const Bytes feature = tlv(1, {2, 0, 0, 0});
  const Bytes list = Bytes{2} + entry(0, 0, 0x11223344, {1, 2, 3}) + entry(0, 0, 0, Bytes(700));
  EXPECT_EQ(requests,
            (decltype(requests){{0x0003, feature + tlv(2, {1}) + tlv(0x10, {1})},
                                {0x0003, feature + tlv(2, {3})},
                                {0x0207, tlv(1, {1, 0}) + tlv(2, {0xEF, 0xBE}) + tlv(3, list)}}));
  ASSERT_EQ(data.para_num, 10u);
  for (uint16_t i = 0; i < 10; ++i) {
    const vs_stats_entry& taken = data.para[i];
    ASSERT_EQ(taken.value_len, std::min(i * 100u, 700u));
    EXPECT_EQ(entry(taken.sub, taken.second_half_word, taken.id,
                    Bytes(taken.value, taken.value + taken.value_len)),
              entry(i, 0xA1B2, 90u + i, Bytes(taken.value_len, 0xCC)));
  }
}

TEST_F(ModemApi, OutcomesOfARequestHaveTheirResults) {
  const auto expect = [this](const ServiceReply& reply, uint32_t result, uint32_t result_of_list) {
    answer = [&reply] { return reply; };
    stats_para_data data = {};
    data.para_num = 1;
    EXPECT_EQ(modem_api_set_lyrax_feature_status(0, 2, 1, 1, 1), result);
    EXPECT_EQ(modem_api_get_stats_parameter(0, 0, kOwnSlot, &data), result_of_list);
    EXPECT_EQ(data.para_num, result_of_list == 0 ? 0u : 1u);
  };
  ASSERT_EQ(modem_lyrax_api_init(), 1u);
  const uint32_t errors[][2] = {{0, 0},  {26, 0}, {4, 10}, {17, 5}, {19, 5}, {48, 5}, {49, 5},
                                {24, 4}, {42, 4}, {77, 4}, {94, 4}, {52, 8}, {53, 1}};
  for (const auto& [error, result] : errors) {
    SCOPED_TRACE(error);
    expect(ServiceReply::response(result_tlv(1, error)), result, result == 0 ? 1 : result);
    expect(ServiceReply::response(result_tlv(0, error)), 0, 1);
    expect(ServiceReply::response(result_tlv(2, error)), 1, 1);
  }
  for (const auto& [error, result] :
       {std::pair{-1, 12u}, {-5, 12u}, {-3, 11u}, {-4, 1u}, {7, 1u}}) {
    expect(ServiceReply::transport_error(error), result, result);
  }
  expect(ServiceReply::transport_error(-2), 0, 1);
  expect(ServiceReply::response({2, 8, 0, 0}), 12, 12);
  expect(listed(0, {}), 0, 0);
}

std::vector<uint32_t> g_told;

TEST_F(ModemApi, NumbersOutOfRangeAreRefusedAndTheClientHearsOfItsService) {
  const auto tell = [](uint32_t event, uint32_t) { g_told.push_back(event); };
  int32_t own_id = -1;
  ASSERT_EQ(modem_api_init(), 0u);
  ASSERT_EQ(modem_api_init_client(0, nullptr, tell, &own_id), 0u);
  EXPECT_EQ(own_id, 0);
  stats_para_data data = {};
  for (const uint32_t num : {0u, 11u, UINT32_MAX}) {
    data.para_num = num;
    EXPECT_EQ(modem_api_get_stats_parameter(0, 0, kOwnSlot, &data), 5u);
  }
  data.para_num = 1;
  for (const int32_t id : {-1, 1, 9, 10, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(modem_api_get_stats_parameter(id, 0, kOwnSlot, &data), 7u);
    EXPECT_EQ(modem_api_set_lyrax_feature_status(id, 2, 1, 1, 1), 7u);
    EXPECT_EQ(modem_api_free_client(id), id == 1 || id == 9 ? 0u : 7u);
  }
  modem_api_operational_status_cb(0, 4);
  EXPECT_EQ(modem_api_get_stats_parameter(0, 0, kOwnSlot, &data), 7u);
  EXPECT_EQ(requests.size(), 0u);
  EXPECT_EQ(std::exchange(g_told, {}), (std::vector<uint32_t>{0x10002, 0x10001}));
  for (int times = 0; times < 2; ++times) EXPECT_EQ(modem_api_free_client(0), 0u);
  modem_api_release();
}

TEST_F(ModemApi, ASecondInitReleasesTheFirstClient) {
  for (int times = 0; times < 3; ++times) {
    EXPECT_EQ(modem_lyrax_api_init_ex(note_event, nullptr), 1u);
    EXPECT_EQ(platform::open_handle_count(), 1u);
    EXPECT_EQ(events_of(VS_STATE_IND, {1, 1, 0, 7}).size(), 1u);
  }
}

std::string g_told_later;  // to the callbacks of asynchronous requests

void take_response(uint8_t* data, uint32_t len, uintptr_t user_data, uint32_t result) {
  g_told_later += std::to_string(user_data) + "/" + std::to_string(result);
  if (data != nullptr) g_told_later += "/" + std::string(data, data + len);
  free(data);
}

// What the callback is told of a response to this request. The response path frees both.
std::string told_by(unsigned msg_id, const Bytes& response, int error, const Bytes& request) {
  const auto on_heap = [](const Bytes& bytes) {
    return bytes.empty() ? nullptr : std::memcpy(malloc(bytes.size()), bytes.data(), bytes.size());
  };
  vs_client_command_cb(nullptr, msg_id, on_heap(response), static_cast<unsigned>(response.size()),
                       on_heap(request), error);
  return std::exchange(g_told_later, {});
}

TEST(AsynchronousResponse, EndsInItsCallbackOnce) {
  vs_init(modem_api_process_response);
  const Bytes good = bytes_of(0u, 0u, 3u) + Bytes{'a', 'b', 'c'};
  const std::tuple<unsigned, Bytes, int, std::string> rows[] = {
      {0, good, -2, "5/0/abc"},
      {0, bytes_of(0u, 0u, 0u), 0, "5/0/"},
      {3, {}, -3, "5/3"},
      {0, {good.begin(), good.end() - 1}, 0, "5/3"},
      {0, bytes_of(0u, 0u, UINT32_MAX), 0, "5/3"},
      {0, Bytes(11), 0, "5/3"},
      {0, {2}, 0, "5/1"},
      {3, bytes_of(1u, 4u), 0, "5/10"},
      {3, good, 0, "5/2"},
      {3, good, -3, "5/11"}};
  for (const auto& [msg_id, response, error, told] : rows) {
    EXPECT_EQ(told_by(msg_id, response, error, bytes_of(take_response, uintptr_t{5})), told);
    EXPECT_EQ(told_by(msg_id, response, error, Bytes(sizeof(modem_api_async_request))), "");
    EXPECT_EQ(told_by(msg_id, response, error, {}), "");
  }
}

// ---- getters ----

TEST_F(StatsManager, GettersOfTwoThreadsKeepTheirBlobsApart) {
  values = {{{0x64, 0}, Bytes(8, 1)},
            {{0x64, 1}, Bytes(8, 2)},
            {{0x2C, 0}, {1, 1, 0, 0, 0}},
            {{0x2C, 1}, {1, 2, 0, 0, 0}}};
  const auto get_often = [](uint8_t sub) {
    for (int i = 0; i < 10; ++i) {
      modem_lyrax_mcs_trm_asdiv record{};
      EXPECT_EQ(modem_lyrax_mcs_trm_asdiv_get(sub, &record), 1u);
      EXPECT_EQ(std::memcmp(&record, Bytes(8, sub + 1).data(), 8), 0);
      EXPECT_EQ(modem_sys_mode_get(sub), sub + 1);
    }
  };
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    const Shuffle shuffle(seed);
    auto other = std::async(std::launch::async, get_often, uint8_t{1});
    get_often(0);
    other.get();
    EXPECT_EQ(platform::open_handle_count(), 1u);
    modem_lyrax_api_deinit();
  }
}

TEST_F(StatsManager, WhatWasNotAskedForIsRefused) {
  const auto one = [](uint16_t sub, uint32_t id, size_t length) {
    return entry(sub, 0, id, Bytes(length));
  };
  const std::pair<uint8_t, Bytes> lists[] = {{2, one(1, 0x64, 8) + one(1, 0x64, 8)},
                                             {1, one(1, 0x65, 8)},
                                             {1, one(0, 0x64, 8)},
                                             {1, one(1, 0x64, 0)}};
  for (const auto& [count, entries] : lists) {
    answer = [&count = count, &entries = entries] { return listed(count, entries); };
    EXPECT_EQ(modem_lyrax_data_get(1, 0x64), 1u) << count;
    ++fetches;
  }
}

TEST_F(StatsManager, TxPowerIsAvailableOrNot) {
  const auto nr = [](float power) { return bytes_of(1u, power) + Bytes(44); };
  for (const auto& [power, wanted] :
       {std::pair{22.9F, 22}, {-3.7F, -3}, {NAN, 65535}, {-3e9F, 65535}, {2147483648.0F, 65535}}) {
    values = {{{0x2C, 0}, {1, 12, 0, 0, 0}},
              {{0x5A, 0}, nr(power)},
              {{0x2C, 1}, {1, 12, 0, 0, 0}},
              {{0x5A, 1}, nr(-9)}};
    EXPECT_EQ(modem_tx_power_get_by_sub(0), wanted);
    EXPECT_EQ(modem_tx_power_get_for_max_sub(), wanted == 65535 ? -9 : wanted);
  }
  for (const Bytes& mode : {Bytes{0, 12, 0, 0, 0}, {1, 12, 0, 0}}) {
    values[{0x2C, 1}] = mode;
    EXPECT_EQ(modem_sys_mode_get(1), -1);
  }
}

}  // namespace
}  // namespace kiv::test
