// The PDC requests and the MBN operations on a service that answers as the test says.
#include "pdc_utils.h"

#include <future>

#include "tervik_mbn_utils.h"
#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
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

int deactivate() {
  return pdc_deactivate_config_ex(1, 1);
}

int get_selected() {
  pdc_config_pdc_info config{};
  return pdc_get_current_config_ex(&config, 1, 1);
}

int select() {
  const pdc_config_pdc_info config{.config_id_len = 4, .config_id = {1}};
  return pdc_select_config_ex(&config, 1, 1);
}

int activate() {
  return pdc_activate_config_ex(2, 0, 1, 1);
}

// The kinds that wait for their indication.
const struct {
  uint16_t id;
  int (*request)();
} kKinds[] = {{0x2B, deactivate}, {0x22, get_selected}, {0x23, select}, {0x27, activate}};

// A result, and the time that it took.
using Timed = std::pair<int, std::chrono::nanoseconds>;

template <class Request>
Timed timed(const Request& request) {
  const auto begin = virtual_now();
  const int result = request();
  return {result, virtual_now() - begin};
}

class PdcTest : public ExtensionClientTest {
 protected:
  void SetUp() override {
    ExtensionClientTest::SetUp();
    publish();
    ASSERT_EQ(tervik_mbn_init(1), 0);
  }
  void TearDown() override {
    pdc_clean_ex();
    {
      const std::lock_guard lock(g_pdc_info_ex.mutex);
      for (const pdc_req_waiter& waiter : g_pdc_info_ex.waiters) {
        EXPECT_EQ(waiter.get_sel_holder, nullptr);
        EXPECT_EQ(waiter.is_handling + waiter.is_waiting + waiter.is_done + waiter.timer_id, 0u);
      }
    }
    ExtensionClientTest::TearDown();
  }
  void publish() {
    platform::publish_service(service_id(), [this](uint16_t id, std::span<const uint8_t> bytes) {
      Words message(bytes.size() / 4);
      std::memcpy(message.data(), bytes.data(), 4 * message.size());
      std::string event = std::to_string(id - 0x20) + ":";
      for (const uint32_t word : message) event += " " + std::to_string(word);
      {
        const std::lock_guard lock(mutex_);
        events_.push_back(event);
      }
      return answer(id);
    });
  }
  // What the modem was asked since the last call: message ids from 0x20 on, and words.
  Strings asked() {
    const std::lock_guard lock(mutex_);
    return std::exchange(events_, {});
  }

  std::function<ServiceReply(uint16_t)> answer = accept_and_indicate;
  const ExtensionStub extension{[](auto&) { return ExtensionAnswer{}; }};

 private:
  std::mutex mutex_;
  Strings events_;
};

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
    std::string id = " 124";
    for (int word = 0; word < 31; ++word) id += " 16843009";
    EXPECT_EQ(asked(), (Strings{"2: " + t + (type <= 1 ? " 1 1" : " 0 0"), "11: " + t + " 1 1",
                                "3: " + t + id + (type == 1 ? " 1 1" : " 0 0"),
                                "7: " + t + " 1 1" + (type == 1 ? " 1 1 1 3" : " 0 0 0 0"),
                                "7: " + t + " 1 0" + (type == 1 ? " 1 1 1 1" : " 0 0 0 0")}));
    config.config_id_len = 125;
    EXPECT_EQ(pdc_select_config_ex(&config, type, 1), -4);
    EXPECT_EQ(asked(), Strings{});
  }
}

TEST_F(PdcTest, AFailedRequestLeavesItsKindFree) {
  const std::pair<ServiceReply, Timed> failures[] = {
      {respond({1, 48}), {-1, 0s}},
      {respond({2, 0}), {-1, 0s}},
      {respond({0}), {-1, 0s}},
      {ServiceReply::transport_error(-2), {-1, 0s}},
      {ServiceReply::silence(), {-1, 10'050ms}}};  // the service's own 50 ms among them
  for (const auto& kind : kKinds) {
    SCOPED_TRACE(kind.id);
    for (const auto& [reply, result] : failures) {
      answer = [&reply = reply](auto) { return reply; };
      EXPECT_EQ(timed(kind.request), result);
      answer = [](uint16_t id) { return indicate(id, 7), accept(id); };
      EXPECT_EQ(timed(kind.request), Timed(-1, 0s));
      answer = accept_and_indicate;
      EXPECT_EQ(timed(kind.request), Timed(0, 0s));
    }
  }
  answer = [](uint16_t id) { return indicate(id), respond({1, 26}); };
  EXPECT_EQ(get_selected(), 0) << "nothing to do is as good as done";
}

TEST_F(PdcTest, GetSelectedTakesNoIdThatIsNotCarried) {
  const struct {
    Words message;
    size_t size;  // in words, 67 as it should be
    Timed result;
    uint32_t len = 7;
  } rows[] = {{selection(0, 124), 67, {0, 0s}, 124},    {selection(0, 125), 67, {-1, 0s}},
              {selection(0, 0xFFFFFFFF), 67, {-1, 0s}}, {selection(0, 4), 66, {-1, 5s}},
              {selection(0, 4), 68, {-1, 5s}},          {selection(0, 4), 1, {-1, 5s}}};
  for (auto [message, size, result, len] : rows) {
    message.resize(size);
    answer = [&message = message](uint16_t id) {
      platform::send_indication(service_id(), id, words(message));
      return accept(id);
    };
    pdc_config_pdc_info config{.config_id_len = 7, .config_id = {}};
    EXPECT_EQ(timed([&] { return pdc_get_current_config_ex(&config, 1, 0); }), result);
    EXPECT_EQ(config.config_id_len, len);
    EXPECT_EQ(std::count(config.config_id, std::end(config.config_id), 1), len == 7 ? 0 : len);
  }
}

TEST_F(PdcTest, OneWatchdogEndsAllWaitsAndLeavesNoTimerBehind) {
  answer = accept;
  auto first = std::async(std::launch::async, [] { return timed(deactivate); });
  sleep(3);
  EXPECT_EQ(timed(deactivate), Timed(-2, 0s));
  EXPECT_EQ(timed(select), Timed(-1, 2s)) << "by the first one's watchdog";
  EXPECT_EQ(first.get(), Timed(-1, 5s));
  EXPECT_EQ(asked().size(), 2u);
  EXPECT_EQ(timed(deactivate), Timed(-1, 5s)) << "not by the second one's";
}

TEST_F(PdcTest, AReconnectionForgetsAClaim) {
  answer = [](uint16_t id) { return sleep(2), accept(id); };
  auto first = std::async(std::launch::async, [] { return timed(deactivate); });
  sleep(1);
  qmi_pdc_init_pdc_info_ex();
  auto second = std::async(std::launch::async, [] { return timed(deactivate); });
  sleep(3);
  indicate(0x2B);
  EXPECT_EQ(first.get(), Timed(-1, 2s));
  EXPECT_EQ(second.get(), Timed(0, 3s));
}

// Whatever comes first, every wait ends at once, and nothing is left for the next one.
TEST_F(PdcTest, WatchdogIndicationAndReconnectionRaceForTwoWaits) {
  for (uint64_t seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    const Shuffle shuffle(seed);
    answer = accept;
    auto first = std::async(std::launch::async, [] { return timed(get_selected); });
    auto second = std::async(std::launch::async, [] { return timed(select); });
    sleep(1);
    auto ends = std::async(std::launch::async, [seed] {
      if (seed % 3 == 0) return qmi_pdc_init_pdc_info_ex();
      std::unique_lock lock(g_pdc_info_ex.mutex);
      const uint32_t timer = *qmi_pdc_request_timer_get_ptr_by_req_type(PDC_REQ_GET_SEL);
      lock.unlock();
      qmi_pdc_request_timer_timeout_proc({.sival_int = static_cast<int>(timer)});
    });
    for (const size_t kind : {1u, 2u, 1u}) indicate(kKinds[kind].id);
    for (auto* const waiting : {&first, &second}) {
      const Timed result = waiting->get();
      EXPECT_TRUE(result == Timed(0, 1s) || result == Timed(-1, 1s));
    }
    ends.get();
    sleep(1);
    EXPECT_EQ(timed(get_selected), Timed(-1, 5s));
    EXPECT_EQ(timed(select), Timed(-1, 5s));
  }
}

using MbnTest = PdcTest;

TEST_F(MbnTest, TheLastRequestCountsAndAFailedConnectionIsTriedAnew) {
  answer = [requests = 0](uint16_t) mutable { return respond({++requests == 1, 5}); };
  EXPECT_EQ(tervik_refresh_sw_mbn(3), 0);
  EXPECT_EQ(asked(), (Strings{"7: 1 1 1 1 0 1 0", "7: 1 1 1 1 1 1 1"}));
  answer = [](uint16_t id) {
    return id == 0x22 ? accept_and_indicate(id) : respond({id != 0x27, 48});
  };
  EXPECT_EQ(tervik_reactivate_sw_mbn(3), 0);
  EXPECT_EQ(asked().size(), 8u);
  platform::withdraw_service(service_id());
  EXPECT_EQ(tervik_reactivate_sw_mbn(1), -1);
  publish();
  EXPECT_EQ(tervik_refresh_sw_mbn(1), 0);
  EXPECT_EQ(asked(), Strings{"7: 1 1 1 1 0 1 0"});
}

TEST(PdcService, IsOfOneVersionAlone) {
  for (uint32_t other = 0; other < 20; ++other) {
    EXPECT_EQ(pdc_get_service_object_internal_v01(other, 18, 6) != nullptr, other == 1);
    EXPECT_EQ(pdc_get_service_object_internal_v01(1, other, 6) != nullptr, other == 18);
    EXPECT_EQ(pdc_get_service_object_internal_v01(1, 18, other) != nullptr, other == 6);
  }
}

}  // namespace
}  // namespace kiv::test
