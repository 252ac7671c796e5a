#include "qmi_client.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <future>
#include <latch>
#include <mutex>
#include <string>
#include <thread>

#include "platform/qmi/service_bus.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kServiceId = 0x77;
constexpr uint16_t kMessage = 0x20;
constexpr uint32_t kAnyTimeoutMs = 30000;

struct Body {
  uint32_t value = 0;
};
constexpr std::array<qmi_idl_field, 1> kBodyFields{
    {{.tlv = 0x01, .wire_width = 2, .memory_width = 4}}};
constexpr std::array<qmi_idl_message, 1> kMessages{
    {{.id = kMessage, .c_struct_len = sizeof(Body), .max_encoded_len = 5, .fields = kBodyFields}}};
constexpr qmi_idl_service_object kIdl{.library_version = 6,
                                      .idl_version = 1,
                                      .service_id = kServiceId,
                                      .idl_minor_version = 1,
                                      .max_message_len = 5,
                                      .requests = kMessages,
                                      .responses = kMessages,
                                      .indications = kMessages};

Bytes encoded(uint16_t value) {
  return {0x01, 2, 0, static_cast<uint8_t>(value & 0xFF), static_cast<uint8_t>(value >> 8)};
}

void publish(ServiceReply (*answer)(std::span<const uint8_t> request)) {
  platform::publish_service(
      kServiceId, [answer](uint16_t, std::span<const uint8_t> request) { return answer(request); });
}

ServiceReply echo(std::span<const uint8_t> request) {
  return ServiceReply::response(Bytes(request.begin(), request.end()));
}

ServiceReply silent(std::span<const uint8_t>) {
  return ServiceReply::silence();
}

// What the callbacks of one client saw; the callback waits at `gate` when there is one.
struct CallbackRecord {
  std::mutex mutex;
  std::vector<uint32_t> values;
  std::vector<int> errors;
  std::latch* entered = nullptr;
  std::latch* gate = nullptr;
  std::atomic<int> calls{0};
  std::atomic<int> running{0};

  void wait_at_gate() {
    if (gate != nullptr) {
      entered->count_down();
      gate->wait();
    }
  }
  size_t count() {
    const std::lock_guard lock(mutex);
    return values.size() + errors.size();
  }
  // True once `expected` callbacks were made; false when they did not come in time.
  bool reached(size_t expected) {
    for (int tick = 0; tick < 5000 && count() < expected; ++tick) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return count() >= expected;
  }
};

void record_indication(qmi_client_type client, unsigned int msg_id, void* buffer,
                       unsigned int length, void* data) {
  auto& record = *static_cast<CallbackRecord*>(data);
  ++record.calls;
  ++record.running;
  record.wait_at_gate();
  Body body;
  if (qmi_client_message_decode(client, QMI_IDL_INDICATION, msg_id, buffer, length, &body,
                                sizeof body) == QMI_NO_ERR) {
    const std::lock_guard lock(record.mutex);
    record.values.push_back(body.value);
  }
  --record.running;
}

// A tick is enough to see that `work` waits for something; a timed wait on the future itself would
// not follow the test's clock.
bool is_waiting(const std::future<void>& work) {
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return work.wait_for(std::chrono::seconds(0)) == std::future_status::timeout;
}

void record_error(qmi_client_type, int error, void* data) {
  auto& record = *static_cast<CallbackRecord*>(data);
  const std::lock_guard lock(record.mutex);
  record.errors.push_back(error);
}

class QmiClientTest : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    handles_before_ = platform::open_handle_count();
  }

  void TearDown() override {
    EXPECT_EQ(platform::open_handle_count(), handles_before_);
    StateDirectoryTest::TearDown();
  }

  static qmi_client_type open(CallbackRecord* record = nullptr) {
    qmi_client_type client = nullptr;
    EXPECT_EQ(qmi_client_init_instance(&kIdl, QMI_CLIENT_INSTANCE_ANY,
                                       record != nullptr ? record_indication : nullptr, record,
                                       nullptr, 0, &client),
              QMI_NO_ERR);
    return client;
  }

  static void release(qmi_client_type client) { EXPECT_EQ(qmi_client_release(client), QMI_NO_ERR); }

  static int send(qmi_client_type client, uint32_t value, uint32_t* answer = nullptr,
                  unsigned int timeout_ms = kAnyTimeoutMs) {
    const Body request{value};
    Body response{0xDEAD};
    const int result = qmi_client_send_msg_sync(client, kMessage, &request, sizeof request,
                                                &response, sizeof response, timeout_ms);
    if (answer != nullptr) {
      *answer = response.value;
    }
    return result;
  }

 private:
  size_t handles_before_ = 0;
};

TEST_F(QmiClientTest, RequestAndResponseTravelAsTlvs) {
  Bytes seen;
  platform::publish_service(kServiceId, [&](uint16_t id, std::span<const uint8_t> request) {
    seen.assign(request.begin(), request.end());
    seen.push_back(static_cast<uint8_t>(id));
    return ServiceReply::response({0x55, 0, 0, 0x01, 2, 0, 0x34, 0x12});
  });
  const qmi_client_type client = open();
  uint32_t answer = 0;
  EXPECT_EQ(send(client, 0xABCD, &answer), QMI_NO_ERR);
  EXPECT_EQ(seen, (Bytes{0x01, 2, 0, 0xCD, 0xAB, kMessage}));
  EXPECT_EQ(answer, 0x1234u);
  release(client);
}

TEST_F(QmiClientTest, EveryReplyHasItsCode) {
  const struct {
    ServiceReply reply;
    int result;
  } cases[] = {
      {ServiceReply::response({0x01, 2, 0, 1}), QMI_INTERNAL_ERR},
      {ServiceReply::response({}), QMI_INTERNAL_ERR},
      {ServiceReply::transport_error(-5), -5},
      {ServiceReply::transport_error(17), 17},
      {ServiceReply::transport_error(0), QMI_INTERNAL_ERR},
  };
  for (const auto& row : cases) {
    platform::publish_service(kServiceId,
                              [&](uint16_t, std::span<const uint8_t>) { return row.reply; });
    const qmi_client_type client = open();
    EXPECT_EQ(send(client, 1), row.result);
    release(client);
  }
}

TEST_F(QmiClientTest, BadArgumentsAndStaleHandlesAreRefused) {
  publish(echo);
  const qmi_client_type client = open();
  Body body{1};
  const struct {
    unsigned int msg_id;
    const void* request;
    unsigned int request_len;
    void* response;
    unsigned int response_len;
  } sends[] = {
      {kMessage + 1, &body, sizeof body, &body, sizeof body},
      {0x10000 + kMessage, &body, sizeof body, &body, sizeof body},
      {kMessage, &body, sizeof body - 1, &body, sizeof body},
      {kMessage, &body, sizeof body, &body, sizeof body + 1},
      {kMessage, nullptr, sizeof body, &body, sizeof body},
      {kMessage, &body, sizeof body, nullptr, sizeof body},
  };
  for (const auto& row : sends) {
    EXPECT_EQ(qmi_client_send_msg_sync(client, row.msg_id, row.request, row.request_len,
                                       row.response, row.response_len, 10),
              QMI_CLIENT_PARAM_ERR);
  }
  qmi_client_os_params signal;
  qmi_client_type notifier = nullptr;
  ASSERT_EQ(qmi_client_notifier_init(&kIdl, &signal, &notifier), QMI_NO_ERR);
  release(client);
  int outside = 0;
  for (const qmi_client_type stale :
       {client, notifier, qmi_client_type{nullptr}, qmi_client_type{&outside}}) {
    EXPECT_EQ(send(stale, 1), QMI_CLIENT_PARAM_ERR);
    EXPECT_EQ(qmi_client_register_error_cb(stale, record_error, nullptr), QMI_CLIENT_PARAM_ERR);
    EXPECT_EQ(qmi_client_message_decode(stale, QMI_IDL_INDICATION, kMessage, nullptr, 0, &body,
                                        sizeof body),
              QMI_CLIENT_PARAM_ERR);
  }
  release(notifier);
  EXPECT_EQ(qmi_client_release(client), QMI_CLIENT_PARAM_ERR);

  qmi_client_type opened = nullptr;
  unsigned int count = 0;
  const qmi_service_info other{.service_id = kServiceId + 1, .instance_id = 1};
  EXPECT_EQ(qmi_client_notifier_init(nullptr, &signal, &opened), QMI_CLIENT_PARAM_ERR);
  EXPECT_EQ(qmi_client_get_service_list(nullptr, nullptr, nullptr, &count), QMI_CLIENT_PARAM_ERR);
  EXPECT_EQ(qmi_client_init(&other, nullptr, nullptr, nullptr, nullptr, &opened),
            QMI_CLIENT_PARAM_ERR);
  EXPECT_EQ(qmi_client_init(&other, &kIdl, nullptr, nullptr, nullptr, &opened), QMI_SERVICE_ERR);
  EXPECT_EQ(qmi_client_init_instance(nullptr, 0, nullptr, nullptr, nullptr, 0, &opened),
            QMI_CLIENT_PARAM_ERR);
}

TEST_F(QmiClientTest, AServiceIsFoundByListAndByInstance) {
  qmi_client_os_params signal;
  qmi_client_type notifier = nullptr;
  ASSERT_EQ(qmi_client_notifier_init(&kIdl, &signal, &notifier), QMI_NO_ERR);
  unsigned int services = 9;
  EXPECT_EQ(qmi_client_get_service_list(&kIdl, nullptr, nullptr, &services), QMI_SERVICE_ERR);
  EXPECT_EQ(services, 0u);
  qmi_client_type client = nullptr;
  EXPECT_EQ(qmi_client_init_instance(&kIdl, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, nullptr, 4,
                                     &client),
            QMI_TIMEOUT_ERR);

  auto publisher = std::async(std::launch::async, [] { publish(echo); });
  qmi_cci_os_signal_wait(&signal, kAnyTimeoutMs);
  std::array<qmi_service_info, 2> found{};
  unsigned int entries = 2;
  ASSERT_EQ(qmi_client_get_service_list(&kIdl, found.data(), &entries, &services), QMI_NO_ERR);
  EXPECT_EQ(entries, 1u);
  EXPECT_EQ(services, 1u);
  ASSERT_EQ(qmi_client_init(found.data(), &kIdl, nullptr, nullptr, nullptr, &client), QMI_NO_ERR);
  EXPECT_EQ(send(client, 3), QMI_NO_ERR);
  publisher.get();

  // The arrival is spent: the next wait runs into its time.
  const TimeLapse lapse{100};
  const auto start = std::chrono::steady_clock::now();
  qmi_cci_os_signal_wait(&signal, 1000);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
  release(client);
  release(notifier);
}

TEST_F(QmiClientTest, InitInstanceWaitsForTheServiceToComeUp) {
  qmi_client_type client = nullptr;
  auto opening = std::async(std::launch::async, [&client] {
    return qmi_client_init_instance(&kIdl, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, nullptr,
                                    kAnyTimeoutMs, &client);
  });
  publish(echo);
  EXPECT_EQ(opening.get(), QMI_NO_ERR);
  EXPECT_EQ(send(client, 3), QMI_NO_ERR);
  release(client);
}

TEST_F(QmiClientTest, SilenceEndsWithTheTimeout) {
  const TimeLapse lapse{100};
  publish(silent);
  const qmi_client_type client = open();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send(client, 1, nullptr, 3000), QMI_TIMEOUT_ERR);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3000));
  release(client);
}

TEST_F(QmiClientTest, LossOfServiceOrClientEndsAWaitingRequest) {
  const std::function<void(qmi_client_type)> losses[] = {
      [](qmi_client_type) { platform::withdraw_service(kServiceId); },
      [](qmi_client_type) { publish(echo); },
      [](qmi_client_type client) { release(client); },
  };
  for (const auto& lose : losses) {
    std::latch reached{1};
    platform::publish_service(kServiceId, [&](uint16_t, std::span<const uint8_t>) {
      reached.count_down();
      return ServiceReply::silence();
    });
    const qmi_client_type client = open();
    auto sender = std::async(std::launch::async, [client] { return send(client, 1); });
    reached.wait();
    lose(client);
    EXPECT_EQ(sender.get(), QMI_SERVICE_ERR);
    EXPECT_NE(send(client, 1), QMI_NO_ERR) << "the client came back to life";
    if (&lose != &losses[2]) {
      release(client);
    }
  }
}

TEST_F(QmiClientTest, AServiceMayRestartItselfWhileItAnswers) {
  publish([](std::span<const uint8_t> request) {
    publish(echo);
    return echo(request);
  });
  const qmi_client_type client = open();
  uint32_t answer = 0;
  EXPECT_EQ(send(client, 5, &answer), QMI_NO_ERR);
  EXPECT_EQ(answer, 5u);
  EXPECT_EQ(send(client, 6), QMI_SERVICE_ERR);
  release(client);
  const qmi_client_type reopened = open();
  EXPECT_EQ(send(reopened, 7), QMI_NO_ERR);
  release(reopened);
}

TEST_F(QmiClientTest, TwoThreadsAreInTheServiceAtOnce) {
  std::barrier both_inside{2};
  platform::publish_service(kServiceId, [&](uint16_t, std::span<const uint8_t> request) {
    both_inside.arrive_and_wait();
    return echo(request);
  });
  const qmi_client_type client = open();
  const auto run = [client](uint32_t first) {
    for (uint32_t value = first; value < first + 100; ++value) {
      uint32_t answer = 0;
      EXPECT_EQ(send(client, value, &answer), QMI_NO_ERR);
      EXPECT_EQ(answer, value);
    }
  };
  auto other = std::async(std::launch::async, run, 1000);
  run(2000);
  other.get();
  release(client);
}

TEST_F(QmiClientTest, IndicationsReachEveryClientInOrder) {
  publish(echo);
  CallbackRecord first;
  CallbackRecord second;
  const qmi_client_type clients[] = {open(&first), open(&second), open()};
  for (uint16_t value = 1; value <= 50; ++value) {
    platform::send_indication(kServiceId, kMessage, encoded(value));
  }
  platform::send_indication(kServiceId + 1, kMessage, encoded(99));
  std::vector<uint32_t> expected(50);
  for (uint32_t i = 0; i < 50; ++i) {
    expected[i] = i + 1;
  }
  for (CallbackRecord* record : {&first, &second}) {
    ASSERT_TRUE(record->reached(50));
    const std::lock_guard lock(record->mutex);
    EXPECT_EQ(record->values, expected);
  }
  for (const qmi_client_type client : clients) {
    release(client);
  }
}

TEST_F(QmiClientTest, ReleaseWaitsForARunningCallbackAndIsTheLastOne) {
  publish(echo);
  std::latch entered{1};
  std::latch gate{1};
  CallbackRecord record;
  record.entered = &entered;
  record.gate = &gate;
  const qmi_client_type client = open(&record);
  platform::send_indication(kServiceId, kMessage, encoded(1));
  platform::send_indication(kServiceId, kMessage, encoded(2));
  entered.wait();
  auto releaser = std::async(std::launch::async, [&] {
    release(client);
    EXPECT_EQ(record.running, 0);
  });
  EXPECT_TRUE(is_waiting(releaser));
  gate.count_down();
  releaser.get();
  // The second indication is behind the first in the same queue: whatever was to come has come
  // when a later client has had its own.
  CallbackRecord later;
  const qmi_client_type other = open(&later);
  platform::send_indication(kServiceId, kMessage, encoded(3));
  EXPECT_TRUE(later.reached(1));
  EXPECT_EQ(record.calls, 1);
  release(other);
}

TEST_F(QmiClientTest, ACallbackMayReleaseItsOwnClient) {
  publish(echo);
  std::atomic<int> calls{0};
  const auto release_self = [](qmi_client_type client, unsigned int, void*, unsigned int,
                               void* data) {
    release(client);
    ++*static_cast<std::atomic<int>*>(data);
  };
  qmi_client_type client = nullptr;
  ASSERT_EQ(qmi_client_init_instance(&kIdl, 1, release_self, &calls, nullptr, 0, &client),
            QMI_NO_ERR);
  CallbackRecord behind;
  const qmi_client_type other = open(&behind);
  platform::send_indication(kServiceId, kMessage, encoded(1));
  platform::send_indication(kServiceId, kMessage, encoded(2));
  ASSERT_TRUE(behind.reached(2));
  EXPECT_EQ(calls, 1);
  release(other);
}

TEST_F(QmiClientTest, LossIsReportedOnceHoweverLateTheCallbackIs) {
  publish(echo);
  CallbackRecord early;
  CallbackRecord late;
  CallbackRecord gone;
  const qmi_client_type clients[] = {open(), open(), open()};
  ASSERT_EQ(qmi_client_register_error_cb(clients[0], record_error, &early), QMI_NO_ERR);
  ASSERT_EQ(qmi_client_register_error_cb(clients[2], record_error, &gone), QMI_NO_ERR);
  release(clients[2]);
  platform::withdraw_service(kServiceId);
  publish(echo);
  platform::withdraw_service(kServiceId);
  ASSERT_EQ(qmi_client_register_error_cb(clients[1], record_error, &late), QMI_NO_ERR);
  ASSERT_EQ(qmi_client_register_error_cb(clients[0], record_error, &early), QMI_NO_ERR);
  ASSERT_TRUE(late.reached(1));
  for (CallbackRecord* record : {&early, &late}) {
    const std::lock_guard lock(record->mutex);
    EXPECT_EQ(record->errors, std::vector<int>{QMI_SERVICE_ERR});
  }
  EXPECT_EQ(gone.count(), 0u);
  release(clients[0]);
  release(clients[1]);
}

TEST_F(QmiClientTest, ResetDropsWhatIsQueuedAndOutlastsWhatRuns) {
  publish(echo);
  std::latch entered{1};
  std::latch gate{1};
  CallbackRecord record;
  record.entered = &entered;
  record.gate = &gate;
  const qmi_client_type client = open(&record);
  ASSERT_EQ(qmi_client_register_error_cb(client, record_error, &record), QMI_NO_ERR);
  platform::send_indication(kServiceId, kMessage, encoded(1));
  platform::send_indication(kServiceId, kMessage, encoded(2));
  entered.wait();
  auto reset = std::async(std::launch::async, [&] {
    platform::reset_service_bus();
    EXPECT_EQ(record.running, 0);
  });
  EXPECT_TRUE(is_waiting(reset));
  gate.count_down();
  reset.get();
  EXPECT_EQ(record.calls, 1);
  EXPECT_TRUE(record.errors.empty());
  EXPECT_EQ(send(client, 1), QMI_SERVICE_ERR);
  release(client);
}

TEST_F(QmiClientTest, TrafficRestartsAndReleasesAtOnceStaySound) {
  publish(echo);
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0};
  const auto client_thread = [&] {
    while (!stop) {
      CallbackRecord record;
      qmi_client_type client = nullptr;
      if (qmi_client_init_instance(&kIdl, QMI_CLIENT_INSTANCE_ANY, record_indication, &record,
                                   nullptr, 5, &client) != QMI_NO_ERR) {
        continue;
      }
      EXPECT_EQ(qmi_client_register_error_cb(client, record_error, &record), QMI_NO_ERR);
      const int result = send(client, 1);
      EXPECT_TRUE(result == QMI_NO_ERR || result == QMI_SERVICE_ERR) << result;
      answered += result == QMI_NO_ERR ? 1 : 0;
      release(client);
    }
  };
  auto first = std::async(std::launch::async, client_thread);
  auto second = std::async(std::launch::async, client_thread);
  for (int round = 0; round < 200 || answered < 20; ++round) {
    platform::send_indication(kServiceId, kMessage, encoded(1));
    platform::withdraw_service(kServiceId);
    publish(echo);
    std::this_thread::yield();
  }
  stop = true;
  first.get();
  second.get();
}

}  // namespace
}  // namespace kiv::test
