#include "tervik_extend_api.h"

#include <atomic>
#include <future>
#include <thread>

#include "tervik_extend_idl.h"
#include "tests/qmi/extension_client_fixture.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
using platform::ServiceReply;

using ExtendApi = ExtensionClientTest;

// What one request came to: its result, and the bytes in a buffer of exactly the capacity, as far
// as the length says; of a failure, the whole buffer.
using Outcome = std::pair<int, Bytes>;

Outcome send(uint32_t id, const Bytes& req, size_t capacity) {
  const auto rsp = std::make_unique<uint8_t[]>(capacity);
  const uint8_t nothing = 0;
  auto rsp_len = static_cast<int>(capacity);
  const int result = tervik_extend_qmi_send_sync(id, req.empty() ? &nothing : req.data(),
                                                 static_cast<int>(req.size()), rsp.get(), &rsp_len);
  return {result, Bytes(rsp.get(), rsp.get() + rsp_len)};
}

int result_of_send() {
  return send(2, {1}, 1).first;
}

ExtensionStub::Answer echo(const ExtensionRequest& request) {
  return ExtensionAnswer{.result = 0, .len = request.len, .payload = request.payload};
}

TEST_F(ExtendApi, RequestsAreSentWholeOrRefused) {
  const ExtensionStub stub(echo);
  for (const size_t size : {550u, 0u}) {
    EXPECT_EQ(send(0xFFFFFFFE, counted_bytes(size), size), Outcome(0, counted_bytes(size)));
    EXPECT_EQ(stub.requests().back().id, 0xFFFFFFFE);
  }
  Bytes buffer(551);
  uint8_t* const any = buffer.data();
  const std::tuple<const uint8_t*, int, uint8_t*, int> refused[] = {
      {any, 4, nullptr, 4}, {any, 4, any, 551}, {any, -1, any, 4}, {any, 4, any, -1}};
  for (const auto& [req, req_len, rsp, capacity] : refused) {
    int rsp_len = capacity;
    EXPECT_EQ(tervik_extend_qmi_send_sync(2, req, req_len, rsp, &rsp_len), -1);
  }
  EXPECT_EQ(tervik_extend_qmi_send_sync(2, any, 4, any, nullptr), -1);
  EXPECT_EQ(stub.requests().size(), 2u);
}

TEST_F(ExtendApi, ResponseIsCutToTheCapacityAndNeverFollowedBeyondItsPayload) {
  const Bytes full = counted_bytes(550);
  Bytes unknown_tlv = encode_extension_answer({0, 2, full});
  unknown_tlv.insert(unknown_tlv.end(), {0x55, 2, 0, 7, 7});
  const std::tuple<ExtensionStub::Answer, size_t, Outcome> rows[] = {
      {ExtensionAnswer{0, 10, full}, 4, {0, counted_bytes(4)}},
      {ExtensionAnswer{0, UINT32_MAX, full}, 550, {0, full}},
      {ServiceReply::response(unknown_tlv), 4, {0, counted_bytes(2)}},
      {ExtensionAnswer{UINT32_MAX, 4, full}, 4, {-3, Bytes(4)}},
      {ExtensionAnswer{0, 4, counted_bytes(551)}, 4, {-3, Bytes(4)}},
  };
  for (const auto& [answer, capacity, outcome] : rows) {
    const ExtensionStub stub([&said = answer](const ExtensionRequest&) { return said; });
    tervik_extend_qmi_init_force();
    EXPECT_EQ(send(4, {1}, capacity), outcome);
  }
}

TEST_F(ExtendApi, AFailedSendCostsTheClientAndTheNextOneOpensAnother) {
  bool silent = false;
  const ExtensionStub stub([&silent](const ExtensionRequest& request) {
    return silent ? ExtensionStub::Answer(ServiceReply::silence()) : echo(request);
  });
  EXPECT_EQ(result_of_send(), 0);
  silent = true;
  EXPECT_EQ(time_of([] { EXPECT_EQ(result_of_send(), -3); }), 3s + kLateness);
  EXPECT_EQ(platform::open_handle_count(), 0u);
  silent = false;
  EXPECT_EQ(result_of_send(), 0);
  stub.restart();  // the open client stays dead
  EXPECT_EQ(result_of_send(), -3);
  EXPECT_EQ(result_of_send(), 0);
}

// The service keeps its sender beyond the watchdog's time.
TEST_F(ExtendApi, WatchdogWaitsForTheSenderAndSoDoesTheNextOne) {
  bool stuck = true;
  const ExtensionStub stub([&stuck](const ExtensionRequest& request) -> ExtensionStub::Answer {
    if (!std::exchange(stuck, false)) return echo(request);
    sleep(9);
    return ServiceReply::silence();
  });
  auto next = std::async(std::launch::async, [] {
    sleep(4);
    return time_of([] { EXPECT_EQ(result_of_send(), 0); });
  });
  EXPECT_EQ(time_of([] { EXPECT_EQ(result_of_send(), -3); }), 9s);
  EXPECT_EQ(next.get(), 5s);
}

TEST_F(ExtendApi, AMissingServiceIsAwaitedForASecond) {
  const ExtensionStub stub(echo);
  platform::withdraw_service(TERVIK_EXTEND_SERVICE_ID);
  EXPECT_EQ(time_of([] { EXPECT_EQ(result_of_send(), -2); }), 50 * 20ms);
  EXPECT_EQ(platform::open_handle_count(), 0u);
  const auto modem = std::async(std::launch::async, [&stub] {
    usleep(130'000);
    stub.restart();
  });
  EXPECT_EQ(time_of([] { EXPECT_EQ(result_of_send(), 0); }), 130ms);
}

TEST_F(ExtendApi, ThreadsAreServedOneAfterTheOther) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    const Shuffle shuffle(seed);
    std::atomic<int> inside{0};
    const ExtensionStub stub([&inside](const ExtensionRequest& request) {
      EXPECT_EQ(++inside, 1);
      usleep(10);
      --inside;
      return echo(request);
    });
    tervik_extend_qmi_init_force();
    const auto work = [](uint8_t number) {
      for (int round = 0; round < 4; ++round) {
        const Bytes req(size_t{number} * 100, static_cast<uint8_t>(number + round));
        EXPECT_EQ(send(number, req, req.size()), Outcome(0, req));
        if (round == number) tervik_extend_qmi_init_force();
      }
    };
    const auto second = std::async(std::launch::async, work, uint8_t{2});
    const auto third = std::async(std::launch::async, work, uint8_t{3});
    work(1);
  }
}

TEST_F(ExtendApi, HostileIndicationsAreDropped) {
  const ExtensionStub stub(echo);
  ASSERT_EQ(result_of_send(), 0);
  const LogCapture log;
  for (const auto& [msg_id, bytes] :
       {std::pair{3, encode_extension_answer({UINT32_MAX, 0, {}})}, {0x0D, Bytes(23)}}) {
    platform::send_indication(TERVIK_EXTEND_SERVICE_ID, static_cast<uint16_t>(msg_id), bytes);
  }
  usleep(1);  // the framework's thread delivers them
  EXPECT_EQ(log.count("Indicaion: -1 greater than maximum known indication."), 1u);
  EXPECT_EQ(log.count("indication 0xd does not decode, buf_len: 23"), 1u);
}

TEST(ExtendIdl, MessagesHaveTheirSizesInOneVersionAlone) {
  const auto service = tervik_extend_get_service_object_internal_v01;
  std::vector<size_t> sizes;  // each behind its message's id
  const auto& object = *service(1, 1, 6);
  for (const auto& table : {object.requests, object.responses, object.indications}) {
    for (const auto& message : table) sizes.insert(sizes.end(), {message.id, message.c_struct_len});
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{2, 560,  3, 560, 4,  564, 10, 1544, 12, 12,  2,  560,
                                        3, 560,  4, 8,   10, 8,   12, 8,    3,  560, 5,  1128,
                                        6, 1288, 7, 8,   8,  32,  9,  408,  11, 20,  13, 24}));
  EXPECT_EQ(object.max_message_len, 1553u);
  for (uint32_t other = 0; other < 10; ++other) {
    EXPECT_EQ(service(other, 1, 6) != nullptr, other == 1);
    EXPECT_EQ(service(1, other, 6) != nullptr, other == 1);
    EXPECT_EQ(service(1, 1, other) != nullptr, other == 6);
  }
}

}  // namespace
}  // namespace kiv::test
