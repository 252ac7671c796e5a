#include "tervik_extend_cmn.h"

#include <climits>

#include "sar_idl.h"
#include "tests/qmi/extension_client_fixture.h"
#include "uim_idl.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using namespace std::chrono_literals;

using ExtendCmn = ExtensionClientTest;

TEST_F(ExtendCmn, RequestsOfClassFourAreSentWhole) {
  const Bytes data = counted_bytes(499);
  ExtensionAnswer answer = answer_of(counted_bytes(550));
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  const std::tuple<decltype(&tervik_common_qmi_req), unsigned, std::vector<uint32_t>> kinds[] = {
      {tervik_send_common_qmi_msg, 491, {2, 0, 0xFFFFFFE1, 491}},
      {tervik_common_qmi_req, 499, {0xFFFFFFE1, 0}}};
  for (const auto& [send, most, head] : kinds) {
    Bytes rsp(508);
    EXPECT_EQ(send(-31, most, data.data(), rsp.data(), nullptr), 0);
    Bytes wanted = words(head);
    wanted.insert(wanted.end(), data.begin(), data.begin() + most);
    EXPECT_EQ(stub.requests().back().payload, payload_of(wanted));
    // An answer without its result is none, and its bytes are not handed on.
    for (const auto& [len, result] : {std::pair{7u, -3}, {8u, 0}}) {
      answer.len = len;
      int received = -1;
      EXPECT_EQ(send(31, 0, nullptr, rsp.data(), &received), result);
      EXPECT_EQ(received, rsp[7]);
      EXPECT_EQ(rsp[7], result == 0 ? 8 : 0);
    }
  }
}

TEST_F(ExtendCmn, RestartsAreCountedByTypeLowestFirst) {
  const std::tuple<uint32_t, Strings, Strings> rows[] = {
      {0xFFFFFFFF, {"00000001=5"}, {"00000001=5", "ffffffff=1"}},
      {0x7FFFFFFF,
       {},
       {"00000001=1", "00000002=1", "00000004=1", "00000008=1", "00000010=1", "00000020=1",
        "00000040=1", "00000080=1", "00000100=1", "00010000=1", "00020000=1", "00040000=1",
        "00080000=1"}},
      {0x00080200, {"00080000=2147483647"}, {"00080000=-2147483648"}},
      {0x00000100, {"00000100=many"}, {"00000100=1"}},
  };
  const auto file_of = [](const Strings& counters) {  // the ends of the properties' lines
    std::string text;
    for (const std::string& each : counters) text += "persist.radio.ssr_count_0x" + each + "\n";
    return text;
  };
  for (const auto& [flag, before, after] : rows) {
    write_state_file_text("properties", file_of(before));
    tervik_save_modem_ssr_count(static_cast<int>(flag));
    EXPECT_EQ(read_state_file_text("properties"), file_of(after)) << flag;
  }
}

// A service that notes the requests and answers as the test says.
class OtherServiceTest : public ExtensionClientTest {
 protected:
  explicit OtherServiceTest(qmi_idl_service_object_type object) : kServiceId(object->service_id) {}

  // Takes the service down first when it is up.
  void publish() {
    platform::publish_service(kServiceId, [this](uint16_t id, std::span<const uint8_t> bytes) {
      requests_.emplace_back(id, Bytes(bytes.begin(), bytes.end()));
      return answer_(id);
    });
  }

  const uint32_t kServiceId;
  std::vector<std::pair<uint16_t, Bytes>> requests_;
  std::function<ServiceReply(uint16_t id)> answer_;
};

// ---- SAR ----

// The product never releases its client.
class ExtendSar : public OtherServiceTest {
 protected:
  ExtendSar() : OtherServiceTest(sar_get_service_object_internal_v01(1, 0x0F, 6)) {}
  void TearDown() override {
    platform::withdraw_service(kServiceId);
    EXPECT_EQ(tervik_get_sar_dsi(), -1);
    for (intptr_t key = 1; platform::open_handle_count() > 0; ++key) {
      static_cast<void>(qmi_client_release(reinterpret_cast<qmi_client_type>(key)));
    }
    OtherServiceTest::TearDown();
  }
};

TEST_F(ExtendSar, StateIsSetFromOneToTwentyAndReadUnchecked) {
  answer_ = [](uint16_t id) { return ServiceReply::response(Bytes(id == 1 ? 8 : 40, 0xFE)); };
  publish();
  for (const auto& [dsi, state] :
       {std::pair{0, 0}, {1, 1}, {20, 20}, {21, 0}, {-1, 0}, {INT_MAX, 0}}) {
    EXPECT_EQ(tervik_set_sar_dsi(dsi), 0);
    Bytes request(32);
    put(request, 0, state);
    EXPECT_EQ(requests_.back(), std::pair(uint16_t{1}, request)) << dsi;
  }
  EXPECT_EQ(tervik_get_sar_dsi(), static_cast<int>(0xFEFEFEFE));
  EXPECT_EQ(requests_.back(), std::pair(uint16_t{2}, Bytes{}));
  EXPECT_EQ(platform::open_handle_count(), 1u);
}

TEST_F(ExtendSar, FailedRequestDropsTheClientAndTheNextMakesANewOne) {
  // Milliseconds, where the other services are given seconds.
  platform::withdraw_service(kServiceId);
  EXPECT_EQ(time_of([] { EXPECT_EQ(tervik_set_sar_dsi(1), -1); }), 4ms);
  publish();
  for (const auto& [reply, error, takes] :
       {std::tuple{ServiceReply::silence(), QMI_TIMEOUT_ERR, 30s + kLateness},
        {ServiceReply::response(Bytes(39)), QMI_INTERNAL_ERR, 0ms}}) {
    answer_ = [&said = reply](uint16_t) { return said; };
    const size_t clients = platform::open_handle_count();
    EXPECT_EQ(time_of([&set = error] { EXPECT_EQ(tervik_set_sar_dsi(3), set); }), takes);
    EXPECT_EQ(time_of([] { EXPECT_EQ(tervik_get_sar_dsi(), -1); }), takes);
    EXPECT_EQ(platform::open_handle_count(), clients + 2);
  }
  answer_ = [](uint16_t) { return ServiceReply::response(Bytes(40)); };
  EXPECT_EQ(tervik_get_sar_dsi(), 0);
  publish();  // the client of before stays dead
  EXPECT_EQ(tervik_get_sar_dsi(), -1);
  EXPECT_EQ(tervik_get_sar_dsi(), 0);
}

// ---- SIM cards ----

// The records of the callers; the outputs end where they must.
constexpr uint32_t kSimTypes[] = {7, 1, 3, 5, 7, 9, 11, 13};
constexpr uint8_t kSlot[] = {2, 9};  // slot, then an option or a channel
Bytes g_apdu_in(258, 9);             // slot, channel and length, then bytes
uint8_t g_eid[16];
uint16_t g_states;
uint8_t g_channel;
Bytes g_apdu_out(UIM_APDU_OUTPUT_SIZE);

enum { kSimType, kEid, kCards, kOpen, kClose, kApdu };
const struct Operation {
  int (*run)();
  uint16_t message;
  size_t answer_size;
} kOperations[] = {
    {[] { return tervik_setSimType(kSimTypes); }, 0x7A, 8},
    {[] { return tervik_uim_request_eid(kSlot, g_eid); }, 0x65, 32},
    {[] { return tervik_uim_get_card_status(&g_states); }, 0x2F, 12364},
    {[] { return tervik_uim_open_channel(kSlot, &g_channel); }, 0x42, 1304},
    {[] { return tervik_uim_close_channel(kSlot); }, 0x3F, 1304},
    {[] { return tervik_uim_send_apdu(g_apdu_in.data(), g_apdu_out.data()); }, 0x3B, 1052},
};

class ExtendUim : public OtherServiceTest {
 protected:
  // A service that gives `error_`, or the good answer, which is all zero.
  ExtendUim() : OtherServiceTest(uim_get_service_object_internal_v01(1, 0x71, 6)) {
    answer_ = [this](uint16_t id) {
      const auto* const operation = std::ranges::find(kOperations, id, &Operation::message);
      return error_ != 0 ? ServiceReply::transport_error(error_)
                         : ServiceReply::response(Bytes(operation->answer_size));
    };
  }
  void SetUp() override {
    OtherServiceTest::SetUp();
    publish();
  }
  void TearDown() override {
    uim_qmi_client_recovery();
    OtherServiceTest::TearDown();
  }

  int error_ = 0;
};

TEST_F(ExtendUim, RequestsAreSentByteForByte) {
  g_apdu_in[0] = 2;
  g_apdu_in[2] = 255;
  Bytes open = words({2, 1, 16, 0x050000A0, 0xFF101059, 0x89FFFFFF, 0x00010000, 0, 0, 0, 0, 1, 9});
  Bytes close = words({2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0901, 0, 1});
  Bytes apdu = words({2, 255});
  apdu.resize(1060);
  std::fill_n(&apdu[8], 255, uint8_t{9});
  put(apdu, 1032, 0x00010901);
  put(apdu, 1036, 1);
  const Bytes requests[] = {words({5, 1, 3, 5, 7, 9}), words({2}), {1, 1}, open, close, apdu};
  for (size_t i = 0; i < std::size(kOperations); ++i) {
    EXPECT_EQ(kOperations[i].run(), 0) << i;
    EXPECT_EQ(requests_.back(), std::pair(kOperations[i].message, requests[i])) << i;
  }
}

TEST_F(ExtendUim, ClientIsMadeAnewAfterTheServiceWentDown) {
  for (size_t i = 0; i < std::size(kOperations); ++i) {
    EXPECT_EQ(kOperations[kEid].run(), 0);
    publish();  // takes the service down first
    const LogCapture log;
    usleep(1);  // the framework's thread calls back
    error_cb(nullptr, -1, nullptr);
    EXPECT_EQ(log.count("SSR Detected, set SSR_Detected 1"), 1u);
    // The card-status read sends on the dead client, and gives it up for that.
    EXPECT_EQ(kOperations[i].run(), i == kCards ? -2 : 0) << i;
    EXPECT_EQ(log.count("SSR_Detected, try recovery"), i == kCards ? 0u : 1u);
    EXPECT_EQ(platform::open_handle_count(), i == kCards ? 0u : 1u);
  }
}

TEST_F(ExtendUim, TheThirdFailedSendReleasesTheClient) {
  error_ = -14;
  for (const int last : {kEid, kCards, kOpen, kClose, kApdu}) {
    // The failures of the first kind do not count.
    for (const int failing : {int{kSimType}, int{kEid}, int{kCards}, last}) {
      EXPECT_EQ(kOperations[failing].run(), -14);
    }
    EXPECT_EQ(platform::open_handle_count(), 0u) << last;
  }
}

}  // namespace
}  // namespace kiv::test
