#include "platform/modem/uim_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/modem/extension_service.h"
#include "tests/support/state_directory_fixture.h"
#include "uim_idl.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;

constexpr std::array<uint8_t, 16> kIsdrAid{0xA0, 0,    0,    5,    0x59, 0x10, 0x10, 0xFF,
                                           0xFF, 0xFF, 0xFF, 0x89, 0,    0,    1,    0};
const Bytes kMemoryReset{0x80, 0xE2, 0x91, 0, 7, 0xBF, 0x34, 4, 0x82, 2, 5, 0xE0, 0};

template <class Body>
Bytes bytes_of(const Body& body) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&body);
  return {bytes, bytes + sizeof body};
}

class UimServiceTest : public StateDirectoryTest {
 protected:
  // A modem that has just started, with this configuration.
  void start(const std::string& conf = {}) {
    service_ = platform::make_uim_service(platform::parse_modem_conf(conf));
  }

  template <class Response, class Request>
  Response ask(uint16_t id, const Request& request) {
    Response response{};
    const ServiceReply reply = service_(id, bytes_of(request));
    EXPECT_EQ(reply.bytes.size(), sizeof response);
    std::memcpy(&response, reply.bytes.data(), std::min(reply.bytes.size(), sizeof response));
    return response;
  }

  // The EID in lower-case hexadecimal, empty when none is reported.
  std::string eid(uint32_t slot) {
    const auto response =
        ask<uim_get_eid_resp_msg_v01>(QMI_UIM_GET_EID_REQ_V01, uim_get_eid_req_msg_v01{slot});
    EXPECT_EQ(response.eid_value_len, response.eid_value_valid != 0 ? 16u : 0u);
    std::string text;
    for (const uint8_t byte : response.eid_value) {
      constexpr char kDigits[] = "0123456789abcdef";
      text += {kDigits[byte >> 4], kDigits[byte & 0xF]};
    }
    return response.eid_value_valid != 0 ? text : "";
  }

  // The new channel, or 0 when it was refused.
  int open(uint32_t slot = 2, uint32_t aid_len = 16, uint8_t first_byte = 0xA0) {
    uim_open_logical_channel_req_msg_v01 request{};
    request.slot = slot;
    request.aid_valid = 1;
    request.aid_len = aid_len;
    std::copy(kIsdrAid.begin(), kIsdrAid.end(), request.aid);
    request.aid[0] = first_byte;
    const auto response =
        ask<uim_open_logical_channel_resp_msg_v01>(QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01, request);
    EXPECT_EQ(response.channel_id_valid, response.resp.result == 0 ? 1 : 0);
    return response.channel_id;
  }

  int32_t close(uint8_t channel, uint32_t slot = 2) {
    uim_logical_channel_req_msg_v01 request{};
    request.slot = slot;
    request.channel_id_valid = 1;
    request.channel_id = channel;
    return ask<uim_logical_channel_resp_msg_v01>(QMI_UIM_LOGICAL_CHANNEL_REQ_V01, request)
        .resp.result;
  }

  // The response APDU, empty when the request failed.
  Bytes send(int channel, const Bytes& apdu, uint32_t claimed = 0) {
    uim_send_apdu_req_msg_v01 request{};
    request.slot = 2;
    request.apdu_len = claimed != 0 ? claimed : static_cast<uint32_t>(apdu.size());
    std::copy(apdu.begin(), apdu.end(), request.apdu);
    request.channel_id_valid = 1;
    request.channel_id = static_cast<uint8_t>(channel);
    const auto response = ask<uim_send_apdu_resp_msg_v01>(QMI_UIM_SEND_APDU_REQ_V01, request);
    EXPECT_EQ(response.resp.result == 0, response.apdu_valid == 1);
    return {response.apdu, response.apdu + response.apdu_len};
  }

  platform::Service service_;
};

TEST_F(UimServiceTest, OnlyRequestsOfTheRightSizeAreRead) {
  start();
  const struct {
    uint16_t id;
    size_t size;
  } messages[] = {{0x7A, 24}, {0x65, 4}, {0x2F, 2}, {0x42, 52}, {0x3F, 56}, {0x3B, 1060}};
  for (const auto& row : messages) {
    for (const size_t size : {size_t{0}, row.size - 1, row.size + 1}) {
      EXPECT_EQ(service_(row.id, Bytes(size, 0xFF)).kind, ServiceReply::Kind::kError) << row.id;
    }
    EXPECT_EQ(service_(row.id, Bytes(row.size, 0xFF)).kind, ServiceReply::Kind::kResponse);
  }
  EXPECT_EQ(service_(0x66, Bytes(4)).kind, ServiceReply::Kind::kError);
  EXPECT_FALSE(std::filesystem::exists(state_dir()));
}

TEST_F(UimServiceTest, ReportsTheEidAndTheCardsThatAreConfigured) {
  const struct {
    const char* conf;
    std::string eid;
    Words cards;
  } cases[] = {
      {"", "89001017000000000000000000000163", {1, 1}},
      {"eid = 01234567890123456789012345678901\ncard.1 = absent",
       "01234567890123456789012345678901",
       {1, 0}},
      {"eid = none\ncard.0 = error", "", {2, 1}},
  };
  for (const auto& row : cases) {
    start(row.conf);
    EXPECT_EQ(eid(2), row.eid) << row.conf;
    EXPECT_EQ(eid(1), "");
    const auto status = ask<uim_get_card_status_resp_msg_v01>(
        QMI_UIM_GET_CARD_STATUS_REQ_V01, uim_get_card_status_req_msg_v01{1, 1});
    EXPECT_EQ(status.card_list_valid, 1);
    EXPECT_EQ(status.card_list_len, 2u);
    EXPECT_EQ((Words{status.card_list[0].card_state, status.card_list[1].card_state}), row.cards);
  }
}

TEST_F(UimServiceTest, ChannelsAreLimitedAndHaveToBeOpen) {
  start();
  EXPECT_EQ(open(1), 0);
  EXPECT_EQ(open(2, 15), 0);
  EXPECT_EQ(open(2, UINT32_MAX), 0);
  EXPECT_EQ(open(2, 16, 0xA1), 0);
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(open(), 2);
  EXPECT_EQ(open(), 3);
  EXPECT_EQ(open(), 0);
  EXPECT_EQ(close(2), 0);
  EXPECT_EQ(close(2), 1);
  EXPECT_EQ(close(1, 1), 1);
  EXPECT_EQ(close(0), 1);
  EXPECT_EQ(close(255), 1);
  EXPECT_EQ(send(2, kMemoryReset), Bytes());
  EXPECT_EQ(send(0, kMemoryReset), Bytes());
  EXPECT_EQ(open(), 2);
  EXPECT_EQ(send(2, kMemoryReset, UIM_APDU_MAX_V01 + 1), Bytes());
  EXPECT_EQ(read_state_file_text("uim/profiles"), "");
  start("uim.open_channel = fail");
  EXPECT_EQ(open(), 0);
}

TEST_F(UimServiceTest, AMemoryResetDeletesTheProfilesOnce) {
  const Bytes deleted{0xBF, 0x34, 3, 0x80, 1, 0, 0x90, 0};
  const Bytes nothing{0xBF, 0x34, 3, 0x80, 1, 1, 0x90, 0};
  const Bytes unknown{0x6D, 0};
  start("uim.reset = fail");
  EXPECT_EQ(send(open(), kMemoryReset), (Bytes{0x6A, 0x80}));
  start();
  open();
  for (size_t cut = 0; cut + 1 < kMemoryReset.size(); ++cut) {
    EXPECT_EQ(send(1, {kMemoryReset.begin(), kMemoryReset.begin() + static_cast<int>(cut)}),
              unknown)
        << cut;
  }
  EXPECT_EQ(send(1, kMemoryReset), deleted);
  EXPECT_EQ(send(1, kMemoryReset), nothing);
  start("uim.profiles = 7");
  EXPECT_EQ(send(open(), kMemoryReset), nothing) << "the modem forgot";
  std::filesystem::remove(state_dir() + "/uim/profiles");
  EXPECT_EQ(send(1, kMemoryReset), deleted);
  std::filesystem::remove(state_dir() + "/uim/profiles");
  start("uim.profiles = 0");
  EXPECT_EQ(send(open(), kMemoryReset), nothing);
}

TEST_F(UimServiceTest, TheSimTypeIsKeptUnlessTheServiceFails) {
  const auto set = [this](uint32_t count, uint32_t second) {
    return ask<uim_set_sim_type_resp_msg_v01>(
               QMI_UIM_SET_SIM_TYPE_REQ_V01,
               uim_set_sim_type_req_msg_v01{count, {1, second, 7, 7, 7}})
        .resp.result;
  };
  start();
  EXPECT_EQ(set(2, 3), 0);
  EXPECT_EQ(set(6, 9), 1);
  start("fault.uim = result:-4");
  EXPECT_EQ(set(2, 9), -4);
  EXPECT_EQ(eid(2), "");
  EXPECT_EQ(read_state_file_text("uim/sim_type"), std::string("\1\0\0\0\3\0\0\0", 8));
}

// A common message of the extension service: TLV 0x01 class 4, 0x02 length, 0x10 payload.
ServiceReply common_message(const platform::Service& service, uint32_t type, const Words& data) {
  Bytes message{1, 4, 0, 4, 0, 0, 0, 2, 4, 0, 0, 2, 0, 0, 0x10, 0x26, 0x02};
  Words payload{2, 0, type, static_cast<uint32_t>(4 * data.size())};
  payload.insert(payload.end(), data.begin(), data.end());
  message.resize(message.size() + 550);
  std::memcpy(&message[17], payload.data(), 4 * payload.size());
  return service(2, message);
}

TEST(CardCommonMessages, AnswerFromTheConfiguredCards) {
  const auto service =
      platform::make_extension_service(platform::parse_modem_conf("card.1 = error"));
  const struct {
    uint32_t type;
    uint32_t result;
    Words data;
    Words answer;
  } cases[] = {{39, 0, {}, {1, 0}},
               {55, 0, {0}, {1}},
               {55, 0, {1}, {0}},
               {55, EINVAL, {2}, {}},
               {55, EINVAL, {}, {}},
               {56, 0, {}, {2}},
               {57, 0, {1, 0, 1}, {}},
               {57, EINVAL, {1, 2, 1}, {}},
               {57, EINVAL, {1, 1}, {}},
               {80, 0, {1, 2, 3, 4}, {}},
               {80, EINVAL, {0, 2, 3, 4}, {}},
               {80, 0, {0}, {}},
               {80, EINVAL, {1}, {}}};
  for (const auto& row : cases) {
    const ServiceReply reply = common_message(service, row.type, row.data);
    ASSERT_EQ(reply.bytes.size(), 567u);
    Words answer(4 + row.answer.size());
    std::memcpy(answer.data(), &reply.bytes[17], 4 * answer.size());
    Words expected{0, row.result, row.type, static_cast<uint32_t>(4 * row.answer.size())};
    expected.insert(expected.end(), row.answer.begin(), row.answer.end());
    EXPECT_EQ(answer, expected) << row.type;
  }
}

TEST(ModemConfRows, BadCardUimAndDiagValuesAreNamed) {
  for (const std::string line :
       {"card.0 = gone", "card.2 = absent", "eid = 8900101700000000000000000000016",
        "eid = 890010170000000000000000000001630", "eid = 8900101700000000000000000000016A",
        "uim.profiles = -1", "uim.profiles = 256", "uim.reset = no", "uim.open_channel = up",
        "diag.remote = 65536", "diag.delay_ms = 600001", "diag.response_size = 0",
        "diag.response_size = 20001", "diag.dci = ok", "fault.diag = error:0"}) {
    testing::internal::CaptureStderr();
    const auto conf = platform::parse_modem_conf(line + "\ndiag.delay_ms = 600000");
    EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("modem.conf:1: ")) << line;
    EXPECT_EQ(conf.diag_delay_ms, 600000) << line;
  }
}

}  // namespace
}  // namespace kiv::test
