// The PDC requests and the MBN operations on a service that answers as the test says.
#include "pdc_utils.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <random>
#include <thread>

#include "qcril_qmi_util.h"
#include "tervik_extend_api.h"
#include "tervik_mbn_utils.h"
#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Words = std::vector<uint32_t>;  // a message: all fields take 32 bits, flags included
using platform::ServiceReply;

uint32_t service_id() {
  return pdc_get_service_object_internal_v01(1, 18, 6)->service_id;
}

ServiceReply respond(const Words& message) {
  return ServiceReply::response(words(message));
}

// A get-selected indication with these lengths (0: no such id), the ids filled with `fill`.
Words selection(uint32_t error, uint32_t active_len, uint32_t pending_len = 0, uint8_t fill = 1) {
  Words message(67, fill * 0x01010101u);
  message[0] = error;
  message[1] = active_len != 0;
  message[2] = active_len;
  message[34] = pending_len != 0;
  message[35] = pending_len;
  return message;
}

void indicate(uint16_t id, uint32_t error = 0) {
  const Words message = id == 0x22 ? selection(error, 4) : Words{error};
  platform::send_indication(service_id(), id, words(message));
}

ServiceReply accept(uint16_t) {
  return respond({0, 0});
}

ServiceReply accept_and_indicate(uint16_t id) {
  indicate(id);
  return respond({0, 0});
}

// True once `is_true` is; at most some real seconds later, however fast the time runs.
bool eventually(const std::function<bool()>& is_true) {
  for (int tick = 0; tick < 5000; ++tick) {
    if (is_true()) return true;
    poll(nullptr, 0, 1);
  }
  return false;
}

bool becomes_one(int req_type, uint32_t pdc_req_waiter::*field) {
  return eventually([=] {
    const std::lock_guard lock(g_pdc_info_ex.mutex);
    return g_pdc_info_ex.waiters[static_cast<size_t>(req_type - 1)].*field == 1;
  });
}

int deactivate() {
  return pdc_deactivate_config_ex(1, 1);
}

int select() {
  const pdc_config_pdc_info config{.config_id_len = 4, .config_id = {1}};
  return pdc_select_config_ex(&config, 1, 1);
}

const struct {
  uint16_t id;
  int req_type;
  int (*request)();
  const char* ignored;
} kKinds[] = {
    {0x2B, 4, deactivate, "Do nothing, No QMI_PDC_DEACTIVATE_CONFIG_REQ_V01"},
    {0x22, 6,
     [] { return pdc_get_current_config_ex(std::make_unique<pdc_config_pdc_info>().get(), 1, 1); },
     "Do nothing, No QMI_PDC_GET_SELECTED_CONFIG_REQ_V01"},
    {0x23, 7, select, "Do nothing, No QMI_PDC_SET_SELECTED_CONFIG_REQ_V01"},
    {0x27, 8, [] { return pdc_activate_config_ex(2, 0, 1, 1); },
     "Do nothing, No QMI_PDC_ACTIVATE_CONFIG_REQ_V01"}};

class PdcTest : public ExtensionClientTest {
 protected:
  void SetUp() override {
    ExtensionClientTest::SetUp();
    publish();
    ASSERT_EQ(tervik_mbn_init(1), 0);
  }
  void TearDown() override {
    pdc_clean_ex();
    EXPECT_EQ(g_pdc_info_ex.get_sel_holder, nullptr);
    for (const pdc_req_waiter& waiter : g_pdc_info_ex.waiters) {
      EXPECT_EQ(waiter.is_handling + waiter.is_waiting + waiter.is_done + waiter.timer_id, 0u);
    }
    ExtensionClientTest::TearDown();
  }
  void publish() {
    platform::publish_service(service_id(), [this](uint16_t id, std::span<const uint8_t> bytes) {
      Words message(bytes.size() / 4);
      std::memcpy(message.data(), bytes.data(), 4 * message.size());
      std::string event = std::to_string(id - 0x20) + ":";
      for (const uint32_t word : message) event += " " + std::to_string(word);
      note(event);
      return answer(id);
    });
  }
  void note(const std::string& event) {
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
  }
  // What the modem was asked since the last call: message ids from 0x20 on, and words.
  Strings asked() {
    const std::lock_guard lock(mutex_);
    return std::exchange(events_, {});
  }

  std::function<ServiceReply(uint16_t)> answer = accept_and_indicate;
  const ExtensionStub extension{[this](const ExtensionRequest&) {
    note("sync");
    return ExtensionAnswer{};
  }};

 private:
  std::mutex mutex_;
  Strings events_;
};

std::string id_text(const std::string& first, const std::string& others) {
  std::string text = first;
  for (int word = 1; word < 31; ++word) text += others;
  return text;
}

TEST_F(PdcTest, RequestsNameTheSubscriptionByConfigType) {
  for (const uint32_t type : {0u, 1u, 2u}) {
    answer = [](uint16_t id) {
      if (id != 0x22) return accept_and_indicate(id);
      platform::send_indication(service_id(), id, words(selection(0, 124)));
      return accept(id);
    };
    pdc_config_pdc_info config{};
    EXPECT_EQ(pdc_get_current_config_ex(&config, type, 1), 0);
    EXPECT_EQ(pdc_deactivate_config_ex(1, type), 0);
    EXPECT_EQ(pdc_select_config_ex(&config, type, 1), 0);
    EXPECT_EQ(pdc_activate_config_ex(type, 1, 1, 3), 0);
    EXPECT_EQ(pdc_activate_config_ex2(type, 1), 0);
    const std::string t = std::to_string(type);
    const std::string id = id_text(" 124 16843009", " 16843009");
    EXPECT_EQ(asked(), (Strings{"2: " + t + (type <= 1 ? " 1 1" : " 0 0"), "11: " + t + " 1 1",
                                "3: " + t + id + (type == 1 ? " 1 1" : " 0 0"),
                                "7: " + t + " 1 1" + (type == 1 ? " 1 1 1 3" : " 0 0 0 0"),
                                "7: " + t + " 1 0" + (type == 1 ? " 1 1 1 1" : " 0 0 0 0")}));
    config.config_id_len = 125;
    EXPECT_EQ(pdc_select_config_ex(&config, type, 1), -4);
    EXPECT_EQ(asked(), Strings{});
  }
}

TEST_F(PdcTest, AnIndicationCompletesOneRequestAtAnyTime) {
  const TimeLapse lapse(500);
  for (const auto& kind : kKinds) {
    SCOPED_TRACE(kind.ignored);
    const LogCapture log;
    size_t ignored = 0;
    const auto is_ignored = [&] {
      indicate(kind.id);
      ++ignored;
      return eventually([&] { return log.count(kind.ignored) == ignored; });
    };
    answer = [&kind](uint16_t id) {
      indicate(id);
      EXPECT_TRUE(becomes_one(kind.req_type, &pdc_req_waiter::is_done));
      return accept(id);
    };
    EXPECT_EQ(kind.request(), 0) << "before the wait";
    EXPECT_EQ(log.messages_from("qmi_pdc_request_timer"), Strings{});
    EXPECT_TRUE(is_ignored()) << "twice";
    answer = accept;
    EXPECT_EQ(kind.request(), -1);
    EXPECT_TRUE(is_ignored()) << "after the time-out";
    auto waiting = std::async(std::launch::async, kind.request);
    ASSERT_TRUE(becomes_one(kind.req_type, &pdc_req_waiter::is_waiting));
    qmi_pdc_init_pdc_info_ex();
    EXPECT_EQ(waiting.get(), -1);
    EXPECT_TRUE(is_ignored()) << "after a reconnection";
  }
}

TEST_F(PdcTest, AFailedRequestLeavesItsKindFree) {
  const std::function<ServiceReply(uint16_t)> failures[] = {
      [](uint16_t) {
        return respond({1, 48});
      },
      [](uint16_t) {
        return respond({2, 0});
      },
      [](uint16_t) { return respond({0}); },
      [](uint16_t) { return ServiceReply::transport_error(-17); },
      [](uint16_t id) { return indicate(id, 7), accept(id); }};
  for (const auto& kind : kKinds) {
    for (const auto& failure : failures) {
      answer = failure;
      EXPECT_EQ(kind.request(), -1) << kind.ignored;
      answer = accept_and_indicate;
      EXPECT_EQ(kind.request(), 0) << kind.ignored;
      EXPECT_EQ(asked().size(), 2u);
    }
  }
  answer = [](uint16_t id) { return indicate(id), respond({1, 26}); };
  EXPECT_EQ(kKinds[1].request(), 0) << "nothing to do is as good as done";
}

TEST_F(PdcTest, GetSelectedTakesTheActiveIdAlone) {
  const auto resized = [](size_t size) {
    Words message = selection(0, 4);
    message.resize(size);
    return message;
  };
  const char* undecodable = "failed to decode qmi message, msg_id: 0x22";
  const struct {
    Words message;
    int result;
    uint32_t len;
    const char* line = "QMI_PDC_GET_SELECTED_CONFIG_IND_V01 is received";
  } rows[] = {{selection(0, 1, 4), 0, 1},
              {selection(0, 124), 0, 124},
              {selection(0, 125), -1, 7},
              {selection(0, 0xFFFFFFFF), -1, 7},
              {selection(9, 4), -1, 7, "QMI error, error code: 9"},
              {selection(0, 0, 4), -6, 7, "has pending configuration"},
              {selection(0, 0), -6, 7},
              {resized(66), -1, 7, undecodable},
              {resized(68), -1, 7, undecodable},
              {resized(1), -1, 7, undecodable}};
  for (const auto& row : rows) {
    const TimeLapse lapse(row.line == undecodable ? 500 : 1);
    const LogCapture log;
    answer = [&row](uint16_t id) {
      platform::send_indication(service_id(), id, words(row.message));
      return accept(id);
    };
    pdc_config_pdc_info config{.config_id_len = 7, .config_id = {}};
    EXPECT_EQ(pdc_get_current_config_ex(&config, 1, 0), row.result) << row.line;
    EXPECT_EQ(config.config_id_len, row.len);
    EXPECT_EQ(std::count(config.config_id, std::end(config.config_id), 1),
              row.result == 0 ? row.len : 0);
    EXPECT_EQ(log.count(row.line), 1u) << row.line;
  }
}

TEST_F(PdcTest, OneWatchdogEndsAllWaitsAndLeavesNoTimerBehind) {
  answer = accept;
  fail_next_timer_create();
  EXPECT_EQ(select(), -1) << "at once";
  const TimeLapse lapse(20);
  const auto start = Clock::now();
  auto first = std::async(std::launch::async, deactivate);
  ASSERT_TRUE(becomes_one(4, &pdc_req_waiter::is_waiting));
  EXPECT_EQ(deactivate(), -2);
  std::this_thread::sleep_until(start + 3s);
  EXPECT_EQ(select(), -1);
  EXPECT_EQ(first.get(), -1);
  EXPECT_LT(Clock::now() - start, 8s) << "by the first one's watchdog";
  EXPECT_EQ(asked().size(), 3u);
  const auto again = Clock::now();
  EXPECT_EQ(deactivate(), -1);
  EXPECT_GE(Clock::now() - again, 5s);
}

TEST_F(PdcTest, KindsThatAreNeverRequestedAreIgnored) {
  const LogCapture log;
  const std::pair<uint16_t, const char*> rows[] = {
      {0x24,
       "pdc_list_configs_flag, g_pdc_info_ex.is_pdc_list_handling is not running, do nothing"},
      {0x25, "Do nothing, No QMI_PDC_DELETE_CONFIG_REQ_V01"},
      {0x26, "Do nothing, No QMI_PDC_LOAD_CONFIG_REQ_V01"},
      {0x28, "Do nothing, No QMI_PDC_GET_CONFIG_INFO_REQ_V01"},
      {0x29, "failed to get message c_struct len"},
      {0x2A, "Do nothing, No QMI_PDC_GET_DEFAULT_CONFIG_INFO_REQ_V01"},
      {0x2C, "ignore this indication, no pdc_validate_config_req"},
      {0x2E, "Do nothing, No QMI_PDC_SET_FEATURE_REQ_V01"}};
  for (const auto& row : rows) indicate(row.first);
  for (const auto& [id, line] : rows) {
    EXPECT_TRUE(eventually([&log, text = line] { return log.count(text) == 1; })) << line;
  }
}

TEST_F(PdcTest, SurvivesIndicationsAtAnyMoment) {
  std::atomic<bool> ends{false};
  std::thread strays([&ends] {
    std::minstd_rand random(1);
    while (!ends) {
      const uint16_t id = kKinds[random() % 4].id;
      const Words message = id == 0x22 ? selection(0, 124, 0, 2) : Words{0};
      platform::send_indication(service_id(), id, words(message));
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 200));
    }
  });
  auto others = std::async(std::launch::async, [] {
    int failures = 0;
    for (int round = 0; round < 1000; ++round) failures += (deactivate() | select()) != 0;
    return failures;
  });
  for (int round = 0; round < 1000; ++round) {
    pdc_config_pdc_info config{};
    EXPECT_EQ(pdc_get_current_config_ex(&config, 1, 0), 0);
    const auto ids = std::count(config.config_id, std::end(config.config_id), 1) * 100 +
                     std::count(config.config_id, std::end(config.config_id), 2);
    EXPECT_EQ(ids, config.config_id_len == 4 ? 400 : 124) << "one id as a whole";
  }
  EXPECT_EQ(others.get(), 0);
  for (int round = 0; round < 20; ++round) EXPECT_EQ(tervik_mbn_init(1), 0);
  ends = true;
  strays.join();
}

TEST_F(PdcTest, TheSelfTestNotifiesThenWaits) {
  const TimeLapse lapse(20000);
  const LogCapture log;
  tervik_pdc_test_wait_notify(1);
  EXPECT_EQ(log.count("pdc_test, notify_one"), 2u);
  // The time may run too fast for the worker, which misses both notifications then.
  const auto ends = [&log](size_t count) {
    return eventually([&log, count] {
      const bool is_waiting = log.count("pdc_test, wait ...") > log.count("pdc_test, wait end");
      if (is_waiting) tervik_pdc_test_rsp(1);
      const Strings lines = log.messages_from("tervik_qcril_pdc_test_thread_proc");
      return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const auto& line) {
               return line.starts_with("function exit");
             })) == count;
    });
  };
  EXPECT_TRUE(ends(1));
  const Strings lines = log.messages();
  const auto wait = std::find(lines.begin(), lines.end(), "pdc_test, wait ...");
  EXPECT_NE(std::find(lines.begin(), wait, "pdc_test, notify_one"), wait);
  EXPECT_NE(std::find(wait, lines.end(), "pdc_test, wait end"), lines.end());
  tervik_pdc_test_wait_notify(0);
  EXPECT_TRUE(ends(2));
  EXPECT_EQ(log.count("flag is invalid, do nothing"), 1u);
  auto slept = lapse.slept();
  std::sort(slept.begin(), slept.end());
  EXPECT_EQ(slept, (std::vector<std::chrono::nanoseconds>{3s, 3s, 10s, 10s, 1000s, 1000s}));
}

using MbnTest = PdcTest;

Strings reactivation(const std::string& sub) {
  return {"2: 1 1 " + sub, "11: 1 1 " + sub, "sync",
          "3: 1" + id_text(" 4 16843009", " 0") + " 1 " + sub, "7: 1 1 0 1 " + sub + " 1 " + sub};
}

TEST_F(MbnTest, RefreshesOnOneConnection) {
  const LogCapture log;
  answer = [requests = 0](uint16_t) mutable { return respond({++requests == 1, 5}); };
  EXPECT_EQ(tervik_refresh_sw_mbn(3), 0) << "the second one's result";
  EXPECT_EQ(asked(), (Strings{"7: 1 1 1 1 0 1 0", "7: 1 1 1 1 1 1 1"}));
  EXPECT_EQ(log.count("SUB_0 pdc_activate_config_ex ret -1"), 1u);
  EXPECT_EQ(log.count("pdc init have been done, do nothing"), 1u);
}

TEST_F(MbnTest, ReactivatesInOrderUnlessTheFirstStepFails) {
  Strings both = reactivation("0");
  for (const std::string& request : reactivation("1")) both.push_back(request);
  EXPECT_EQ(tervik_reactivate_sw_mbn(3), 0);
  EXPECT_EQ(asked(), both);
  answer = [](uint16_t id) {
    return id == 0x22 ? accept_and_indicate(id) : respond({id != 0x27, 48});
  };
  EXPECT_EQ(tervik_reactivate_sw_mbn(1), 0);
  EXPECT_EQ(asked(), reactivation("0"));
  answer = [](uint16_t id) { return indicate(id, 5), accept(id); };
  EXPECT_EQ(tervik_reactivate_sw_mbn(3), -1);
  EXPECT_EQ(asked(), Strings{"2: 1 1 0"});
  const TimeLapse lapse(500);
  answer = accept_and_indicate;
  for (const int count : {2, 0}) {
    static_cast<void>(
        tervik_set_property_value_to_int("persist.radio.all_pdc_no_rsp_count", count));
    EXPECT_EQ(tervik_reactivate_sw_mbn(2), count == 0 ? 0 : -1);
  }
}

TEST_F(MbnTest, RefusesWhatItCannotMeanAndGivesUpConnecting) {
  const LogCapture log;
  for (const auto& [mask, type] : {std::pair(0u, 1u), {4u, 0u}, {~0u, 1u}, {1u, 2u}, {1u, ~0u}}) {
    EXPECT_EQ(tervik_refresh_mbn(mask, type), 0);
    EXPECT_EQ(tervik_reactivate_mbn(mask, type), -1);
  }
  EXPECT_EQ(log.count("sub_mask is out of range"), 6u);
  EXPECT_EQ(log.count("config_type is invalid"), 4u);
  tervik_mbn_deactivate_config(2, 1);
  tervik_mbn_deactivate_config(1, 2);
  EXPECT_EQ(asked(), Strings{});
  platform::withdraw_service(service_id());
  const TimeLapse lapse(10000);
  EXPECT_EQ(tervik_reactivate_sw_mbn(1), -1);
  EXPECT_EQ(lapse.slept(), std::vector<std::chrono::nanoseconds>(19, 5s));
  EXPECT_TRUE(log.contains("for PDC, retry times 20"));
  publish();
  EXPECT_EQ(tervik_refresh_sw_mbn(1), 0) << "tries again";
}

TEST(RilResult, IsConvertedFromWhatCameBack) {
  const auto convert = qcril_qmi_util_convert_qmi_response_codes_to_ril_result;
  EXPECT_EQ(convert(0, nullptr) | convert(-2, nullptr), 0);
  EXPECT_EQ(convert(-1, nullptr), 39);
  const int rows[][4] = {{0, 0, 5, 0},   {0, 2, 0, 39},  {3, 0, 0, 39},  {-2, 1, 1, 38},
                         {0, 1, 0, 0},   {0, 1, 26, 0},  {0, 1, 3, 40},  {0, 1, 17, 44},
                         {0, 1, 97, 65}, {0, 1, 98, 40}, {0, 1, -1, 40}, {0, 1, 96, 40}};
  for (const auto& [transport, result, error, converted] : rows) {
    const qcril_qmi_response response{result, error};
    EXPECT_EQ(convert(transport, &response), converted) << error;
  }
}

}  // namespace
}  // namespace kiv::test
