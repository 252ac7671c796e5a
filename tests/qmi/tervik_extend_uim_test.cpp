#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>

#include "tervik_extend_cmn.h"
#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/time_lapse.h"
#include "uim_idl.h"

namespace kiv::test {

// Takes the place of calloc in the product.
void* real_calloc(size_t count, size_t size) asm("__real_calloc");
void* failing_calloc(size_t count, size_t size) asm("__wrap_calloc");
std::atomic<int> g_callocs_until_failure{0};
void* failing_calloc(size_t count, size_t size) {
  return g_callocs_until_failure > 0 && --g_callocs_until_failure == 0 ? nullptr
                                                                       : real_calloc(count, size);
}

namespace {

using platform::ServiceReply;

// The records of the callers; the outputs end where they must.
constexpr uint32_t kSimTypes[] = {7, 1, 3, 5, 7, 9, 11, 13};
constexpr uint8_t kSlot[] = {2, 9};  // slot, then an option or a channel
Bytes g_apdu_in(258, 9);             // slot, channel and length, then bytes
uint8_t g_eid[16];
uint16_t g_states;
uint8_t g_channel;
Bytes g_apdu_out(UIM_APDU_OUTPUT_SIZE);

enum { kSimType, kEid, kCards, kOpen, kClose, kApdu };
const struct {
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

class ExtendUim : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
    publish();
  }
  void TearDown() override {
    uim_qmi_client_recovery();
    EXPECT_EQ(platform::open_handle_count(), 0u);
    StateDirectoryTest::TearDown();
  }

  // A service that gives `error_`, or the good answer with `changes_` made to it.
  void publish() {
    platform::publish_service(kServiceId, [this](uint16_t id, std::span<const uint8_t> request) {
      message_ = id;
      request_.assign(request.begin(), request.end());
      if (error_ != 0) return ServiceReply::transport_error(error_);
      Bytes answer;
      for (const auto& operation : kOperations) {
        if (operation.message == id) answer.resize(operation.answer_size);
      }
      for (const auto& [offset, value] : changes_) put(answer, offset, value);
      return ServiceReply::response(answer);
    });
  }
  int run(size_t operation, const std::vector<std::pair<size_t, uint32_t>>& changes = {}) {
    changes_ = changes;
    return kOperations[operation].run();
  }

  const uint32_t kServiceId = uim_get_service_object_internal_v01(1, 0x71, 6)->service_id;
  uint16_t message_ = 0;
  Bytes request_;
  int error_ = 0;
  std::vector<std::pair<size_t, uint32_t>> changes_;
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
  const std::string lines[] = {"set_sim_type try init_", "request_eid ",   "get_card_status ",
                               "open_channel ",          "close_channel ", ""};
  for (size_t i = 0; i < std::size(kOperations); ++i) {
    const LogCapture log;
    EXPECT_EQ(run(i), 0) << i;
    EXPECT_EQ(message_, kOperations[i].message);
    EXPECT_EQ(request_, requests[i]) << i;
    EXPECT_EQ(log.contains(lines[i] + "uim_qmi_client 0x"), i != kApdu);
  }
  EXPECT_EQ(tervik_setSimType(nullptr), -2);
}

TEST_F(ExtendUim, AnswersAreTakenAsFarAsTheyAreGoodAndFit) {
  for (const auto& [result, valid] : {std::pair{0u, 1u}, {0u, 0u}, {1u, 1u}}) {
    std::fill(std::begin(g_eid), std::end(g_eid), uint8_t{0xEE});
    EXPECT_EQ(run(kEid, {{0, result}, {8, valid}, {28, 0x04030201}}), 0);
    EXPECT_EQ(g_eid[0] + g_eid[15], result == 0 && valid != 0 ? 4 : 2 * 0xEE);
  }
  const std::tuple<uint32_t, uint32_t, uint32_t, int> cards[] = {
      {0, 1, 0, 0x0303}, {0, 1, 1, 0x0302}, {0, 1, 2, 0x0102}, {0, 1, UINT32_MAX, 0x0102},
      {0, 1, 7, 0x0102}, {0, 0, 2, 0x0303}, {1, 1, 2, 0x0303}, {0, 2, 2, 0x0303}};
  for (const auto& [result, listed, count, states] : cards) {
    run(kCards, {{0, result}, {1306, listed}, {1340, count}, {1344, 2}, {2884, 0x101}});
    EXPECT_EQ(g_states, states) << count;
  }
  g_channel = 255;
  EXPECT_EQ(run(kOpen, {{8, 0x0500}}), 0);
  EXPECT_EQ(run(kOpen, {{0, 1}, {8, 0x0501}}), -1);
  EXPECT_EQ(g_channel, 255);
  EXPECT_EQ(run(kOpen, {{8, 0x0501}}), 0);
  EXPECT_EQ(g_channel, 5);
  for (const size_t i : {kSimType, kClose, kApdu}) EXPECT_EQ(run(i, {{0, 1}}), i == kApdu ? -1 : 0);
  for (const uint32_t length : {0u, 8u, 255u, 256u, 1024u, UINT32_MAX}) {
    g_apdu_out.assign(256, 0xEE);
    EXPECT_EQ(run(kApdu, {{12, length}, {16, 0x77777790}, {16 + 252, 0x11223344}}), 0);
    EXPECT_EQ(g_apdu_out[0], length & 0xFF);
    EXPECT_EQ(g_apdu_out[1], length == 0 ? 0xEE : 0x90);
    EXPECT_EQ(g_apdu_out[255], length < 255 ? 0xEE : 0x22);
  }
}

TEST_F(ExtendUim, ClientIsMadeAnewAfterTheServiceWentDown) {
  const std::string noticed = "SSR Detected, set SSR_Detected 1";
  for (size_t i = 0; i < std::size(kOperations); ++i) {
    EXPECT_EQ(run(kEid), 0);
    const LogCapture log;
    for (const int error : {-1, -2}) error_cb(nullptr, error, nullptr);
    EXPECT_EQ(log.count(noticed), 1u);
    EXPECT_EQ(run(i), 0);
    EXPECT_EQ(log.count("SSR_Detected, try recovery"), i == kCards ? 0u : 1u) << i;
    EXPECT_EQ(log.contains("init_uim_qmi_client 0x"), i != kCards);
    EXPECT_EQ(platform::open_handle_count(), 1u);
  }
  const LogCapture log;
  publish();  // takes the service down first
  for (int i = 0; i < 5000 && !log.contains(noticed); ++i) usleep(1000);
  EXPECT_EQ(log.count(noticed), 1u);
  EXPECT_EQ(run(kCards), -2);
  EXPECT_EQ(log.count("QMI error, try recovery"), 1u);
  EXPECT_EQ(platform::open_handle_count(), 0u);
}

TEST_F(ExtendUim, FailuresAreReturnedAndTheThirdFailedSendReleasesTheClient) {
  const TimeLapse lapse(1000);
  g_callocs_until_failure = 1;
  EXPECT_EQ(run(kSimType), -2);
  for (const size_t i : {kEid, kCards, kOpen, kClose, kApdu}) {
    error_ = 0;
    EXPECT_EQ(run(i), 0);
    for (const int request_or_response : {1, 2}) {
      g_callocs_until_failure = request_or_response;
      message_ = 0;
      EXPECT_EQ(run(i), -1) << i;
      EXPECT_EQ(g_callocs_until_failure + message_, 0);
    }
    error_ = -14;
    const LogCapture log;
    EXPECT_EQ(run(kSimType), -14);  // does not count
    for (const size_t failing : {size_t{kEid}, size_t{kCards}, i}) {
      EXPECT_FALSE(log.contains("QMI error, try recovery"));
      EXPECT_EQ(platform::open_handle_count(), 1u);
      EXPECT_EQ(run(failing), -14);
    }
    EXPECT_EQ(log.count("QMI error, try recovery"), 1u);
    EXPECT_EQ(platform::open_handle_count(), 0u) << i;
  }
  platform::withdraw_service(kServiceId);
  for (size_t i = 0; i < std::size(kOperations); ++i) {
    const LogCapture log;
    EXPECT_EQ(run(i), -1) << i;
    EXPECT_EQ(log.count("init_uim_qmi_client failed"), 1u);
    EXPECT_EQ(platform::open_handle_count(), 0u);
  }
}

}  // namespace
}  // namespace kiv::test
