#include "platform/modem/extension_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <span>
#include <string>

#include "qmi_client.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;
using Bytes = std::vector<uint8_t>;

template <class Value>
void put(Bytes& bytes, size_t offset, Value value) {
  std::memcpy(&bytes.at(offset), &value, sizeof value);
}

uint32_t get_u32(const Bytes& bytes, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, &bytes.at(offset), sizeof value);
  return value;
}

// The message's bytes: TLV 0x01 class, 0x02 length, 0x10 payload of 550 bytes.
Bytes encoded_request(uint32_t id, const Bytes& payload) {
  Bytes message{0x01, 4, 0, 0, 0, 0, 0, 0x02, 4, 0, 0, 0, 0, 0, 0x10, 0x26, 0x02};
  put(message, 3, id);
  put(message, 10, static_cast<uint32_t>(payload.size()));
  message.insert(message.end(), payload.begin(), payload.end());
  message.resize(17 + 550);
  return message;
}

// A request of class 2, and what its answer says.
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

struct NvEfsAnswer {
  int32_t result;
  uint8_t ins_id;
  uint32_t all;
  uint32_t sent;
  Bytes data;
};

class ExtensionServiceTest : public StateDirectoryTest {
 protected:
  // The answer's payload, as long as the answer says.
  Bytes ask(uint32_t id, const Bytes& payload, uint32_t error = 0) {
    const Bytes response = service_(2, encoded_request(id, payload)).bytes;
    EXPECT_EQ(get_u32(response, 3), error);
    const uint32_t length = get_u32(response, 10);
    EXPECT_EQ(response.size(), length == 0 ? 14u : 17u + 550u);
    return length == 0 ? Bytes{} : Bytes(&response[17], &response[17] + length);
  }

  NvEfsAnswer ask(const NvEfs& request) {
    Bytes payload(544);
    put(payload, 0, request.operation);
    put(payload, 1, request.sub);
    put(payload, 2, request.id);
    put(payload, 4, static_cast<uint8_t>(request.path.size()));
    std::copy_n(request.path.begin(), std::min<size_t>(request.path.size(), 100), &payload[5]);
    put(payload, 108, request.all);
    put(payload, 112, request.sent);
    put(payload, 116, request.offset);
    std::copy(request.data.begin(), request.data.end(), &payload[120]);
    const Bytes answer = ask(2, payload);
    EXPECT_EQ(answer.size(), 444u);
    return {static_cast<int32_t>(get_u32(answer, 16)), answer[2], get_u32(answer, 4),
            get_u32(answer, 8), Bytes(answer.begin() + 20, answer.end())};
  }

  NvEfsAnswer nv_read(uint8_t sub, uint16_t id) {
    return ask({.operation = 1, .sub = sub, .id = id});
  }
  int32_t nv_write(uint8_t sub, uint16_t id, const Bytes& value) {
    const auto all = static_cast<uint32_t>(value.size());
    return ask({.operation = 2, .sub = sub, .id = id, .all = all, .data = value}).result;
  }
  int32_t nv_delete(uint8_t sub, uint16_t id) {
    return ask({.operation = 3, .sub = sub, .id = id}).result;
  }
  NvEfsAnswer efs_read(const std::string& path, uint32_t offset = 0) {
    return ask({.operation = 4, .sub = 0, .path = path, .offset = offset});
  }
  NvEfsAnswer efs_chunk(uint16_t ins_id, uint32_t total, uint32_t offset, const Bytes& data,
                        const std::string& path = "/a/b") {
    const auto sent = static_cast<uint32_t>(data.size());
    return ask({5, 0, ins_id, path, total, sent, offset, data});
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
    Bytes claims = good;
    put(claims, 10, length);
    EXPECT_EQ(service_(2, claims).kind, ServiceReply::Kind::kError);
  }
}

TEST_F(ExtensionServiceTest, UnknownClassesAndRequestsAreAnswered) {
  for (const uint32_t id : {0u, 3u, 5u, UINT32_MAX}) EXPECT_TRUE(ask(id, Bytes(8), 1).empty());
  EXPECT_EQ(ask({.operation = 9, .sub = 0}).result, EINVAL);
  Bytes common(512);
  put(common, 0, 2);
  put(common, 8, UINT32_MAX);
  Bytes refusal(508);
  put(refusal, 4, 1);
  put(refusal, 8, UINT32_MAX);
  EXPECT_EQ(ask(4, common), refusal);
}

TEST_F(ExtensionServiceTest, NvItemsStartAsTheFactoryLeftThemAndAreReplaced) {
  const NvEfsAnswer imei = nv_read(0, 550);
  EXPECT_EQ(imei.all, 9u);
  EXPECT_EQ(imei.data[0], 8);
  EXPECT_NE(nv_read(1, 550).data, imei.data);
  EXPECT_EQ(nv_read(1, 6853).result, 5);
  EXPECT_EQ(nv_read(2, 550).result, 5);
  EXPECT_EQ(nv_read(3, 550).result, EINVAL);
  const Bytes longest(424, 0xA5);
  EXPECT_EQ(nv_write(1, 7232, longest), 0);
  EXPECT_EQ(nv_read(1, 7232).data, longest);
  EXPECT_EQ(nv_read(0, 7232).result, 5);
  for (const uint32_t all : {0u, 425u, UINT32_MAX}) {
    EXPECT_EQ(ask({.operation = 2, .sub = 0, .id = 4, .all = all}).result, EINVAL);
  }
  EXPECT_EQ(nv_delete(0, 550), 0);
  EXPECT_EQ(nv_delete(0, 550), 5);
  EXPECT_EQ(nv_read(0, 550).result, 5) << "the factory's value came back";
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
    put(request, 0, row.operation);
    put(request, 4, row.id);
    put(request, 8, row.sub);
    const Bytes answer = ask(1, request);
    ASSERT_EQ(answer.size(), 432u);
    EXPECT_EQ(get_u32(answer, 4), row.status) << row.id;
    EXPECT_EQ(get_u32(answer, 16), row.length) << row.id;
  }
}

TEST_F(ExtensionServiceTest, NoPathLeadsOutOfTheFolder) {
  write_state_file_text("efs/0/a/b", "inside");
  write_state_file_text("x", "outside");
  const struct {
    std::string path;
    int32_t result;
  } cases[] = {{"/a/b", 0},
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
               {"/a", EISDIR},
               {std::string(100, 'p'), ENOENT},
               {std::string(101, 'p'), EINVAL},
               {std::string(255, '/'), EINVAL}};
  for (const auto& row : cases) {
    EXPECT_EQ(efs_read(row.path).result, row.result) << row.path;
    if (row.result != EACCES && row.result != EINVAL) continue;
    EXPECT_EQ(efs_chunk(255, 1, 0, {1}, row.path).result, -row.result) << row.path;
    EXPECT_EQ(ask({.operation = 6, .sub = 0, .path = row.path}).result, row.result) << row.path;
  }
  EXPECT_EQ(ask({.operation = 4, .sub = 3, .path = "/a/b"}).result, EINVAL);
  EXPECT_EQ(read_state_file_text("x"), "outside");
  for (const uint32_t beyond : {6u, UINT32_MAX}) EXPECT_EQ(efs_read("/a/b", beyond).sent, 0u);
}

TEST_F(ExtensionServiceTest, AFileThatIsReplacedIsReadOnAsItWas) {
  write_state_file_text("efs/0/a/b", std::string(1000, 'o'));
  EXPECT_EQ(efs_read("/a/b").sent, 414u);
  write_state_file_text("efs/0/a/b", std::string(500, 'n'));
  const NvEfsAnswer last = efs_read("/a/b", 828);
  EXPECT_EQ(last.all, 1000u);
  EXPECT_EQ(last.sent, 172u);
  EXPECT_EQ(last.data[0], 'o');
  const NvEfsAnswer anew = efs_read("/a/b");
  EXPECT_EQ(anew.all, 500u);
  EXPECT_EQ(anew.data[0], 'n');
}

TEST_F(ExtensionServiceTest, EfsFilesArriveWholeOrNotAtAll) {
  const NvEfsAnswer first = efs_chunk(255, 416, 0, Bytes(414, 'w'));
  EXPECT_EQ(read_state_file_text("efs/0/a/b"), "") << "visible before the last chunk";
  EXPECT_EQ(efs_chunk(first.ins_id, 416, 414, Bytes(2, 'w')).result, 0);
  EXPECT_EQ(read_state_file_text("efs/0/a/b"), std::string(416, 'w'));
  EXPECT_EQ(efs_chunk(first.ins_id, 416, 414, Bytes(2, 'w')).result, -EINVAL) << "already done";
  EXPECT_LT(efs_chunk(255, 1, 0, {1}, "/a/b/below").result, 0);

  const struct {
    const char* what;
    uint32_t total, offset;
    size_t length;
    const char* path = "/file";
  } cases[] = {{"skips a byte", 10, 5, 1}, {"repeats a byte", 10, 3, 1},
               {"other total", 11, 4, 1},  {"too much", 10, 4, 7},
               {"nothing", 10, 4, 0},      {"other file", 10, 4, 1, "/other"}};
  for (const auto& row : cases) {
    const uint16_t ins_id = efs_chunk(255, 10, 0, Bytes(4), "/file").ins_id;
    EXPECT_EQ(efs_chunk(ins_id, row.total, row.offset, Bytes(row.length), row.path).result, -EINVAL)
        << row.what;
    EXPECT_EQ(efs_chunk(ins_id, 10, 4, Bytes(6), "/file").result, -EINVAL) << row.what;
  }
  const struct {
    uint32_t total, offset;
    size_t length;
  } starts[] = {{0, 0, 0}, {102411, 0, 414}, {UINT32_MAX, 0, 1}, {10, 1, 1}, {500, 0, 415}};
  for (const auto& row : starts) {
    EXPECT_EQ(efs_chunk(255, row.total, row.offset, Bytes(row.length), "/file").result, -EINVAL);
  }
  EXPECT_EQ(efs_chunk(0, 10, 0, {1}, "/file").result, -EINVAL);
  EXPECT_FALSE(std::filesystem::exists(state_dir() + "/efs/0/file"));
}

TEST_F(ExtensionServiceTest, UnfinishedTransfersAreBounded) {
  const uint16_t oldest = efs_chunk(255, 2, 0, {1}).ins_id;
  uint16_t newest = oldest;
  for (int i = 0; i < 600; ++i) {
    newest = efs_chunk(255, 2, 0, {1}).ins_id;
    ASSERT_TRUE(newest >= 1 && newest <= 254) << newest;
  }
  EXPECT_EQ(efs_chunk(oldest, 2, 1, {2}).result, -EINVAL);
  EXPECT_EQ(efs_chunk(newest, 2, 1, {2}).result, 0);
}

TEST_F(ExtensionServiceTest, SendersAtOnceKeepTheirTransfersApart) {
  const auto write = [this](const std::string& path, uint8_t letter) {
    for (int round = 0; round < 10; ++round) {
      uint16_t ins_id = 255;
      for (uint32_t offset = 0; offset < 2000; offset += 400) {
        const NvEfsAnswer answer = efs_chunk(ins_id, 2000, offset, Bytes(400, letter), path);
        EXPECT_EQ(answer.result, 0);
        ins_id = answer.ins_id;
      }
    }
  };
  auto other = std::async(std::launch::async, write, "/one", uint8_t{'1'});
  write("/two", '2');
  other.get();
  EXPECT_EQ(read_state_file_text("efs/0/one"), std::string(2000, '1'));
  EXPECT_EQ(read_state_file_text("efs/0/two"), std::string(2000, '2'));
}

TEST_F(ExtensionServiceTest, ItIsPublishedOnceForTheFirstClientsOfSeveralThreads) {
  write_state_file_text("modem.conf", "no such thing\n");
  testing::internal::CaptureStderr();
  std::array<std::future<int>, 4> opened;
  for (auto& result : opened) {
    result = std::async(std::launch::async, [] {
      qmi_idl_service_object idl{};
      idl.service_id = platform::kExtensionServiceId;
      qmi_client_type client = nullptr;
      const int error = qmi_client_init_instance(&idl, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr,
                                                 nullptr, 4, &client);
      return error != QMI_NO_ERR ? error : qmi_client_release(client);
    });
  }
  for (auto& result : opened) EXPECT_EQ(result.get(), QMI_NO_ERR);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "modem.conf:1: no \"key = value\" \"no such thing\"\n");
}

}  // namespace
}  // namespace kiv::test
