#include "platform/modem/extension_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <span>
#include <string>
#include <string_view>

#include "qmi_client.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using Bytes = std::vector<uint8_t>;

constexpr size_t kPayloadSize = 550;

void put_u32(std::span<uint8_t> bytes, size_t offset, uint32_t value) {
  std::memcpy(&bytes[offset], &value, sizeof value);
}

uint32_t get_u32(const Bytes& bytes, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

Bytes text_bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

// The message's bytes: TLV 0x01 class, 0x02 length, 0x10 payload of 550 bytes.
Bytes encoded_request(uint32_t id, const Bytes& payload) {
  constexpr std::array<uint8_t, 17> kHeaders{0x01, 4, 0, 0, 0, 0,    0,    0x02, 4,
                                             0,    0, 0, 0, 0, 0x10, 0x26, 0x02};
  Bytes message(kHeaders.size() + kPayloadSize);
  std::copy(kHeaders.begin(), kHeaders.end(), message.begin());
  put_u32(message, 3, id);
  put_u32(message, 10, static_cast<uint32_t>(payload.size()));
  std::copy(payload.begin(), payload.end(), message.begin() + kHeaders.size());
  return message;
}

struct Answer {
  uint32_t error = 0;
  Bytes payload;
};

Answer decoded_answer(const ServiceReply& reply) {
  EXPECT_EQ(reply.kind, ServiceReply::Kind::kResponse);
  if (reply.bytes.size() < 14) {
    ADD_FAILURE() << "short response";
    return {};
  }
  Answer answer{.error = get_u32(reply.bytes, 3), .payload = {}};
  const uint32_t length = get_u32(reply.bytes, 10);
  if (reply.bytes.size() > 14) {
    EXPECT_EQ(reply.bytes.size(), 17 + kPayloadSize);
    answer.payload.assign(reply.bytes.begin() + 17, reply.bytes.begin() + 17 + length);
  } else {
    EXPECT_EQ(length, 0u);
  }
  return answer;
}

struct NvEfsAnswer {
  int32_t result;
  uint16_t ins_id;
  uint32_t all;
  uint32_t sent;
  Bytes data;
};

struct NvEfs {
  uint8_t operation;
  uint8_t sub;
  uint16_t id = 0;
  std::string path = {};
  uint32_t all = 0;
  uint32_t sent = 0;
  uint32_t offset = 0;
  Bytes data = {};
};

class ExtensionServiceTest : public StateDirectoryTest {
 protected:
  Answer ask(uint32_t id, const Bytes& payload) {
    return decoded_answer(service_(2, encoded_request(id, payload)));
  }

  NvEfsAnswer ask(const NvEfs& request) {
    Bytes payload(544);
    payload[0] = request.operation;
    payload[1] = request.sub;
    std::memcpy(&payload[2], &request.id, sizeof request.id);
    payload[4] = static_cast<uint8_t>(request.path.size());
    std::copy_n(request.path.begin(), std::min<size_t>(request.path.size(), 100),
                payload.begin() + 5);
    put_u32(payload, 108, request.all);
    put_u32(payload, 112, request.sent);
    put_u32(payload, 116, request.offset);
    std::copy(request.data.begin(), request.data.end(), payload.begin() + 120);
    const Answer answer = ask(2, payload);
    EXPECT_EQ(answer.error, 0u);
    EXPECT_EQ(answer.payload.size(), 444u);
    if (answer.payload.size() != 444) {
      return {-1, 0, 0, 0, {}};
    }
    NvEfsAnswer decoded{static_cast<int32_t>(get_u32(answer.payload, 16)), 0,
                        get_u32(answer.payload, 4), get_u32(answer.payload, 8),
                        Bytes(answer.payload.begin() + 20, answer.payload.end())};
    std::memcpy(&decoded.ins_id, &answer.payload[2], sizeof decoded.ins_id);
    return decoded;
  }

  NvEfsAnswer nv_read(uint8_t sub, uint16_t id) {
    return ask({.operation = 1, .sub = sub, .id = id});
  }
  int32_t nv_write(uint8_t sub, uint16_t id, const Bytes& value) {
    return ask({.operation = 2,
                .sub = sub,
                .id = id,
                .all = static_cast<uint32_t>(value.size()),
                .data = value})
        .result;
  }
  int32_t nv_delete(uint8_t sub, uint16_t id) {
    return ask({.operation = 3, .sub = sub, .id = id}).result;
  }
  NvEfsAnswer efs_read(const std::string& path, uint32_t offset = 0) {
    return ask({.operation = 4, .sub = 0, .path = path, .offset = offset});
  }
  NvEfsAnswer efs_chunk(uint16_t ins_id, uint32_t total, uint32_t offset, const Bytes& data,
                        const std::string& path = "/a/b") {
    return ask({.operation = 5,
                .sub = 0,
                .id = ins_id,
                .path = path,
                .all = total,
                .sent = static_cast<uint32_t>(data.size()),
                .offset = offset,
                .data = data});
  }

  platform::Service service_ = platform::make_extension_service({});
};

TEST_F(ExtensionServiceTest, MalformedRequestsEndInATransportError) {
  const Bytes good = encoded_request(2, Bytes(544));
  EXPECT_EQ(service_(3, good).kind, ServiceReply::Kind::kError);
  for (size_t length = 0; length < good.size(); ++length) {
    // Cut after the two mandatory TLVs there is a length without a payload.
    const Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(service_(2, cut).kind, ServiceReply::Kind::kError) << length;
  }
  for (const uint32_t length : {551u, UINT32_MAX}) {
    Bytes claims = encoded_request(2, Bytes(544));
    put_u32(claims, 10, length);
    EXPECT_EQ(service_(2, claims).kind, ServiceReply::Kind::kError);
  }
}

TEST_F(ExtensionServiceTest, UnknownClassesAndRequestsAreAnswered) {
  for (const uint32_t id : {0u, 3u, 5u, UINT32_MAX}) {
    const Answer answer = ask(id, Bytes(8));
    EXPECT_EQ(answer.error, 1u);
    EXPECT_TRUE(answer.payload.empty());
  }
  Bytes common(512);
  const struct {
    uint32_t first_word;
    uint32_t type;
    uint32_t echoed;
  } cases[] = {{2, 39, 39}, {2, 0xFFFFFFFF, 0xFFFFFFFF}, {27, 7, 27}, {0, 7, 0}};
  for (const auto& row : cases) {
    put_u32(common, 0, row.first_word);
    put_u32(common, 8, row.type);
    put_u32(common, 12, 0xFFFFFFFF);
    const Answer answer = ask(4, common);
    ASSERT_EQ(answer.payload.size(), 508u);
    EXPECT_EQ(get_u32(answer.payload, 4), 1u);
    EXPECT_EQ(get_u32(answer.payload, 8), row.echoed);
    EXPECT_EQ(get_u32(answer.payload, 12), 0u);
  }
  EXPECT_EQ(ask(2, Bytes{9}).payload[16], EINVAL);
}

TEST_F(ExtensionServiceTest, NvItemsStartAsTheFactoryLeftThem) {
  const NvEfsAnswer imei = nv_read(0, 550);
  EXPECT_EQ(imei.result, 0);
  EXPECT_EQ(imei.all, 9u);
  EXPECT_EQ(imei.data[0], 8);
  EXPECT_NE(nv_read(1, 550).data, imei.data);
  EXPECT_EQ(nv_read(2, 550).result, 5);
  EXPECT_EQ(nv_read(3, 550).result, EINVAL);
  EXPECT_EQ(nv_read(1, 6853).result, 5);
  EXPECT_EQ(nv_read(0, 1).result, 5);
  const NvEfsAnswer hardware = nv_read(0, 6853);
  EXPECT_EQ(hardware.all, 124u);
  EXPECT_EQ(hardware.data[16], 1);
}

TEST_F(ExtensionServiceTest, NvItemsAreWrittenAndDeleted) {
  const Bytes longest(424, 0xA5);
  EXPECT_EQ(nv_write(1, 7232, longest), 0);
  EXPECT_EQ(nv_read(1, 7232).data, longest);
  EXPECT_EQ(nv_read(0, 7232).result, 5);
  EXPECT_EQ(nv_write(0, 4, {}), EINVAL);
  EXPECT_EQ(ask({.operation = 2, .sub = 0, .id = 4, .all = 425}).result, EINVAL);
  EXPECT_EQ(ask({.operation = 2, .sub = 0, .id = 4, .all = UINT32_MAX}).result, EINVAL);
  EXPECT_EQ(nv_delete(1, 7232), 0);
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/nv/1/7232"));
  EXPECT_EQ(nv_delete(1, 7232), 5);

  EXPECT_EQ(nv_delete(0, 550), 0);
  EXPECT_EQ(nv_read(0, 550).result, 5) << "the factory's value came back";
  EXPECT_EQ(nv_delete(0, 550), 5);
  EXPECT_EQ(nv_write(0, 550, {1, 2}), 0);
  EXPECT_EQ(nv_read(0, 550).all, 2u);
  write_state_file_text("nv/0/9", std::string(5000, 'n'));
  EXPECT_EQ(nv_read(0, 9).all, 424u) << "more than the answer carries";
}

TEST_F(ExtensionServiceTest, ItemReadsCarryStatusAndLength) {
  ASSERT_EQ(nv_write(1, 20, Bytes(424, 7)), 0);
  const struct {
    uint32_t operation, id, sub, status, length;
  } cases[] = {{1, 6853, 0, 0, 124}, {1, 20, 1, 0, 412}, {1, 20, 0, 5, 0},
               {1, 20, 9, 22, 0},    {2, 20, 1, 22, 0},  {1, UINT32_MAX, 0, 5, 0}};
  for (const auto& row : cases) {
    Bytes request(428);
    put_u32(request, 0, row.operation);
    put_u32(request, 4, row.id);
    put_u32(request, 8, row.sub);
    const Answer answer = ask(1, request);
    ASSERT_EQ(answer.payload.size(), 432u);
    EXPECT_EQ(get_u32(answer.payload, 4), row.status) << row.id;
    EXPECT_EQ(get_u32(answer.payload, 16), row.length) << row.id;
  }
}

TEST_F(ExtensionServiceTest, EfsFilesAreReadInChunks) {
  Bytes content(2 * 414 + 100);
  for (size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<uint8_t>(i * 3);
  }
  write_state_file_text("efs/0/a/b", {content.begin(), content.end()});
  const struct {
    uint32_t offset, length;
  } chunks[] = {{0, 414}, {414, 414}, {828, 100}, {928, 0}, {UINT32_MAX, 0}};
  for (const auto& row : chunks) {
    const NvEfsAnswer answer = efs_read("/a/b", row.offset);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.all, content.size());
    ASSERT_EQ(answer.sent, row.length);
    EXPECT_TRUE(std::equal(answer.data.begin(), answer.data.begin() + row.length,
                           content.begin() + (row.length == 0 ? 0 : row.offset)));
  }
  EXPECT_EQ(efs_read("/a/none").result, ENOENT);
  EXPECT_EQ(efs_read("/a").result, EISDIR);
  EXPECT_EQ(ask({.operation = 4, .sub = 1, .path = "/a/b"}).result, ENOENT);
  EXPECT_EQ(ask({.operation = 6, .sub = 0, .path = "/a/b"}).result, 0);
  EXPECT_EQ(ask({.operation = 6, .sub = 0, .path = "/a/b"}).result, ENOENT);
}

TEST_F(ExtensionServiceTest, NoPathLeadsOutOfTheFolder) {
  write_state_file_text("efs/0/a/b", "inside");
  write_state_file_text("x", "outside");
  const struct {
    std::string path;
    int32_t result;
  } cases[] = {
      {"/a/b", 0},
      {"a//./b/", 0},
      {std::string("/a/b\0c", 6), 0},
      {"", EINVAL},
      {"/", EINVAL},
      {"./.", EINVAL},
      {std::string("\0/a/b", 5), EINVAL},
      {"/../../x", EACCES},
      {"../../x", EACCES},
      {"/a/..", EACCES},
      {"/a/../a/b", EACCES},
      {"...", ENOENT},
      {std::string(100, 'p'), ENOENT},
      {std::string(101, 'p'), EINVAL},
      {std::string(255, '/'), EINVAL},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(efs_read(row.path).result, row.result) << row.path;
    if (row.result == EACCES || row.result == EINVAL) {
      EXPECT_EQ(efs_chunk(255, 1, 0, {1}, row.path).result, -row.result) << row.path;
      EXPECT_EQ(ask({.operation = 6, .sub = 0, .path = row.path}).result, row.result) << row.path;
    }
  }
  EXPECT_EQ(ask({.operation = 4, .sub = 3, .path = "/a/b"}).result, EINVAL);
  EXPECT_EQ(read_state_file_text("x"), "outside");
}

TEST_F(ExtensionServiceTest, EfsFilesArriveWholeOrNotAtAll) {
  const std::string text(414 + 2, 'w');
  const NvEfsAnswer first = efs_chunk(255, 416, 0, Bytes(414, 'w'));
  EXPECT_EQ(first.result, 0);
  ASSERT_GE(first.ins_id, 1);
  ASSERT_LE(first.ins_id, 254);
  EXPECT_EQ(read_state_file_text("efs/0/a/b"), "") << "visible before the last chunk";
  EXPECT_EQ(efs_chunk(first.ins_id, 416, 414, Bytes(2, 'w')).result, 0);
  EXPECT_EQ(read_state_file_text("efs/0/a/b"), text);
  EXPECT_EQ(efs_chunk(first.ins_id, 416, 414, Bytes(2, 'w')).result, -EINVAL) << "already done";
  EXPECT_EQ(efs_chunk(255, 3, 0, text_bytes("new")).result, 0);
  EXPECT_EQ(read_state_file_text("efs/0/a/b"), "new");
  EXPECT_LT(efs_chunk(255, 1, 0, {1}, "/a/b/below").result, 0);
}

TEST_F(ExtensionServiceTest, ChunksThatDoNotFollowEndTheTransfer) {
  const struct {
    const char* what;
    uint32_t total, offset;
    size_t length;
    const char* path;
  } cases[] = {
      {"skips a byte", 10, 5, 1, "/a/b"}, {"repeats a byte", 10, 3, 1, "/a/b"},
      {"other total", 11, 4, 1, "/a/b"},  {"too much", 10, 4, 7, "/a/b"},
      {"nothing", 10, 4, 0, "/a/b"},      {"other file", 10, 4, 1, "/a/c"},
  };
  for (const auto& row : cases) {
    const NvEfsAnswer first = efs_chunk(255, 10, 0, Bytes(4, 'x'));
    ASSERT_EQ(first.result, 0);
    EXPECT_EQ(
        efs_chunk(first.ins_id, row.total, row.offset, Bytes(row.length, 'y'), row.path).result,
        -EINVAL)
        << row.what;
    EXPECT_EQ(efs_chunk(first.ins_id, 10, 4, Bytes(6, 'x')).result, -EINVAL) << row.what;
  }
  const struct {
    uint32_t total, offset;
    size_t length;
  } starts[] = {{0, 0, 0}, {102411, 0, 414}, {UINT32_MAX, 0, 1}, {10, 1, 1}, {500, 0, 415}};
  for (const auto& row : starts) {
    EXPECT_EQ(efs_chunk(255, row.total, row.offset, Bytes(row.length)).result, -EINVAL);
  }
  EXPECT_EQ(efs_chunk(0, 10, 0, {1}).result, -EINVAL);
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/efs"));
}

TEST_F(ExtensionServiceTest, UnfinishedTransfersAreBounded) {
  const uint16_t oldest = efs_chunk(255, 2, 0, {1}).ins_id;
  uint16_t newest = oldest;
  for (int i = 0; i < 600; ++i) {
    newest = efs_chunk(255, 2, 0, {1}).ins_id;
    ASSERT_GE(newest, 1);
    ASSERT_LE(newest, 254);
  }
  EXPECT_EQ(efs_chunk(oldest, 2, 1, {2}).result, -EINVAL);
  EXPECT_EQ(efs_chunk(newest, 2, 1, {2}).result, 0);
}

TEST_F(ExtensionServiceTest, SendersAtOnceKeepTheirTransfersApart) {
  const auto write = [this](const std::string& path, char letter) {
    for (int round = 0; round < 10; ++round) {
      uint16_t ins_id = 255;
      for (uint32_t offset = 0; offset < 2000; offset += 400) {
        const NvEfsAnswer answer =
            efs_chunk(ins_id, 2000, offset, Bytes(400, static_cast<uint8_t>(letter)), path);
        EXPECT_EQ(answer.result, 0);
        ins_id = answer.ins_id;
      }
    }
  };
  auto other = std::async(std::launch::async, write, "/one", '1');
  write("/two", '2');
  other.get();
  EXPECT_EQ(read_state_file_text("efs/0/one"), std::string(2000, '1'));
  EXPECT_EQ(read_state_file_text("efs/0/two"), std::string(2000, '2'));
}

// The modem as modem.conf makes it, seen through the framework by a client whose messages travel
// as they are.
class ModemTest : public StateDirectoryTest {
 protected:
  static constexpr size_t kResponseWithoutPayload = 14;

  void configure(const std::string& text) const { write_state_file_text("modem.conf", text); }

  // The first result that is not 0 of opening a client and sending a class 2 NV read.
  static int send(size_t response_size, Bytes& response) {
    const qmi_idl_message request_message{
        .id = 2, .c_struct_len = 17 + kPayloadSize, .max_encoded_len = 17 + kPayloadSize};
    const qmi_idl_message response_message{
        .id = 2, .c_struct_len = response_size, .max_encoded_len = response_size};
    const qmi_idl_service_object idl{.library_version = 6,
                                     .idl_version = 1,
                                     .service_id = platform::kExtensionServiceId,
                                     .idl_minor_version = 1,
                                     .max_message_len = 1553,
                                     .requests = std::span(&request_message, 1),
                                     .responses = std::span(&response_message, 1),
                                     .indications = {}};
    qmi_client_type client = nullptr;
    int result = qmi_client_init_instance(&idl, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, nullptr,
                                          4, &client);
    if (result != QMI_NO_ERR) {
      return result;
    }
    const Bytes request = encoded_request(2, {1, 0, 0x26, 0x02});
    response.assign(response_size, 0);
    result = qmi_client_send_msg_sync(client, 2, request.data(),
                                      static_cast<unsigned int>(request.size()), response.data(),
                                      static_cast<unsigned int>(response.size()), 3000);
    EXPECT_EQ(qmi_client_release(client), QMI_NO_ERR);
    return result;
  }
};

TEST_F(ModemTest, FaultsShowAtTheClient) {
  const TimeLapse lapse{100};
  const struct {
    const char* conf;
    size_t response_size;
    int result;
    uint32_t error;
    uint32_t rsp_result;
  } cases[] = {
      {"", 17 + kPayloadSize, QMI_NO_ERR, 0, 0},
      {"fault.extension = down", kResponseWithoutPayload, QMI_TIMEOUT_ERR, 0, 0},
      {"fault.extension = silent", kResponseWithoutPayload, QMI_TIMEOUT_ERR, 0, 0},
      {"fault.extension = error:-17", kResponseWithoutPayload, -17, 0, 0},
      {"fault.extension = result:33", kResponseWithoutPayload, QMI_NO_ERR, 33, 0},
      {"extension.rsp_result = -6", 17 + kPayloadSize, QMI_NO_ERR, 0, 0xFFFFFFFA},
  };
  for (const auto& row : cases) {
    configure(row.conf);
    Bytes response;
    EXPECT_EQ(send(row.response_size, response), row.result) << row.conf;
    if (row.result == QMI_NO_ERR) {
      EXPECT_EQ(get_u32(response, 3), row.error) << row.conf;
    }
    if (row.result == QMI_NO_ERR && row.error == 0) {
      EXPECT_EQ(get_u32(response, 17 + 16), row.rsp_result) << row.conf;
    }
    platform::reset_service_bus();
  }
}

TEST_F(ModemTest, ItIsPublishedOnceForTheFirstClientsOfSeveralThreads) {
  configure("no such thing\n");
  testing::internal::CaptureStderr();
  std::array<std::future<int>, 4> first;
  for (auto& result : first) {
    result = std::async(std::launch::async, [] {
      Bytes response;
      return send(17 + kPayloadSize, response);
    });
  }
  for (auto& result : first) {
    EXPECT_EQ(result.get(), QMI_NO_ERR);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "modem.conf:1: no \"key = value\" \"no such thing\"\n");
}

}  // namespace
}  // namespace kiv::test
