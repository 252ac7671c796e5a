#include "tervik_extend_nvefs.h"

#include <climits>
#include <thread>

#include "tervik_extend_idl.h"
#include "tests/qmi/extension_client_fixture.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;

using ExtendNvefs = ExtensionClientTest;

void expect_request(const ExtensionRequest& request, const NvefsFields& wanted) {
  EXPECT_EQ(request.id, 2u);
  EXPECT_EQ(request.len, 544u);
  EXPECT_EQ(request.payload, nvefs_payload(wanted));
}

// What an answer of class 2 says, and how many bytes of it arrive.
struct Reply {
  uint16_t ins_id = 0;
  uint32_t all = 0;
  uint32_t chunk = 0;
  int32_t result = 0;
  Bytes data{};
  uint32_t length = 444;
};

ExtensionAnswer answer_saying(const Reply& reply) {
  Bytes body(444);
  put(body, 2, reply.ins_id);
  put(body, 4, reply.all);
  put(body, 8, reply.chunk);
  put(body, 16, reply.result);
  std::copy(reply.data.begin(), reply.data.end(), body.begin() + 20);
  return {.result = 0, .len = reply.length, .payload = body};
}

// A read's result, and what it left in a buffer of exactly the capacity.
using Outcome = std::pair<int, Bytes>;

template <class Read>
Outcome read_into(uint32_t capacity, const Read& read) {
  const auto buf = std::make_unique<uint8_t[]>(capacity);
  uint32_t len = capacity;
  const int result = read(buf.get(), &len);
  EXPECT_LE(len, capacity);
  return {result, Bytes(buf.get(), buf.get() + std::min(len, capacity))};
}

Outcome nv_read(uint32_t capacity) {
  return read_into(capacity,
                   [](uint8_t* buf, uint32_t* len) { return tervik_nv_read(0, 1, buf, len); });
}

Outcome efs_read(const std::string& path, uint32_t capacity) {
  return read_into(capacity, [&](uint8_t* buf, uint32_t* len) {
    return tervik_efs_read(1, path.data(), static_cast<uint32_t>(path.size()), buf, len);
  });
}

int efs_write(const std::string& path, const Bytes& data) {
  return tervik_efs_write(1, path.data(), static_cast<uint32_t>(path.size()), data.data(),
                          static_cast<uint32_t>(data.size()));
}

Outcome nv_item_read(uint32_t capacity) {
  return read_into(capacity, [](uint8_t* buf, uint32_t* len) {
    return tervik_extend_nv_read_item(6853, 1, buf, len);
  });
}

// Each operation of class 2, by its code.
const std::function<int()> kOperations[] = {
    [] { return nv_read(10).first; },
    [] { return tervik_nv_write_ex(0, 1, Bytes{1}.data(), 1); },
    [] { return tervik_nv_delete(0, 1); },
    [] { return efs_read("/f", 10).first; },
    [] { return efs_write("/f", {1}); },
    [] { return tervik_efs_delete(1, "/f", 2); },
};

TEST_F(ExtendNvefs, FilesGoInChunksThatHandTheTransferOn) {
  for (const size_t size : {415u, 102410u}) {
    const Bytes file = counted_bytes(size);
    uint16_t next_id = 0xFFF0;
    const ExtensionStub stub([&next_id](const ExtensionRequest&) {
      return answer_saying({.ins_id = ++next_id, .result = 7});  // above 0 is not a failure
    });
    tervik_extend_qmi_init_force();
    EXPECT_EQ(efs_write("/f", file), 0);
    const auto requests = stub.requests();
    ASSERT_EQ(requests.size(), (size + 413) / 414);
    uint16_t id = 255;
    for (size_t i = 0, offset = 0; offset < size; ++i, offset += 414) {
      const size_t chunk = std::min<size_t>(414, size - offset);
      const Bytes data(&file[offset], &file[offset] + chunk);
      expect_request(requests[i], {5, 1, id, "/f", size, chunk, offset, data});
      id = static_cast<uint16_t>(0xFFF1 + i);
    }
  }
}

TEST_F(ExtendNvefs, FailuresOfModemAndTransportEndEveryOperation) {
  const std::pair<ExtensionStub::Answer, int> rows[] = {
      {answer_saying({.result = INT_MAX}), INT_MAX},
      {answer_saying({.result = INT_MIN}), INT_MIN},
      {answer_saying({.all = 1, .chunk = 1, .length = 19}), -103},
      {ExtensionAnswer{.result = 1}, -103},
  };
  for (const auto& [answer, expected] : rows) {
    const ExtensionStub stub([&said = answer](const ExtensionRequest&) { return said; });
    tervik_extend_qmi_init_force();
    for (const auto& run : kOperations) {
      const bool is_good = &run == &kOperations[4] && expected > 0;  // a write's
      EXPECT_EQ(run(), is_good ? 0 : expected) << &run - kOperations;
    }
    EXPECT_EQ(stub.requests().size(), std::size(kOperations));
  }
  // No operation gives the client arguments that it refuses.
  EXPECT_EQ(tervik_qmi_result_map(-1), -101);
  EXPECT_EQ(tervik_qmi_result_map(-4), -4);
}

TEST_F(ExtendNvefs, LengthsInAnswersAreCutToWhatArrived) {
  ExtensionAnswer answer = answer_saying({.all = 1u << 31, .chunk = 1});
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  // A file's length that would pass for a failure.
  EXPECT_EQ(efs_read("/f", 1).first, -108);
  answer = answer_saying({.all = 3, .chunk = 9, .data = counted_bytes(424), .length = 23});
  EXPECT_EQ(efs_read("/f", 10), Outcome(0, counted_bytes(3)));
  EXPECT_EQ(nv_read(10), Outcome(0, counted_bytes(3)));
  answer.len = 20;
  EXPECT_EQ(nv_read(10).first, -108);
  // The item of class 1: its status, the length that it claims, and what comes of it.
  const std::tuple<uint32_t, uint32_t, uint32_t, Outcome> rows[] = {
      {0, 3, 432, {0, counted_bytes(3)}},
      {0, 10, 23, {0, counted_bytes(3)}},
      {0, 500, 23, {0x0FFFF001, counted_bytes(3)}},
      {0, 10, 19, {-3, {}}},
      {UINT32_MAX, 10, 432, {-1, {}}},
  };
  for (const auto& [status, claimed, length, outcome] : rows) {
    answer = {.result = 0, .len = length, .payload = words({0, status, 0, 0, claimed, 0x030201})};
    EXPECT_EQ(nv_item_read(499), outcome) << claimed;
  }
  EXPECT_EQ(stub.requests().back().payload, payload_of(words({1, 6853, 1})));
}

TEST_F(ExtendNvefs, FilesComeInChunksUpToTheirMost) {
  uint32_t last = 0;  // what comes in one piece, or behind the most that is taken
  const ExtensionStub stub([&last](const ExtensionRequest& request) {
    uint32_t offset = 0;
    std::memcpy(&offset, &request.payload.at(116), sizeof offset);
    const uint32_t chunk = last == 0 ? 1 : offset < 102409 ? std::min(424u, 102409 - offset) : last;
    const Bytes file = counted_bytes(offset + chunk);
    return answer_saying(
        {.all = INT_MAX, .chunk = chunk, .data = {&file[offset], &file[offset] + chunk}});
  });
  EXPECT_EQ(efs_read("/f", 200'000), Outcome(0, counted_bytes(300)));
  const auto requests = stub.requests();
  ASSERT_EQ(requests.size(), 300u);
  for (size_t i = 0; i < 300; ++i) expect_request(requests[i], {4, 1, 0, "/f", 0, 0, i});
  // The first that brings more than 102409 bytes is the last one.
  for (const uint32_t more : {1u, 424u}) {
    usleep(1);  // as behind each test
    last = more;
    EXPECT_EQ(efs_read("/f", 200'000), Outcome(0, counted_bytes(102409 + more)));
  }
  // A buffer without a byte to spare counts as too small.
  for (const uint32_t capacity : {0u, 424u, 500u, 848u}) {
    EXPECT_EQ(efs_read("/f", capacity), Outcome(INT_MAX, counted_bytes(capacity)));
  }
}

// What any other operation of a second thread sends does not come between the pieces of a file.
TEST_F(ExtendNvefs, TransfersOfTwoThreadsDoNotMix) {
  // The file of 3 pieces that is written and read.
  const auto answer = [](const ExtensionRequest&) { return answer_saying({.all = 3, .chunk = 1}); };
  for (uint64_t seed = 1; seed <= 40; ++seed) {
    const Shuffle shuffle(seed);
    const ExtensionStub stub(answer);
    tervik_extend_qmi_init_force();
    std::thread other([] {
      for (const auto& run : kOperations) EXPECT_EQ(run(), 0);
      nv_item_read(500);
    });
    EXPECT_EQ(efs_write("/a", Bytes(414 * 3)), 0);
    EXPECT_EQ(efs_read("/a", 500).first, 0);
    other.join();
    size_t pieces = 0;
    for (const ExtensionRequest& request : stub.requests()) {
      const bool is_file = request.id == 2 && request.payload[6] == 'a';
      EXPECT_TRUE(is_file || pieces % 3 == 0) << "seed " << seed;
      if (is_file) ++pieces;
    }
    EXPECT_EQ(pieces, 6u);
  }
}

}  // namespace
}  // namespace kiv::test
