#include "qmi_client.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <mutex>
#include <numeric>
#include <thread>

#include "platform/qmi/service_bus.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;
using Request = std::span<const uint8_t>;

constexpr uint32_t kServiceId = 0x77;
constexpr uint16_t kMessage = 0x20;
constexpr uint32_t kAnyTimeoutMs = 30000;

struct Body {
  uint32_t value = 0;
};
constexpr qmi_idl_field kBodyField{.tlv = 0x01, .wire_width = 2, .memory_width = 4};
constexpr qmi_idl_message kBodyMessage{.id = kMessage,
                                       .c_struct_len = sizeof(Body),
                                       .max_encoded_len = 5,
                                       .fields = std::span(&kBodyField, 1)};
constexpr std::span kMessages(&kBodyMessage, 1);
constexpr qmi_idl_service_object kIdl{6, 1, kServiceId, 1, 5, kMessages, kMessages, kMessages};

void publish(std::function<ServiceReply(Request)> answer) {
  platform::publish_service(kServiceId, [answer = std::move(answer)](uint16_t, Request request) {
    return answer(request);
  });
}

ServiceReply echo(Request request) {
  return ServiceReply::response(Bytes(request.begin(), request.end()));
}

void indicate(uint8_t value) {
  platform::send_indication(kServiceId, kMessage, Bytes{0x01, 2, 0, value, 0});
}

// What the callbacks of one client saw; a callback waits at `gate` when there is one.
struct CallbackRecord {
  std::mutex mutex;
  std::vector<uint32_t> values;
  std::vector<int> errors;
  std::latch* entered = nullptr;
  std::latch* gate = nullptr;
  std::atomic<int> calls{0};
  std::atomic<bool> running{false};

  size_t count() {
    const std::lock_guard lock(mutex);
    return values.size() + errors.size();
  }
  // True once `expected` callbacks were made; false when they did not come in time.
  bool reached(size_t expected) {
    for (int tick = 0; tick < 5000 && count() < expected; ++tick) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return count() >= expected;
  }
};

void record_indication(qmi_client_type client, unsigned int msg_id, void* buffer,
                       unsigned int length, void* data) {
  auto& record = *static_cast<CallbackRecord*>(data);
  ++record.calls;
  record.running = true;
  if (record.gate != nullptr) {
    record.entered->count_down();
    record.gate->wait();
  }
  Body body;
  if (qmi_client_message_decode(client, QMI_IDL_INDICATION, msg_id, buffer, length, &body,
                                sizeof body) == QMI_NO_ERR) {
    const std::lock_guard lock(record.mutex);
    record.values.push_back(body.value);
  }
  record.running = false;
}

void record_error(qmi_client_type, int error, void* data) {
  auto& record = *static_cast<CallbackRecord*>(data);
  const std::lock_guard lock(record.mutex);
  record.errors.push_back(error);
}

int open_within(unsigned int timeout_ms, qmi_client_type& client,
                CallbackRecord* record = nullptr) {
  return qmi_client_init_instance(&kIdl, QMI_CLIENT_INSTANCE_ANY,
                                  record != nullptr ? record_indication : nullptr, record, nullptr,
                                  timeout_ms, &client);
}

qmi_client_type open(CallbackRecord* record = nullptr) {
  qmi_client_type client = nullptr;
  EXPECT_EQ(open_within(0, client, record), QMI_NO_ERR);
  return client;
}

void release(qmi_client_type client) {
  EXPECT_EQ(qmi_client_release(client), QMI_NO_ERR);
}

int send(qmi_client_type client, uint32_t value, uint32_t* answer = nullptr) {
  const Body request{value};
  Body response{0xDEAD};
  const int result = qmi_client_send_msg_sync(client, kMessage, &request, sizeof request, &response,
                                              sizeof response, kAnyTimeoutMs);
  if (answer != nullptr) *answer = response.value;
  return result;
}

class QmiClientTest : public StateDirectoryTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(platform::open_handle_count(), 0u);
    StateDirectoryTest::TearDown();
  }
};

TEST_F(QmiClientTest, EveryReplyHasItsCode) {
  const struct {
    ServiceReply reply;
    int result;
    uint32_t answer;
  } cases[] = {
      {ServiceReply::response({0x55, 0, 0, 0x01, 2, 0, 0x34, 0x12}), QMI_NO_ERR, 0x1234},
      {ServiceReply::response({0x01, 2, 0, 1}), QMI_INTERNAL_ERR, 0},
      {ServiceReply::response({}), QMI_INTERNAL_ERR, 0},
      {ServiceReply::transport_error(-5), -5, 0xDEAD},
      {ServiceReply::transport_error(17), 17, 0xDEAD},
      {ServiceReply::transport_error(0), QMI_INTERNAL_ERR, 0xDEAD},
  };
  for (const auto& row : cases) {
    Bytes seen;
    publish([&](Request request) {
      seen.assign(request.begin(), request.end());
      return row.reply;
    });
    const qmi_client_type client = open();
    uint32_t answer = 0;
    EXPECT_EQ(send(client, 0xABCD, &answer), row.result);
    EXPECT_EQ(answer, row.answer);
    EXPECT_EQ(seen, (Bytes{0x01, 2, 0, 0xCD, 0xAB}));
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
  } sends[] = {{kMessage + 1, &body, 4, &body, 4}, {0x10000 + kMessage, &body, 4, &body, 4},
               {kMessage, &body, 3, &body, 4},     {kMessage, &body, 4, &body, 5},
               {kMessage, nullptr, 4, &body, 4},   {kMessage, &body, 4, nullptr, 4}};
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
    EXPECT_EQ(qmi_client_message_decode(stale, QMI_IDL_INDICATION, kMessage, nullptr, 0, &body, 4),
              QMI_CLIENT_PARAM_ERR);
  }
  release(notifier);
  EXPECT_EQ(qmi_client_release(client), QMI_CLIENT_PARAM_ERR);

  qmi_client_type opened = nullptr;
  const qmi_service_info other{.service_id = kServiceId + 1, .instance_id = 1};
  EXPECT_EQ(qmi_client_init(&other, &kIdl, nullptr, nullptr, nullptr, &opened), QMI_SERVICE_ERR);
}

TEST_F(QmiClientTest, AServiceIsFoundByListAndByInstance) {
  qmi_client_os_params signal;
  qmi_client_type notifier = nullptr;
  ASSERT_EQ(qmi_client_notifier_init(&kIdl, &signal, &notifier), QMI_NO_ERR);
  unsigned int services = 9;
  EXPECT_EQ(qmi_client_get_service_list(&kIdl, nullptr, nullptr, &services), QMI_SERVICE_ERR);
  EXPECT_EQ(services, 0u);
  qmi_client_type by_instance = nullptr;
  EXPECT_EQ(open_within(4, by_instance), QMI_TIMEOUT_ERR);

  auto opening =
      std::async(std::launch::async, [&] { return open_within(kAnyTimeoutMs, by_instance); });
  auto publisher = std::async(std::launch::async, [] { publish(echo); });
  qmi_cci_os_signal_wait(&signal, kAnyTimeoutMs);
  EXPECT_EQ(opening.get(), QMI_NO_ERR);
  std::array<qmi_service_info, 2> found{};
  unsigned int entries = 2;
  ASSERT_EQ(qmi_client_get_service_list(&kIdl, found.data(), &entries, &services), QMI_NO_ERR);
  EXPECT_EQ(entries, 1u);
  EXPECT_EQ(services, 1u);
  qmi_client_type by_list = nullptr;
  ASSERT_EQ(qmi_client_init(found.data(), &kIdl, nullptr, nullptr, nullptr, &by_list), QMI_NO_ERR);
  publisher.get();

  // The arrival is spent: the next wait runs into its time.
  const TimeLapse lapse{100};
  const auto start = steady_clock::now();
  qmi_cci_os_signal_wait(&signal, 1000);
  EXPECT_GE(steady_clock::now() - start, milliseconds(1000));
  for (const qmi_client_type client : {by_instance, by_list}) {
    EXPECT_EQ(send(client, 3), QMI_NO_ERR);
    release(client);
  }
  release(notifier);
}

TEST_F(QmiClientTest, LossOfServiceOrClientEndsAWaitingRequest) {
  const std::function<void(qmi_client_type)> losses[] = {
      [](qmi_client_type) { platform::withdraw_service(kServiceId); },
      [](qmi_client_type) { publish(echo); },
      [](qmi_client_type client) { release(client); },
  };
  for (const auto& lose : losses) {
    std::latch reached{1};
    publish([&](Request) {
      reached.count_down();
      return ServiceReply::silence();
    });
    const qmi_client_type client = open();
    auto sender = std::async(std::launch::async, [client] { return send(client, 1); });
    reached.wait();
    lose(client);
    EXPECT_EQ(sender.get(), QMI_SERVICE_ERR);
    EXPECT_NE(send(client, 1), QMI_NO_ERR) << "the client came back to life";
    if (&lose != &losses[2]) release(client);
  }
}

TEST_F(QmiClientTest, TwoThreadsAreInTheServiceAtOnce) {
  std::barrier both_inside{2};
  publish([&](Request request) {
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
  std::array<CallbackRecord, 2> records;
  const qmi_client_type clients[] = {open(&records[0]), open(&records[1]), open()};
  std::vector<uint32_t> sent(50);
  std::iota(sent.begin(), sent.end(), 1);
  for (const uint32_t value : sent) indicate(static_cast<uint8_t>(value));
  for (CallbackRecord& record : records) {
    ASSERT_TRUE(record.reached(50));
    EXPECT_EQ(record.values, sent);
  }
  for (const qmi_client_type client : clients) release(client);
}

TEST_F(QmiClientTest, ReleaseAndResetOutlastARunningCallbackAndDropTheRest) {
  for (const bool reset : {false, true}) {
    publish(echo);
    std::latch entered{1};
    std::latch gate{1};
    CallbackRecord record;
    record.entered = &entered;
    record.gate = &gate;
    const qmi_client_type client = open(&record);
    ASSERT_EQ(qmi_client_register_error_cb(client, record_error, &record), QMI_NO_ERR);
    indicate(1);
    indicate(2);
    entered.wait();
    auto ending = std::async(std::launch::async, [&] {
      reset ? platform::reset_service_bus() : release(client);
      EXPECT_FALSE(record.running);
    });
    // A tick is enough to see that it waits; a timed wait on the future itself would not follow
    // the test's clock.
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(ending.wait_for(milliseconds(0)), std::future_status::timeout);
    gate.count_down();
    ending.get();
    EXPECT_EQ(send(client, 1), reset ? QMI_SERVICE_ERR : QMI_CLIENT_PARAM_ERR);
    // Whatever was queued has come when a later client has had its own.
    publish(echo);
    CallbackRecord later;
    const qmi_client_type other = open(&later);
    indicate(3);
    EXPECT_TRUE(later.reached(1));
    EXPECT_EQ(record.calls, 1);
    EXPECT_TRUE(record.errors.empty());
    release(other);
    if (reset) release(client);
  }
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
  ASSERT_EQ(qmi_client_init_instance(&kIdl, 1, release_self, &calls, nullptr, 0, &client), 0);
  CallbackRecord behind;
  const qmi_client_type other = open(&behind);
  indicate(1);
  indicate(2);
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
  const auto report_to = [&clients](size_t index, CallbackRecord& record) {
    EXPECT_EQ(qmi_client_register_error_cb(clients[index], record_error, &record), QMI_NO_ERR);
  };
  report_to(0, early);
  report_to(2, gone);
  release(clients[2]);
  platform::withdraw_service(kServiceId);
  publish(echo);
  platform::withdraw_service(kServiceId);
  report_to(1, late);
  report_to(0, early);
  ASSERT_TRUE(late.reached(1));
  for (CallbackRecord* record : {&early, &late}) {
    const std::lock_guard lock(record->mutex);
    EXPECT_EQ(record->errors, std::vector<int>{QMI_SERVICE_ERR});
  }
  EXPECT_EQ(gone.count(), 0u);
  release(clients[0]);
  release(clients[1]);
}

TEST_F(QmiClientTest, TrafficRestartsAndReleasesAtOnceStaySound) {
  publish(echo);
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0};
  const auto client_thread = [&] {
    while (!stop) {
      CallbackRecord record;
      qmi_client_type client = nullptr;
      if (open_within(5, client, &record) != QMI_NO_ERR) continue;
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
    indicate(1);
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
