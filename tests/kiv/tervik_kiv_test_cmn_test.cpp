#include "tervik_kiv_test_cmn.h"

#include <gtest/gtest.h>

#include "platform/diag/diag_library.h"
#include "platform/modem/uim_service.h"
#include "tervik_extend_cmn.h"
#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using KivCommon = CommandLineTest;

TEST_F(KivCommon, ParametersReachTheModemAndAnswersAreShownAsFarAsTheyCame) {
  Bytes body(508, 0xAB);
  ExtensionAnswer answer;
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  const std::tuple<uint32_t, uint32_t, const char*, const char*> rows[] = {
      {508, 3, "11", " 50 00 00 00 03 00 00 00 AB AB AB"},
      {18, 3, "11", " 50 00 00 00 03 00 00 00 AB AB"},
      {14, 0x30003, "11", " 50 00 00 00 03 00"},
      {8, 3, "8", ""},
      {16, UINT32_MAX, "7", " 50 00 00 00 FF FF FF FF"}};
  for (const auto& [came, claimed, length, dump] : rows) {
    for (const auto& [offset, value] : {std::pair{4u, 0u}, {8u, 80u}, {12u, claimed}}) {
      put(body, offset, value);
    }
    answer = answer_of(body);
    answer.len = came;
    const Strings printed = run(command("5 6 7 -5 0 2147483648"));
    EXPECT_EQ(printed[printed.size() - 2], std::string("data len(") + length + ")") << came;
    EXPECT_EQ(printed.back(), std::string("data:") + dump);
    EXPECT_EQ(stub.requests().back().payload,
              common_payload(80, words({7, UINT32_MAX - 4, 0, 0x80000000})));
  }
  put(body, 4, -9);
  answer = answer_of(body);
  EXPECT_EQ(run(command("5 6 0 1 2")).back(), "rsp.result fail");
  EXPECT_EQ(stub.requests().back().payload, common_payload(80, words({0})));
}

TEST_F(KivCommon, DiagCommandIsCutTo4096Bytes) {
  size_t size = 0;
  platform::set_diag_modem({.processor = [&size](std::span<const uint8_t> bytes) {
    size = bytes.size();
    return std::vector<platform::DiagAnswer>{{.bytes = Bytes(20000)}};
  }});
  EXPECT_EQ(run(command("5 0 1 0 7000", 4097))[4], "rsp data len(10240)");
  EXPECT_EQ(size, 4096u);
}

TEST_F(KivCommon, AShortAnswerToAnEuiccResetIsShownAsFarAsItCame) {
  constexpr uint16_t kSendApdu = 0x3B;
  constexpr size_t kApduLenOffset = 12;
  constexpr uint8_t kReceived = 2;
  const platform::Service modem = platform::make_uim_service({});
  platform::publish_service(platform::kUimServiceId, [&](uint16_t msg_id, auto request) {
    platform::ServiceReply reply = modem(msg_id, request);
    if (msg_id == kSendApdu) reply.bytes[kApduLenOffset] = kReceived;
    return reply;
  });
  const LogCapture log;
  EXPECT_EQ(run(command("5 10 5 1")).back(), "value=FAILED");
  EXPECT_EQ(log.count("apdu=02bf34"), 1u);
  uim_qmi_client_recovery();
}

}  // namespace
}  // namespace kiv::test
