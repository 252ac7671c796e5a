#include <gtest/gtest.h>

#include "tervik_kiv_test_cmn.h"
#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using KivQmiSend = CommandLineTest;

TEST_F(KivQmiSend, BytesAreSentAndShownAsTyped) {
  const std::string zeros(48, '0');
  const struct {
    std::string line;
    size_t more_bytes;  // behind the line: 1, 2, 3 and so on
    Bytes sent;         // by the line
    size_t came;
    const char* error;
  } rows[] = {
      {"6 4 0x02 0 0 0", 0, {2, 0, 0, 0}, 3, ""},
      {"6 0 300", 0, {44}, 0, ""},
      {"6 6 -1 0xFF 0X1fe 0x 0xG1 7up up", 0, {255, 255, 254, 0, 1, 7, 0}, 550, ""},
      {"6 1 0x" + zeros + "7f", 0, {0x7F}, 1, ""},
      {"6 1 0x1" + zeros + "7f", 1, {0}, 1, "hex number of 51 digits is too long, max 50"},
      {"6 2", 500, {}, 500, ""},
      {"6 2", 501, {}, 501, ""},
      {"6 2", 2000, {}, 4, ""},
  };
  Bytes reply;
  const ExtensionStub stub([&reply](const ExtensionRequest&) { return answer_of(reply); });
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line.substr(0, 40));
    const std::string id(1, row.line[2]);
    reply = counted_bytes(row.came);
    Bytes sent = row.sent;
    for (size_t i = 1; i <= row.more_bytes && sent.size() < 500; ++i) {
      sent.push_back(static_cast<uint8_t>(i));
    }
    Strings printed = split(row.error);
    const auto add = [&](const char* head, size_t count, const char* format, const Bytes& bytes) {
      printed.push_back(head + id + ", len: " + std::to_string(count) + "[max: 500]):");
      for (size_t i = 0; i < count; ++i) {
        char text[8];
        snprintf(text, sizeof text, bytes[i] < 16 ? "%s0%X%s" : "%s%X%s", format, bytes[i],
                 format[0] == '0' ? " " : "");
        printed.emplace_back(text);
      }
    };
    add("tk_qmi req data(qmi_id: ", sent.size(), "0x", sent);
    if (row.error[0] != '\0') std::swap(printed[0], printed[1]);
    printed.push_back("qmi_id = " + id + ", result = 0");
    add("tk_qmi rsp data(qmi_id: ", std::min<size_t>(row.came, 500), " ", reply);
    printed.emplace_back();
    EXPECT_EQ(run(command(row.line, row.more_bytes)), printed);
    EXPECT_EQ(std::to_string(stub.requests().back().id), id);
    EXPECT_EQ(stub.requests().back().len, sent.size());
    EXPECT_EQ(stub.requests().back().payload, payload_of(sent));
  }
}

TEST_F(KivQmiSend, WrongArgumentsAndFailuresShowTheHelp) {
  const ExtensionStub stub(
      [](const ExtensionRequest&) { return platform::ServiceReply::transport_error(-5); });
  expect_help("6", "note: Too few parameters, Pls refer to the following cmd:");
  expect_help("6 4", "note: Too few parameters, Pls refer to the following cmd:");
  for (const char* line : {"6 7 1", "6 -1 1", "6 2147483647 1"}) {
    expect_help(line, "note: the second parameters(qmi_id) should be >= 0 && < 7");
  }
  EXPECT_EQ(run(command("5 1 2"), tervik_test_qmi_send_data_do),
            with_help(6, {"note: the first parameters should be 6, Pls refer to the following "
                          "cmd:"}));
  EXPECT_TRUE(stub.requests().empty());
  expect_help("6 3 1",
              "tk_qmi req data(qmi_id: 3, len: 1[max: 500]):|0x01 |send msg sync failed: -5, id: 3|"
              "qmi_id = 3, result = -3|tervik_extend_qmi_send_sync fail");
}

}  // namespace
}  // namespace kiv::test
