#include "tervik_extend_cmn.h"

#include <gtest/gtest.h>

#include <climits>

#include "sar_idl.h"
#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using namespace std::chrono_literals;

constexpr int kFlag = static_cast<int>(0x80000011);
constexpr const char* kCounter = "persist.radio.ssr_count_0x80000011=1\n";

using ExtendCmn = ExtensionClientTest;

// What the modem says to a common message.
ExtensionAnswer answer_with(int32_t rsp_result) {
  Bytes body(508);
  put(body, 4, rsp_result);
  return answer_of(body);
}

TEST_F(ExtendCmn, CommonMessageIsSentWholeOrRefused) {
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_with(0); });
  const Bytes data = counted_bytes(600);
  uint8_t rsp[508];
  const struct {
    unsigned len;
    const void* data;
    void* rsp;
    const char* refused;
  } rows[] = {
      {0, nullptr, rsp, ""},
      {491, data.data(), rsp, ""},
      {492, data.data(), rsp, "|l 492|l is out of range"},
      {UINT_MAX, nullptr, rsp, "|l -1|l is out of range"},
      {1, nullptr, rsp, "|l 1|v is null"},
      {492, nullptr, nullptr, "|rsp is NULL"},
  };
  size_t sent = 0;
  for (const auto& row : rows) {
    const LogCapture log;
    const bool refused = row.refused[0] != '\0';
    EXPECT_EQ(tervik_send_common_qmi_msg(-31, row.len, row.data, row.rsp), refused ? 268431370 : 0);
    ASSERT_EQ(stub.requests().size(), refused ? sent : ++sent);
    if (refused) {
      EXPECT_EQ(log.messages(), split("function entry ------------->|t -31" +
                                      std::string(row.refused) + "|function exit <-------------"));
      continue;
    }
    EXPECT_EQ(stub.requests().back().id, 4u);
    EXPECT_EQ(stub.requests().back().len, 512u);
    EXPECT_EQ(stub.requests().back().payload,
              common_payload(UINT32_MAX - 30, {data.begin(), data.begin() + row.len}));
  }
}

TEST_F(ExtendCmn, AnswersCountOnlyAsFarAsTheyCame) {
  ExtensionAnswer answer = answer_of(counted_bytes(550));
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  for (const uint32_t len : {0u, 7u, 8u, 15u, 508u, 509u, UINT32_MAX}) {
    answer.len = len;
    const LogCapture log;
    Bytes rsp(508, 0xEE);
    int received = -1;
    const bool taken = len >= 8;
    const auto came = std::min(len, 508u);
    EXPECT_EQ(tervik_send_common_qmi_msg(31, 0, nullptr, rsp.data(), &received), taken ? 0 : -3);
    EXPECT_EQ(received, taken ? static_cast<int>(came) : 0);
    EXPECT_EQ(log.contains("is too short"), !taken);
    Bytes wanted = counted_bytes(came);
    wanted.resize(508);
    EXPECT_TRUE(!taken || rsp == wanted) << len;
  }
}

TEST_F(ExtendCmn, RestartsAreCountedByTypeLowestFirst) {
  const struct {
    uint32_t flag;
    const char* before;
    const char* after;  // the ends of the properties' names, with their values
  } rows[] = {
      {0x00010003, "", "00000001=1|00000002=1|00010000=1"},
      {0x80000001, "80000001=41", "80000001=42"},
      {0xFFFFFFFF, "00000001=5", "00000001=5|ffffffff=1"},
      {0x7FFFFFFF, "",
       "00000001=1|00000002=1|00000004=1|00000008=1|00000010=1|00000020=1|00000040=1|00000080=1|"
       "00000100=1|00010000=1|00020000=1|00040000=1|00080000=1"},
      {0x00000200, "", ""},
      {0x00080000, "00080000=2147483647", "00080000=-2147483648"},
      {0x00000100, "00000100=many", "00000100=1"},
  };
  for (const auto& row : rows) {
    const auto file_of = [](const char* counters) {
      std::string text;
      for (const std::string& each : split(counters)) {
        text += "persist.radio.ssr_count_0x" + each + "\n";
      }
      return text;
    };
    write_state_file_text("properties", file_of(row.before));
    tervik_save_modem_ssr_count(static_cast<int>(row.flag));
    EXPECT_EQ(read_state_file_text("properties"), file_of(row.after)) << row.flag;
  }
}

TEST_F(ExtendCmn, RestartsAndCrashesAreCountedAndWaitedFor) {
  const std::string stopped = "|wait_s < 0, ssr is stoped";
  const std::string same = "|ssr type is not changed, wont wait before ssr";
  const std::string same_after = "|ssr type is not changed, wont wait after ssr";
  const std::string changed = "|ssr type is changed, need to wait before ssr";
  const std::string changed_after = "|ssr type is changed, need to wait after ssr";
  const std::string changed_dump = "|ssr type is changed, need to wait before dump";
  const std::string fine = "|result = 0, rsp.result = 0";
  const std::string lost = "|result = -103, rsp.result = 0";
  const std::string lost_ssr = lost + "|tervik_extend_qmi_send_sync fail, REQUEST_ID_COMMON";
  const std::string refused = "|result = 0, rsp.result = 6";
  const auto restart = tervik_modem_ssr;
  const auto crash = tervik_modem_crash_without_orange_screen;
  const auto dump = tervik_modem_crash_with_orange_screen;
  const struct {
    void (*run)(int flag);
    const char* level;
    const char* backup;  // with the flag when there is one
    const char* wait_s;
    const char* wait_s_after;  // set while the modem answers
    std::string lines;
    const char* level_after;
    const char* slept;
  } rows[] = {
      {restart, "x", "x", "-1", "-1", fine, "x", ""},
      {restart, "x", "x", "9", "9", lost, "x", ""},
      {crash, "ALL_ENABLE", "x", "", "", "|1" + same + fine + same_after, "ALL_ENABLE", ""},
      {crash, "ALL_ENABLE", "x", "1", "1", "|1" + same + lost_ssr + same_after, "ALL_ENABLE", ""},
      {crash, "x", "", "", "", "|0" + changed + fine + changed_after, "x", "|5|5"},
      {crash, "", "x", "2", "3", "|2" + changed + fine + changed_after, "ALL_DISABLE", "|2|3"},
      {crash, "y", "x", "0", "0", "|3" + changed + fine + changed_after, "ALL_ENABLE", ""},
      {crash, "x", "", "1", "1", "|0" + changed + lost_ssr + changed_after, "x", "|1|1"},
      {crash, "x", "", "1", "1", "|0" + changed + refused + "|qmi response fail" + changed_after,
       "x", "|1|1"},
      {crash, "x", "", "1", "-2", "|0" + changed + fine + changed_after + stopped, "ALL_ENABLE",
       "|1"},
      {crash, "x", "", "-1", "", "|0" + changed + stopped, "ALL_ENABLE", ""},
      {dump, "ALL_DISABLE", "", "-1", "-1", fine, "ALL_DISABLE", ""},
      {dump, "x", "", "", "1", changed_dump + fine, "ALL_DISABLE", "|5"},
      {dump, "x", "x", "0", "0", changed_dump + lost, "ALL_DISABLE", ""},
      {dump, "x", "", "-3", "", changed_dump + stopped, "ALL_DISABLE", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << &row - rows);
    const std::string ssr = "persist.vendor.ssr.";
    write_state_file_text("properties", ssr + "restart_level=" + row.level + "\n" + ssr +
                                            "type_bak=" + row.backup + "\n" + ssr +
                                            "type_bak_flag=" + row.backup +
                                            "\npersist.radio.ssr_wait_s=" + row.wait_s + "\n");
    const auto has = [this](const std::string& text) {
      return read_state_file_text("properties").find(text) != std::string::npos;
    };
    const ExtensionStub stub([&](const ExtensionRequest&) -> ExtensionStub::Answer {
      EXPECT_TRUE(has(kCounter));
      EXPECT_TRUE(row.run == restart || has(row.run == crash ? "=ALL_ENABLE" : "=ALL_DISABLE"));
      EXPECT_EQ(tervik_set_property_value("persist.radio.ssr_wait_s", row.wait_s_after), 0);
      if (row.lines.find(lost) != std::string::npos) return ServiceReply::transport_error(-14);
      return answer_with(row.lines.find(refused) != std::string::npos ? 6 : 0);
    });
    tervik_extend_qmi_init_force();
    const TimeLapse lapse(100);
    const LogCapture log;
    row.run(kFlag);
    std::string lines = "function entry ------------->|flag = 0x80000011" + row.lines;
    if (row.run == crash) lines.insert(lines.find("011|") + 4, "before ssr, type: ");
    EXPECT_EQ(
        log.messages_from(row.run == restart ? "] tervik_modem_ssr:" : "] tervik_modem_crash_"),
        split(lines + "|function exit <-------------"));
    EXPECT_TRUE(has(std::string("level=") + row.level_after + "\n"));
    std::string slept;
    for (const auto each : lapse.slept()) slept += "|" + std::to_string(each / 1s);
    EXPECT_EQ(slept, row.slept);
    const bool sent = row.lines.find("|result") != std::string::npos;
    EXPECT_EQ(has(kCounter), sent);
    ASSERT_EQ(stub.requests().size(), sent ? 1u : 0u);
    for (const ExtensionRequest& request : stub.requests()) {
      EXPECT_EQ(request.payload, common_payload(row.run == restart ? 31 : 99, words({0x80000011})));
    }
  }
}

TEST_F(ExtendCmn, NvSyncReturnsBothResultsOred) {
  ExtensionStub::Answer answer;
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  const struct {
    ExtensionStub::Answer answer;
    int result;
    const char* line;
  } rows[] = {
      {answer_with(0), 0, "ret_sync: 0, rsp.result: 0"},
      {answer_with(INT_MIN + 6), INT_MIN + 6, "ret_sync: 0, rsp.result: -2147483642"},
      {ServiceReply::transport_error(-14), -3, "ret_sync: -3, rsp.result: 0"},
  };
  for (const auto& row : rows) {
    answer = row.answer;
    const LogCapture log;
    EXPECT_EQ(tervik_nvefs_sync(), row.result);
    tervik_modem_nv_sync();
    EXPECT_EQ(log.count(std::string("tervik_send_common_qmi_msg, ") + row.line), 2u);
    EXPECT_EQ(stub.requests().back().payload, common_payload(35));
  }
  EXPECT_EQ(stub.requests().size(), 2 * std::size(rows));
}

// A SAR service that answers as the test says. The product never releases its client.
class ExtendSar : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_log_error("masks are loaded");
    publish();
  }
  void TearDown() override {
    platform::withdraw_service(kServiceId);
    EXPECT_EQ(tervik_get_sar_dsi(), -1);
    for (intptr_t key = 1; platform::open_handle_count() > 0; ++key) {
      static_cast<void>(qmi_client_release(reinterpret_cast<qmi_client_type>(key)));
    }
    StateDirectoryTest::TearDown();
  }

  void publish() {
    platform::publish_service(kServiceId, [this](uint16_t id, std::span<const uint8_t> request) {
      message_ = id;
      request_.assign(request.begin(), request.end());
      return reply_;
    });
  }

  const uint32_t kServiceId = sar_get_service_object_internal_v01(1, 0x0F, 6)->service_id;
  uint16_t message_ = 0;
  Bytes request_;
  ServiceReply reply_;
};

TEST_F(ExtendSar, StateIsSetFromOneToTwentyAndReadUnchecked) {
  reply_ = ServiceReply::response(Bytes(8, 0xFF));
  for (const auto& [dsi, state] :
       {std::pair{0, 0}, {1, 1}, {20, 20}, {21, 0}, {-1, 0}, {INT_MAX, 0}, {INT_MIN, 0}}) {
    EXPECT_EQ(tervik_set_sar_dsi(dsi), 0);
    Bytes request(32);
    put(request, 0, state);
    EXPECT_EQ(message_, 1);
    EXPECT_EQ(request_, request) << dsi;
  }
  Bytes state = counted_bytes(40);
  for (const auto& [valid, dsi] : {std::pair{1, 7}, {0, 20}, {255, -1}, {1, INT_MIN}}) {
    state[8] = static_cast<uint8_t>(valid);
    put(state, 12, dsi);
    reply_ = ServiceReply::response(state);
    const LogCapture log;
    EXPECT_EQ(tervik_get_sar_dsi(), dsi);
    EXPECT_EQ(message_, 2);
    EXPECT_EQ(request_, Bytes{});
    EXPECT_EQ(log.count("dsi vailid = " + std::to_string(valid) +
                        " , dsi value = " + std::to_string(dsi)),
              1u);
  }
  EXPECT_EQ(platform::open_handle_count(), 1u);
}

TEST_F(ExtendSar, FailedRequestDropsTheClientAndTheNextMakesANewOne) {
  const TimeLapse lapse(1000);
  size_t clients = 0;
  for (const auto& [reply, error] : {std::pair{ServiceReply::transport_error(-14), -14},
                                     {ServiceReply::silence(), QMI_TIMEOUT_ERR},
                                     {ServiceReply::response(Bytes(7)), QMI_INTERNAL_ERR},
                                     {ServiceReply::response(Bytes(39)), QMI_INTERNAL_ERR}}) {
    reply_ = reply;
    const auto begin = std::chrono::steady_clock::now();
    const LogCapture log;
    EXPECT_EQ(tervik_set_sar_dsi(3), error);
    EXPECT_EQ(tervik_get_sar_dsi(), -1);
    EXPECT_EQ(
        log.count("qmi_client_send_msg_sync failed, qmi_client_error = " + std::to_string(error)),
        2u);
    EXPECT_EQ(platform::open_handle_count(), clients += 2) << error;
    const auto passed = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(error != QMI_TIMEOUT_ERR || (passed >= 60s && passed < 50min));
  }
  reply_ = ServiceReply::response(Bytes(40));
  EXPECT_EQ(tervik_get_sar_dsi(), 0);
  publish();  // the client of before stays dead
  EXPECT_EQ(tervik_get_sar_dsi(), -1);
  EXPECT_EQ(tervik_get_sar_dsi(), 0);
  EXPECT_EQ(platform::open_handle_count(), clients + 2);
}

TEST_F(ExtendSar, WithoutTheServiceThereIsNoClient) {
  platform::withdraw_service(kServiceId);
  const std::string attempt =
      "function entry ------------->|function entry ------------->|"
      "qmi_client_init_instance failed, qmi_client_error = -3|function exit <-------------|"
      "qmi_client_error is NULL|tervik_check_and_init_qmi_client_rf_sar FAIL";
  LogCapture log;
  EXPECT_EQ(tervik_set_sar_dsi(1), -1);
  EXPECT_EQ(log.messages(), split(attempt));
  log.clear();
  EXPECT_EQ(tervik_get_sar_dsi(), -1);
  EXPECT_EQ(log.messages(), split(attempt + "|function exit <-------------"));
  publish();
  reply_ = ServiceReply::response(Bytes(8));
  EXPECT_EQ(tervik_set_sar_dsi(1), 0);
}

}  // namespace
}  // namespace kiv::test
