#include "nas_idl.h"
#include "tervik_extend_cmn.h"
#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using ExtendNas = ExtensionClientTest;

TEST_F(ExtendNas, EachRequestHasAClientOfItsOwn) {
  std::vector<std::pair<uint16_t, Bytes>> requests;
  constexpr uint32_t kNas = 3;
  const Bytes full(272, 0xA5);
  const Bytes part(576, 0x5A);
  Bytes small(8);
  Bytes large(18040);
  const struct {
    int id;
    const Bytes* req;
    Bytes* rsp;
    ServiceReply reply;
    int wanted;
    const char* line;  // a part of it
    bool up = true;
  } rows[] = {
      {0x21, &full, &large, ServiceReply::response(counted_bytes(18040)), 0, "qmi_svc_client 0x"},
      {0x85, &part, &small, ServiceReply::response(counted_bytes(8)), 0, "qmi_client_ptr 0x"},
      {0x21, &full, &large, ServiceReply::response(counted_bytes(18039)), -1,
       "qmi_client_error = -1"},
      {0x85, &part, &small, ServiceReply::transport_error(-14), -14, "qmi_client_error = -14"},
      {0x85, &part, &small, ServiceReply::silence(), -3, "qmi_client_error = -3"},
      {0x85, nullptr, &small, {}, -1, "qmi_request is NULL"},
      {0x85, &part, nullptr, {}, -1, "qmi_response is NULL"},
      {0x21, &full, &large, {}, -1, "instance failed, qmi_client_error = -3", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    const TimeLapse lapse(1000);
    platform::publish_service(kNas, [&](uint16_t id, std::span<const uint8_t> bytes) {
      requests.emplace_back(id, Bytes(bytes.begin(), bytes.end()));
      return row.reply;
    });
    if (!row.up) platform::withdraw_service(kNas);
    requests.clear();
    const LogCapture log;
    const unsigned req_len = row.id == 0x21 ? 272 : 576;
    const unsigned rsp_len = row.id == 0x21 ? 18040 : 8;
    EXPECT_EQ(tervik_send_nas_qmi_req_msg(row.id, row.req ? row.req->data() : nullptr, req_len,
                                          row.rsp ? row.rsp->data() : nullptr, rsp_len, 10000),
              row.wanted);
    EXPECT_EQ(platform::open_handle_count(), 0u);
    const bool sent = row.up && row.req != nullptr && row.rsp != nullptr;
    ASSERT_EQ(requests.size(), sent ? 1u : 0u);
    EXPECT_TRUE(!sent || requests[0] == std::pair(static_cast<uint16_t>(row.id), *row.req));
    EXPECT_TRUE(row.wanted != 0 || *row.rsp == row.reply.bytes);
    EXPECT_TRUE(log.contains(row.line));
  }
}

TEST_F(ExtendNas, CommonRequestIsSentWholeOrRefused) {
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_of(counted_bytes(508)); });
  const Bytes data = counted_bytes(600);
  Bytes rsp(508);
  const struct {
    unsigned len;
    const void* data;
    void* rsp;
    bool sent;
  } rows[] = {{0, nullptr, rsp.data(), true},
              {499, data.data(), rsp.data(), true},
              {500, data.data(), rsp.data(), false},
              {1, nullptr, rsp.data(), false},
              {0, nullptr, nullptr, false}};
  size_t sent = 0;
  for (const auto& row : rows) {
    EXPECT_EQ(tervik_common_qmi_req(27, row.len, row.data, row.rsp), row.sent ? 0 : 268431370);
    ASSERT_EQ(stub.requests().size(), sent += row.sent ? 1 : 0);
    if (!row.sent) continue;
    Bytes wanted = words({27, 0});
    wanted.insert(wanted.end(), data.begin(), data.begin() + row.len);
    EXPECT_EQ(stub.requests().back().id, 4u);
    EXPECT_EQ(stub.requests().back().len, 512u);
    EXPECT_EQ(stub.requests().back().payload, payload_of(wanted));
    EXPECT_EQ(rsp, counted_bytes(508));
  }
}

}  // namespace
}  // namespace kiv::test
