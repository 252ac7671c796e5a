#include "qmi_client.h"

#include <algorithm>
#include <array>
#include <deque>
#include <future>
#include <set>

#include "platform/qmi/service_bus.h"
#include "tests/platform/callback_record.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
using platform::publish_service;
using platform::ServiceReply;
using platform::withdraw_service;
using std::this_thread::sleep_for;
using Bytes = std::vector<uint8_t>;
using Calls = std::vector<int>;  // the numbers of indications, and errors
using Callbacks = CallbackRecord<int>;

constexpr uint32_t kServiceId = 0x77;
constexpr uint16_t kMessage = 0x20;

// One number, of two bytes on the wire.
constexpr qmi_idl_field kNumber{.tlv = 0x01, .wire_width = 2, .memory_width = 4};
constexpr qmi_idl_message kNumberMessage{kMessage, 4, 5, std::span(&kNumber, 1)};
constexpr std::span kMessages(&kNumberMessage, 1);
constexpr qmi_idl_service_object kIdl{6, 1, kServiceId, 1, 5, kMessages, kMessages, kMessages};

// Echoes every number but 1, which it leaves without answer.
void publish() {
  publish_service(kServiceId, [](uint16_t, std::span<const uint8_t> request) {
    return request[3] == 1 ? ServiceReply::silence()
                           : ServiceReply::response({request.begin(), request.end()});
  });
}

void indicate(uint8_t number) {
  platform::send_indication(kServiceId, kMessage, Bytes{0x01, 2, 0, number, 0});
}

void record_indication(qmi_client_type client, unsigned int msg_id, void* buffer,
                       unsigned int length, void* data) {
  int number = -1;
  static_cast<Callbacks*>(data)->add(0);
  // Also while the client is being released.
  EXPECT_EQ(qmi_client_message_decode(client, QMI_IDL_INDICATION, msg_id, buffer, length, &number,
                                      sizeof number),
            QMI_NO_ERR);
  static_cast<Callbacks*>(data)->add(number);
}

qmi_client_type open(Callbacks* callbacks = nullptr, unsigned int timeout_ms = 0) {
  qmi_client_type client = nullptr;
  const auto indication = callbacks != nullptr ? record_indication : nullptr;
  EXPECT_EQ(qmi_client_init_instance(&kIdl, 1, indication, callbacks, nullptr, timeout_ms, &client),
            QMI_NO_ERR);
  return client;
}

int report_errors(qmi_client_type client, Callbacks* callbacks) {
  const auto record = [](qmi_client_type, int error, void* data) {
    static_cast<Callbacks*>(data)->add(error);
  };
  return qmi_client_register_error_cb(client, record, callbacks);
}

void release(qmi_client_type client) {
  EXPECT_EQ(qmi_client_release(client), QMI_NO_ERR);
}

int send(qmi_client_type client, uint32_t number) {
  return qmi_client_send_msg_sync(client, kMessage, &number, sizeof number, &number, sizeof number,
                                  3000);
}

// Runs beside the caller from `delay_ms` on; waited for at the end.
template <class Run>
std::future<void> later(int delay_ms, Run run) {
  return std::async(std::launch::async, [delay_ms, run] {
    sleep_for(delay_ms * 1ms);
    run();
  });
}

using QmiClientTest = StateDirectoryTest;

TEST_F(QmiClientTest, LossOfServiceOrClientEndsAWaitingRequestAtOnce) {
  const std::function<void(qmi_client_type)> losses[] = {
      [](auto) { withdraw_service(kServiceId); },
      [](auto) { publish(); },
      [](auto) { platform::reset_service_bus(); },
      release,
  };
  for (const auto& lose : losses) {
    publish();
    const qmi_client_type client = open();
    const auto loss = later(500, [&] { lose(client); });
    EXPECT_EQ(time_of([&] { EXPECT_EQ(send(client, 1), QMI_SERVICE_ERR); }), 500ms);
    publish();
    const bool released = &lose == &losses[3];
    EXPECT_EQ(send(client, 2), released ? QMI_CLIENT_PARAM_ERR : QMI_SERVICE_ERR);
    if (!released) release(client);
  }
}

TEST_F(QmiClientTest, ReleaseOutlastsARunningCallbackAndDropsTheRest) {
  publish();
  Callbacks callbacks(500ms);  // twice in each callback
  const qmi_client_type client = open(&callbacks);
  const qmi_client_type idle = open();
  EXPECT_EQ(report_errors(client, &callbacks), QMI_NO_ERR);
  indicate(4);
  indicate(5);
  sleep_for(200ms);
  EXPECT_EQ(time_of([idle] { release(idle); }), 0ms);
  const auto user = later(100, [=] { EXPECT_EQ(send(client, 2), QMI_CLIENT_PARAM_ERR); });
  EXPECT_EQ(time_of([client] { release(client); }), 800ms);
  callbacks.end();
  withdraw_service(kServiceId);
  EXPECT_EQ(callbacks.received(), (Calls{0, 4}));
}

TEST_F(QmiClientTest, IndicationsAndLossesReachThoseWhoAskedInOrderAndOnce) {
  publish();
  Callbacks both;
  Callbacks late;
  const qmi_client_type clients[] = {open(&both), open(), open()};
  EXPECT_EQ(report_errors(clients[0], &both), QMI_NO_ERR);
  release(clients[2]);
  EXPECT_EQ(qmi_client_release(clients[2]), QMI_CLIENT_PARAM_ERR);
  indicate(4);
  indicate(5);
  EXPECT_EQ(both.received(), (Calls{0, 4, 0, 5}));
  withdraw_service(kServiceId);
  publish();
  withdraw_service(kServiceId);
  sleep_for(1ms);
  EXPECT_EQ(report_errors(clients[0], &both) + report_errors(clients[1], &late), QMI_NO_ERR);
  EXPECT_EQ(both.received(), (Calls{0, 4, 0, 5, QMI_SERVICE_ERR}));
  EXPECT_EQ(late.received(), Calls{QMI_SERVICE_ERR});
  std::for_each(clients, clients + 2, release);
}

TEST_F(QmiClientTest, TrafficRestartsAndReleasesAtOnceStaySound) {
  constexpr int kRounds = 4;
  // They stay, so that a callback which comes too late is seen.
  std::deque<std::array<Callbacks, kRounds>> all;
  std::set<int> results;
  const auto use_clients = [](std::array<Callbacks, kRounds>& own) {
    std::set<int> sent;
    for (Callbacks& callbacks : own) {
      const qmi_client_type client = open(&callbacks, 60000);
      EXPECT_EQ(report_errors(client, &callbacks), QMI_NO_ERR);
      sent.insert(send(client, &callbacks == &own[1] ? 1 : 2));
      release(client);
      callbacks.end();
    }
    return sent;
  };
  for (uint64_t seed = 1; seed <= 60; ++seed) {
    const Shuffle shuffle(seed);
    publish();
    auto first = std::async(std::launch::async, use_clients, std::ref(all.emplace_back()));
    auto second = std::async(std::launch::async, use_clients, std::ref(all.emplace_back()));
    for (int round = 0; round < kRounds; ++round) {
      indicate(7);
      withdraw_service(kServiceId);
      publish();
    }
    results.merge(first.get());
    results.merge(second.get());
  }
  EXPECT_EQ(platform::open_handle_count(), 0u);
  results.erase(QMI_TIMEOUT_ERR);
  EXPECT_EQ(results, (std::set<int>{QMI_NO_ERR, QMI_SERVICE_ERR}));
}

}  // namespace
}  // namespace kiv::test
