// The statistics client over its wire: what is sent, and what becomes of answers and indications.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "modem_lyrax_mgr.h"
#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/process_name.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
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

// The bytes 1, 2, 3 and so on.
Bytes counted_bytes(size_t count) {
  Bytes bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i + 1);
  return bytes;
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
    const uint16_t slot = static_cast<uint16_t>(bytes.at(8) | bytes.at(9) << 8);
    if (slot != kOwnSlot) {
      EXPECT_EQ(bytes, tlv(1, bytes_of(uint16_t{sub})) +
                           tlv(2, bytes_of(static_cast<uint16_t>(++fetches))) +
                           tlv(3, bytes_of(uint8_t{1}) + entry(0, 0, id, {})));
    }
    const auto value = values.find({id, sub});
    return value == values.end() ? listed(0, {}) : listed(1, entry(sub, 0, id, value->second));
  }

  std::vector<std::pair<uint16_t, Bytes>> requests;  // message ids and bytes
  std::function<ServiceReply()> answer;
  std::map<std::pair<uint8_t, uint8_t>, Bytes> values;
  static inline uint32_t fetches = 0;  // of the process
};

using Numbers = std::vector<uint32_t>;
using VsClient = StatsServiceTest;

Numbers g_statuses;

void note_status(uint32_t client_type, uint32_t status) {
  g_statuses.push_back(client_type * 100 + status);
}

TEST_F(VsClient, ConnectsInTenAttemptsASecondApart) {
  const struct {
    bool up;
    bool inited;
    uint32_t connected;
    const char* returned;
    Numbers statuses;
  } rows[] = {{true, true, 1, "qmi_client_init_instance returned (0)", {1, 3, 0}},
              {true, false, 0, "qmi_client_init_instance returned failure(-4)", {1, 2, 0}},
              {false, true, 0, "qmi_client_init_instance returned failure(-3)", {1, 2, 0}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.returned);
    if (!row.up) platform::withdraw_service(VS_SERVICE_ID);
    if (row.inited) vs_init();
    g_statuses.clear();
    const LogCapture log;
    const TimeLapse lapse(100);
    vs_client_set_operational_status_callback(note_status);
    EXPECT_EQ(vs_client_init([](uint32_t, const void*, uint32_t) {}), row.connected);
    const size_t attempts = row.connected != 0 ? 1 : 10;
    EXPECT_EQ(lapse.slept(), std::vector<std::chrono::nanoseconds>(attempts - 1, 1s));
    EXPECT_EQ(log.contains("try # 9 port[65535]"), row.connected == 0);
    EXPECT_EQ(log.count(row.returned), 1u);
    EXPECT_EQ(vs_client_release(), 1u);
    EXPECT_EQ(g_statuses, row.statuses);
    EXPECT_EQ(platform::open_handle_count(), 0u);
  }
}

// ---- indications ----

using Events = std::vector<std::pair<uint32_t, Bytes>>;

std::mutex g_mutex;
std::condition_variable g_arrived;
Events g_events;
std::atomic<bool> g_may_come = true;

void note_event(uint32_t event_id, const void* data, uint32_t data_len) {
  EXPECT_TRUE(g_may_come);
  const auto* const bytes = static_cast<const uint8_t*>(data);
  const std::lock_guard lock(g_mutex);
  g_events.emplace_back(event_id, Bytes(bytes, bytes + data_len));
  g_arrived.notify_all();
}

// The events of the indications before a last one, which is not among them.
Events events_of(uint16_t msg_id, const std::vector<Bytes>& indications) {
  const std::pair<uint32_t, Bytes> last{VS_EVENT_STATE, {0x5A}};
  {
    const std::lock_guard lock(g_mutex);
    g_events.clear();
  }
  for (const Bytes& each : indications) platform::send_indication(VS_SERVICE_ID, msg_id, each);
  platform::send_indication(VS_SERVICE_ID, VS_STATE_IND, tlv(1, last.second));
  std::unique_lock lock(g_mutex);
  EXPECT_TRUE(g_arrived.wait_for(lock, 10s,
                                 [&last] { return !g_events.empty() && g_events.back() == last; }));
  Events events = g_events;
  if (!events.empty()) events.pop_back();
  return events;
}

// Of the list's first `count` entries, in the order of an event; the others are zeros.
Bytes converted(size_t count, size_t slots, size_t value_len) {
  Bytes all;
  for (size_t i = 0; i < count; ++i) {
    Bytes value = counted_bytes(value_len);
    value.resize(700);
    all = all + bytes_of(static_cast<uint32_t>(0x10052 + i)) + value +
          bytes_of(static_cast<uint32_t>(value_len), static_cast<uint16_t>(i), uint16_t{0xABCD});
  }
  all.resize(slots * 712);
  return all;
}

Bytes encoded(uint8_t count, size_t value_len) {
  Bytes list = bytes_of(count);
  for (uint16_t i = 0; i < count; ++i) {
    list = list + entry(i, 0xABCD, 0x10052u + i, counted_bytes(value_len));
  }
  return list;
}

TEST_F(VsClient, IndicationsBecomeEventsOrNothing) {
  vs_init();
  ASSERT_EQ(vs_client_init(note_event), 1u);
  const uint32_t none = 0xFFFFFFFF;
  const Bytes value = tlv(1, bytes_of(0x87654321));
  const Bytes head = bytes_of(0x87654321);
  Bytes widened(400);
  for (uint8_t i = 0; i < 3; ++i) widened[4u * i] = static_cast<uint8_t>(0xF0 + i);
  const Bytes tail = tlv(3, bytes_of(uint16_t{0x1234})) + tlv(4, bytes_of(uint16_t{0xFEDC}));
  const struct {
    const char* name;
    uint16_t msg_id;
    Bytes indication;
    uint32_t event_id;
    Bytes record;
    bool mandatory_only = true;
  } rows[] = {
      {"flags", 0x0004, value + tlv(2, {2}) + tlv(3, {0}), 2, head + Bytes{1, 0, 0, 0}},
      {"one", 0x0203, value + tlv(2, encoded(1, 5)), 3,
       head + converted(1, 10, 5) + bytes_of(1u) + converted(0, 5, 0) + bytes_of(0u, none)},
      {"full", 0x0203,
       value + tlv(2, encoded(2, 900)) + tlv(0x10, encoded(5, 1)) + tlv(0x11, bytes_of(77u)), 3,
       head + converted(2, 10, 700) + bytes_of(2u) + converted(5, 5, 1) + bytes_of(5u, 77u), false},
      {"cut", 0x0203, value + tlv(2, encoded(12, 1)) + tlv(0x10, encoded(7, 2)), 3,
       head + converted(10, 10, 1) + bytes_of(10u) + converted(5, 5, 2) + bytes_of(5u, none),
       false},
      {"bytes", 0x0204, value + tlv(2, {3, 0xF0, 0xF1, 0xF2}) + tail, 4,
       head + widened + bytes_of(3u, uint16_t{0x1234}, uint16_t{0xFEDC})},
      {"state", 0x0601, tlv(1, {0x80}), 5, {0x80}},
      {"unknown", 0x0205, value, 0, {}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Events wanted = row.event_id == 0 ? Events{} : Events{{row.event_id, row.record}};
    EXPECT_TRUE(events_of(row.msg_id, {row.indication}) == wanted);
    std::vector<Bytes> cuts;
    for (size_t cut = 0; row.mandatory_only && cut < row.indication.size(); ++cut) {
      cuts.emplace_back(row.indication.begin(), row.indication.begin() + static_cast<long>(cut));
    }
    EXPECT_EQ(events_of(row.msg_id, cuts).size(), 0u);
  }
  vs_client_release();
}

TEST_F(VsClient, NoEventComesAfterTheRelease) {
  std::atomic<bool> done = false;
  std::thread modem([&done] {
    while (!done) {
      platform::send_indication(VS_SERVICE_ID, VS_STATE_IND, {1, 1, 0, 1});
      platform::send_indication(VS_SERVICE_ID, VS_STATS_EVENT_IND, {1, 4, 0, 1, 2, 3, 4});
      std::this_thread::sleep_for(100us);
    }
  });
  for (int round = 0; round < 40; ++round) {
    vs_init();
    g_may_come = true;
    ASSERT_EQ(vs_client_init(note_event), 1u);
    std::this_thread::sleep_for(500us);
    vs_client_release();
    g_may_come = false;
  }
  done = true;
  modem.join();
  g_may_come = true;
}

using ModemApi = StatsServiceTest;
using StatsManager = StatsServiceTest;

constexpr const char* kOtherName = "modem_api_tes";

TEST(WhiteList, KeepsOtherProcessesOut) {
  if (std::string(tervik_utils_get_pid_name()) == kOtherName) {
    int32_t id = -1;
    const bool refused = modem_api_init() == 6 && modem_api_init_client(0, {}, {}, &id) == 6;
    _exit(refused && id == -1 && modem_lyrax_api_init() == 0 ? 42 : 1);
  }
  EXPECT_EXIT(restart_under_name(kOtherName, {"--gtest_filter=WhiteList.*"}),
              ::testing::ExitedWithCode(42), "");
}

TEST_F(ModemApi, FeatureRequestsAreSentInTheirBytes) {
  ASSERT_EQ(modem_lyrax_api_init(), 1u);
  EXPECT_EQ(modem_lyrax_stats_start(), 1u);
  EXPECT_EQ(modem_lyrax_set_feature_status(3, 0, 1), 1u);
  ASSERT_EQ(requests.size(), 2u);
  const Bytes feature = tlv(1, {2, 0, 0, 0});
  EXPECT_EQ(requests[0].first, 0x0003);
  EXPECT_EQ(requests[0].second, feature + tlv(2, {1}) + tlv(0x10, {1}));
  EXPECT_EQ(requests[1].second, feature + tlv(2, {3}));
}

TEST_F(ModemApi, ParametersAreSentAndTakenAsFarAsTheyFit) {
  ASSERT_EQ(modem_lyrax_api_init(), 1u);
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
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].first, 0x0207);
  EXPECT_EQ(requests[0].second,
            tlv(1, {1, 0}) + tlv(2, {0xEF, 0xBE}) +
                tlv(3, Bytes{2} + entry(0, 0, 0x11223344, {1, 2, 3}) + entry(0, 0, 0, Bytes(700))));
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
  const int transport_errors[][2] = {{-1, 12}, {-5, 12}, {-3, 11}, {-4, 1}, {-14, 1}, {7, 1}};
  for (const auto& [error, result] : transport_errors) {
    SCOPED_TRACE(error);
    const auto wanted = static_cast<uint32_t>(result);
    expect(ServiceReply::transport_error(error), wanted, wanted);
  }
  expect(ServiceReply::transport_error(-2), 0, 1);
  expect(ServiceReply::response({2, 8, 0, 0}), 12, 12);
  expect(listed(0, {}), 0, 0);
}

Numbers g_told;

TEST_F(ModemApi, OneConnectedClientAtATime) {
  const auto tell = [](uint32_t event, uint32_t) { g_told.push_back(event); };
  const auto add = [&tell](uint32_t type, int32_t wanted_id = -1) {
    int32_t id = -1;
    const uint32_t result = modem_api_init_client(type, nullptr, tell, &id);
    EXPECT_EQ(id, wanted_id);
    return result;
  };
  ASSERT_EQ(modem_api_init(), 0u);
  EXPECT_EQ(add(1), 4u);
  {
    const TimeLapse lapse(100);
    platform::withdraw_service(VS_SERVICE_ID);
    EXPECT_EQ(add(0), 1u);
    publish();
  }
  EXPECT_EQ(add(0, 0), 0u);
  EXPECT_EQ(add(0), 15u);
  stats_para_data data = {};
  for (const uint32_t num : {0u, 11u, UINT32_MAX}) {
    data.para_num = num;
    EXPECT_EQ(modem_api_get_stats_parameter(0, 0, kOwnSlot, &data), 5u);
  }
  EXPECT_EQ(modem_api_get_stats_parameter(0, 0, kOwnSlot, nullptr), 5u);
  data.para_num = 1;
  for (const int32_t id : {-1, 1, 9, 10, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(modem_api_get_stats_parameter(id, 0, kOwnSlot, &data), 7u);
    EXPECT_EQ(modem_api_set_lyrax_feature_status(id, 2, 1, 1, 1), 7u);
    EXPECT_EQ(modem_api_free_client(id), id == 1 || id == 9 ? 0u : 7u);
  }
  modem_api_operational_status_cb(0, 4);
  EXPECT_EQ(modem_api_get_stats_parameter(0, 0, kOwnSlot, &data), 7u);
  EXPECT_EQ(add(0), 9u);
  EXPECT_EQ(requests.size(), 0u);
  EXPECT_EQ(g_told, (Numbers{0x10002, 0x10001}));
  const LogCapture log;
  for (const size_t freed_before : {0u, 1u}) {
    EXPECT_EQ(modem_api_free_client(0), 0u);
    EXPECT_EQ(log.count("client already freed"), freed_before);
  }
  modem_api_release();
}

// ---- getters ----

template <auto getter>
uint32_t get(uint32_t sub, void* record) {
  return [&]<class Record>(uint32_t (*run)(uint32_t, Record*)) {
    return run(sub, static_cast<Record*>(record));
  }(getter);
}

// The widths of a blob's fields, and where the record has those behind the others' alignment.
constexpr const char* kLte = "1142124444444444444444";

size_t place_of(const std::string& widths, size_t field, size_t end_of_last) {
  const auto width = static_cast<size_t>(widths[field] - '0');
  if (widths != kLte || field < 6) return (end_of_last + width - 1) / width * width;
  return 16 + (field - 6) % 4 * 16 + (field - 6) / 4 * 4;  // by quantity, not by antenna
}

const struct Getter {
  uint8_t id;
  uint32_t (*run)(uint32_t sub, void* record);
  size_t record_size;
  std::string widths;
} kGetters[] = {
    {0x52, get<modem_lyrax_lte_srv_meas_info_get_for_pcc>, 80, kLte},
    {0x67, get<modem_lyrax_lte_srv_meas_info_get_for_scc1>, 80, kLte},
    {0x68, get<modem_lyrax_lte_srv_meas_info_get_for_scc2>, 80, kLte},
    {0x69, get<modem_lyrax_lte_srv_meas_info_get_for_scc3>, 80, kLte},
    {0x6A, get<modem_lyrax_lte_srv_meas_info_get_for_scc4>, 80, kLte},
    {0x6B, get<modem_lyrax_lte_srv_meas_info_get_for_scc5>, 80, kLte},
    {0x6C, get<modem_lyrax_lte_srv_meas_info_get_for_scc6>, 80, kLte},
    {0x87, get<modem_lyrax_nr5g_srv_meas_info_get_for_pcc>, 24, "444444"},
    {0x06, get<modem_lyrax_nr5g_srv_meas_info_get_for_scc1>, 24, "444444"},
    {0x07, get<modem_lyrax_nr5g_srv_meas_info_get_for_scc2>, 24, "444444"},
    {0x5E, get<modem_lyrax_nr5g_ll1_fw_rx_control_agc_get>, 20, "44444"},
    {0x70, get<modem_lyrax_nr5g_ll1_fw_serving_ftl_get>, 20, "44444"},
    {0x71, get<modem_lyrax_nr5g_ml1_antenna_switch_diversity_get>, 16, "4111111111111"},
    {0x6E, get<modem_lyrax_wcdma_pn_search_edition2_get>, 12, "144"},
    {0x6F, get<modem_lyrax_gsm_l1_rx_diversity_metrics_get>, 12, "144"},
    {0x64, get<modem_lyrax_mcs_trm_asdiv_get>, 8, "112211"},
    {0x62, get<modem_lyrax_lte_pusch_power_info_get>, 10, "12122"},
    {0x5A, get<modem_lyrax_nr5g_mac_ul_phy_ch_power_info_get>, 52, "4444444444444"},
};

TEST_F(StatsManager, GettersFillTheirRecordsAsFarAsTheBlobGoes) {
  for (const Getter& getter : kGetters) {
    SCOPED_TRACE(int{getter.id});
    const size_t fields = getter.widths.size();
    size_t whole = 0;
    for (const char width : getter.widths) whole += static_cast<size_t>(width - '0');
    for (size_t length = 1; length <= whole + 1; ++length) {
      const Bytes blob = values[{getter.id, 1}] = counted_bytes(length);
      Bytes wanted(getter.record_size);
      size_t at = 0;
      size_t end = 0;
      size_t filled = 0;
      for (; filled < fields; ++filled) {
        const auto width = static_cast<size_t>(getter.widths[filled] - '0');
        if (at + width > length) break;
        const size_t place = place_of(getter.widths, filled, end);
        std::memcpy(&wanted[place], &blob[at], width);
        end = place + width;
        at += width;
      }
      Bytes record(getter.record_size, 0xEE);
      const LogCapture log;
      EXPECT_EQ(getter.run(1, record.data()), filled == fields ? 1u : 0u);
      EXPECT_EQ(record, wanted) << length;
      EXPECT_EQ(
          log.contains("g_lyrax_data_left(" + std::to_string(length - at) + ") is not enough for "),
          filled < fields);
      EXPECT_EQ(log.count("g_lyrax_data_left(3) is not enough for snr_rx3, id(0x52)"),
                getter.id == 0x52 && length == 74 ? 1u : 0u);
    }
    const LogCapture log;
    EXPECT_EQ(getter.run(1, nullptr), 0u);
    EXPECT_EQ(log.count("ptr_lyrax_data is NULL"), 1u);
  }
}

TEST_F(StatsManager, WhatWasNotAskedForIsRefused) {
  const auto one = [](uint16_t sub, uint32_t id, const Bytes& value) {
    return listed(1, entry(sub, 0, id, value));
  };
  const Bytes good = entry(1, 0, 0x52, counted_bytes(75));
  const struct {
    ServiceReply reply;
    const char* before;  // the request's number
    const char* after;
  } rows[] = {
      {listed(0, {}), "data, empty, number = ", ", sub = 1, ret id_num = 0, id = 82"},
      {listed(2, good + good),
       "data, id num error, number = ", ", sub = 1, ret id_num = 2, id = 82"},
      {one(1, 0x53, {1}),
       "data, ret_id(83) is invalid, number = ", ", sub = 1, ret id_num = 1, id = 82"},
      {one(0, 0x52, {1}),
       "data, ret_sub(0) is invalid, number = ", ", sub = 1, ret id_num = 1, id = 82"},
      {one(1, 0x52, {}), "data, data_len(0) is invalid, should be in (0, 700], number = ",
       ", sub = 1, ret id_num = 1, id = 82"},
      {ServiceReply::response(result_tlv(1, 48)),
       "data fail, number = ", ", ret = 5, sub = 1, id = 82"},
  };
  modem_lyrax_lte_srv_meas_info record;
  for (const auto& row : rows) {
    answer = [&row] { return row.reply; };
    const LogCapture log;
    EXPECT_EQ(modem_lyrax_lte_srv_meas_info_get_for_pcc(1, &record), 0u);
    EXPECT_EQ(
        log.count("Fail to get " + std::string(row.before) + std::to_string(++fetches) + row.after),
        1u)
        << row.before;
  }
  const size_t sent = requests.size();
  const LogCapture log;
  EXPECT_EQ(modem_lyrax_lte_srv_meas_info_get_for_pcc(2, &record), 0u);
  EXPECT_EQ(log.count("modem_api_get_stats_parameter, sub(2) is invalid"), 1u);
  EXPECT_EQ(requests.size(), sent);
}

TEST_F(StatsManager, TxPowerFollowsTheRadioTechnology) {
  const auto nr = [](float power) { return bytes_of(1u, power) + Bytes(44); };
  const auto lte = [](uint16_t power) { return bytes_of(uint8_t{1}) + bytes_of(power) + Bytes(5); };
  const Bytes on_nr{1, 12, 0, 0, 0};
  const Bytes on_lte{1, 9, 0, 0, 0};
  const float nan = NAN;
  const struct {
    Bytes mode;
    Bytes nr;
    Bytes lte;
    int32_t rat;
    int32_t wanted;
  } rows[] = {
      {on_nr, nr(22.9F), lte(5), 12, 22},         {on_nr, nr(-3.7F), {}, 12, -3},
      {on_nr, nr(nan), lte(5), 12, 65535},        {on_nr, nr(-3e9F), {}, 12, 65535},
      {on_nr, nr(INFINITY), {}, 12, 65535},       {on_nr, {1, 0}, lte(5), 12, 65535},
      {on_lte, nr(1), lte(0xFFF6), 9, -10},       {on_lte, nr(1), {1}, 9, 65535},
      {{1, 5, 0, 0, 0}, nr(1), lte(5), 5, 65535}, {{0, 12, 0, 0, 0}, nr(1), lte(5), -1, 65535},
      {{1, 12, 0, 0}, nr(1), lte(5), -1, 65535},  {{}, nr(1), lte(5), -1, 65535},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    values = {{{0x2C, 1}, row.mode}, {{0x5A, 1}, row.nr}, {{0x62, 1}, row.lte}};
    EXPECT_EQ(modem_sys_mode_get(1), row.rat);
    EXPECT_EQ(modem_tx_power_get_by_sub(1), row.wanted);
  }
  const struct {
    int32_t powers[2];
    int32_t larger;
  } pairs[] = {
      {{65535, 65535}, 65535}, {{65535, 5}, 5}, {{7, 65535}, 7}, {{-2, 4}, 4}, {{4, -2}, 4}};
  for (const auto& pair : pairs) {
    values = {{{0x2C, 0}, on_lte}, {{0x2C, 1}, on_lte}};
    for (uint8_t sub = 0; sub < 2; ++sub) {
      if (pair.powers[sub] != 65535) {
        values[{0x62, sub}] = lte(static_cast<uint16_t>(pair.powers[sub]));
      }
    }
    EXPECT_EQ(modem_tx_power_get_for_max_sub(), pair.larger);
  }
  for (const auto& [dds, wanted] : {std::pair{"0", 4}, {"1", -2}, {"5", 65535}, {"-1", 65535}}) {
    write_state_file_text("properties",
                          "persist.radio.default_data_sub=" + std::string(dds) + "\n");
    EXPECT_EQ(modem_tx_power_get_for_dds_sub(), wanted) << dds;
  }
}

}  // namespace
}  // namespace kiv::test
