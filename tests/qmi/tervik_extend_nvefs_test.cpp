#include "tervik_extend_nvefs.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <numeric>
#include <thread>

#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;

using ExtendNvefs = ExtensionClientTest;

constexpr size_t kRequestLen = 544;
constexpr size_t kResponseLen = 444;
constexpr size_t kResponseHeader = 20;

// What a request of class 2 says; everything else in it is zero.
struct Wanted {
  uint8_t operation = 0;
  uint8_t sub = 0;
  uint16_t id = 0;
  std::string path{};
  uint32_t all = 0;
  uint32_t chunk = 0;
  uint32_t offset = 0;
  Bytes data{};
};

Bytes payload_of(const Wanted& wanted) {
  Bytes bytes(kExtensionPayloadSize);
  put(bytes, 0, wanted.operation);
  put(bytes, 1, wanted.sub);
  put(bytes, 2, wanted.id);
  put(bytes, 4, static_cast<uint8_t>(wanted.path.size()));
  std::copy(wanted.path.begin(), wanted.path.end(), bytes.begin() + 5);
  put(bytes, 108, wanted.all);
  put(bytes, 112, wanted.chunk);
  put(bytes, 116, wanted.offset);
  std::copy(wanted.data.begin(), wanted.data.end(), bytes.begin() + 120);
  return bytes;
}

void expect_request(const ExtensionRequest& request, const Wanted& wanted) {
  EXPECT_EQ(request.id, 2u);
  EXPECT_EQ(request.len, kRequestLen);
  EXPECT_EQ(request.payload, payload_of(wanted));
}

// What an answer of class 2 says, and how many bytes of it arrive.
struct Reply {
  uint16_t ins_id = 0;
  uint32_t all = 0;
  uint32_t chunk = 0;
  int32_t result = 0;
  Bytes data{};
  size_t length = kResponseLen;
};

ExtensionAnswer answer_saying(const Reply& reply) {
  Bytes body(kResponseLen);
  put(body, 2, reply.ins_id);
  put(body, 4, reply.all);
  put(body, 8, reply.chunk);
  put(body, 16, reply.result);
  std::copy(reply.data.begin(), reply.data.end(), body.begin() + kResponseHeader);
  ExtensionAnswer answer = answer_of(body);
  answer.len = static_cast<uint32_t>(reply.length);
  return answer;
}

// One operation's result, and what a read left in a buffer of exactly the capacity.
struct Outcome {
  int result = 0;
  Bytes read{};
};

template <class Read>
Outcome read_into(uint32_t capacity, const Read& read) {
  const auto buf = std::make_unique<uint8_t[]>(capacity);
  uint32_t len = capacity;
  Outcome outcome{.result = read(buf.get(), &len)};
  EXPECT_LE(len, capacity);
  outcome.read.assign(buf.get(), buf.get() + std::min(len, capacity));
  return outcome;
}

Outcome nv_read(uint32_t sub, uint32_t nv_id, uint32_t capacity) {
  return read_into(
      capacity, [&](uint8_t* buf, uint32_t* len) { return tervik_nv_read(sub, nv_id, buf, len); });
}

Outcome efs_read(uint32_t sub, const std::string& path, uint32_t capacity) {
  return read_into(capacity, [&](uint8_t* buf, uint32_t* len) {
    return tervik_efs_read(sub, path.data(), static_cast<uint32_t>(path.size()), buf, len);
  });
}

int efs_write(uint32_t sub, const std::string& path, const Bytes& data) {
  return tervik_efs_write(sub, path.data(), static_cast<uint32_t>(path.size()), data.data(),
                          static_cast<uint32_t>(data.size()));
}

int efs_delete(uint32_t sub, const std::string& path) {
  return tervik_efs_delete(sub, path.data(), static_cast<uint32_t>(path.size()));
}

// The six operations in their plainest form.
constexpr size_t kOperations = 6;
constexpr size_t kEfsWrite = 4;

int run_operation(size_t index) {
  const Bytes data{1};
  switch (index) {
    case 0:
      return nv_read(0, 1, 10).result;
    case 1:
      return tervik_nv_write_ex(0, 1, data.data(), 1);
    case 2:
      return tervik_nv_delete(0, 1);
    case 3:
      return efs_read(0, "/f", 10).result;
    case kEfsWrite:
      return efs_write(0, "/f", data);
    default:
      return efs_delete(0, "/f");
  }
}

TEST_F(ExtendNvefs, EachOperationSendsItsRequest) {
  const ExtensionStub stub([](const ExtensionRequest&) {
    return answer_saying(Reply{.all = 3, .chunk = 3, .data = {7, 8, 9}});
  });
  const std::string path99(99, 'p');
  const std::string path100(100, 'q');
  const Bytes item = counted_bytes(424);
  const auto sent = [&stub](const Wanted& wanted) {
    SCOPED_TRACE(static_cast<int>(wanted.operation));
    ASSERT_FALSE(stub.requests().empty());
    expect_request(stub.requests().back(), wanted);
  };
  EXPECT_EQ(nv_read(1, 7232, 10).read, (Bytes{7, 8, 9}));
  sent({.operation = 1, .sub = 1, .id = 7232});
  EXPECT_EQ(nv_read(2, 550, 2).read, (Bytes{7, 8}));
  sent({.operation = 1, .sub = 2, .id = 550});
  EXPECT_EQ(tervik_nv_write_ex(1, 258, item.data(), 424), 0);
  sent({.operation = 2, .sub = 1, .id = 258, .all = 424, .data = item});
  EXPECT_EQ(tervik_nv_write_ex(0, 0, item.data(), 1), 0);
  sent({.operation = 2, .all = 1, .data = {1}});
  EXPECT_EQ(tervik_nv_delete(1, 0x102), 0);
  sent({.operation = 3, .sub = 1, .id = 0x102});
  EXPECT_EQ(efs_read(1, path100, 4).read, (Bytes{7, 8, 9}));
  sent({.operation = 4, .sub = 1, .path = path100});
  EXPECT_EQ(efs_write(1, path99, {5, 6}), 0);
  sent({.operation = 5, .sub = 1, .id = 255, .path = path99, .all = 2, .chunk = 2, .data = {5, 6}});
  EXPECT_EQ(efs_delete(0, path99), 0);
  sent({.operation = 6, .path = path99});
  EXPECT_EQ(stub.requests().size(), 8u);
}

TEST_F(ExtendNvefs, ArgumentsAreCheckedInTheOrderOfTheirCodes) {
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_saying(Reply{}); });
  uint8_t buf[1] = {};
  uint32_t len = 1;
  const std::string path(101, 'p');
  const char* const p = path.c_str();
  const struct {
    std::function<int()> run;
    int result;
    const char* line;
  } rows[] = {
      {[&] { return tervik_nv_read(2, 7233, nullptr, nullptr); }, -104, "sub invalid"},
      {[&] { return tervik_nv_read(2, 551, buf, &len); }, -104, "sub invalid"},
      {[&] { return tervik_nv_read(3, 550, buf, &len); }, -104, "sub invalid"},
      {[&] { return tervik_nv_read(255, 550, buf, &len); }, -104, "sub invalid"},
      {[&] { return tervik_nv_read(0, 7233, nullptr, nullptr); }, -107, "buf is null"},
      {[&] { return tervik_nv_read(2, 550, nullptr, &len); }, -107, "buf is null"},
      {[&] { return tervik_nv_read(0, 7233, buf, nullptr); }, -108, "p_buf_len is null"},
      {[&] { return tervik_nv_read(0, 7233, buf, &len); }, -109, "nv_id is out range(7232)"},
      {[&] { return tervik_nv_read(0, UINT32_MAX, buf, &len); }, -109, "nv_id is out range(7232)"},
      {[&] { return tervik_nv_write_ex(2, 550, nullptr, 0); }, -104, "sub invalid"},
      {[&] { return tervik_nv_write_ex(0, 7233, nullptr, 0); }, -107, "buf is null"},
      {[&] { return tervik_nv_write_ex(0, 7233, buf, 0); }, -108, "buf_len is invalid"},
      {[&] { return tervik_nv_write_ex(0, 1, buf, 425); }, -108, "buf_len is invalid"},
      {[&] { return tervik_nv_write_ex(0, 7233, buf, 1); }, -109, "nv_id is out range(7232)"},
      {[&] { return tervik_nv_delete(2, 550); }, -104, "sub invalid"},
      {[&] { return tervik_nv_delete(1, 7233); }, -109, "nv_id is out range(7232)"},
      {[&] { return tervik_efs_read(2, nullptr, 0, nullptr, nullptr); }, -104, "sub invalid"},
      {[&] { return tervik_efs_read(0, nullptr, 0, nullptr, nullptr); }, -105, "efs_path is null"},
      {[&] { return tervik_efs_read(0, p, 0, nullptr, nullptr); }, -106, "len invalid"},
      {[&] { return tervik_efs_read(0, p, 101, nullptr, nullptr); }, -106, "len invalid"},
      {[&] { return tervik_efs_read(0, p, 100, nullptr, nullptr); }, -107, "buf is null"},
      {[&] { return tervik_efs_read(0, p, 100, buf, nullptr); }, -108, "p_buf_len is null"},
      {[&] { return tervik_efs_write(2, nullptr, 0, nullptr, 0); }, -104, "sub invalid"},
      {[&] { return tervik_efs_write(1, nullptr, 0, nullptr, 0); }, -105, "efs_path is null"},
      {[&] { return tervik_efs_write(1, p, 0, nullptr, 0); }, -106, "len invalid"},
      {[&] { return tervik_efs_write(1, p, 100, nullptr, 0); }, -106, "len invalid"},
      {[&] { return tervik_efs_write(1, p, 99, nullptr, 0); }, -107, "buf is null"},
      {[&] { return tervik_efs_write(1, p, 99, buf, 0); }, -108, "buf_len is invalid"},
      {[&] { return tervik_efs_write(1, p, 99, buf, 102411); }, -108, "buf_len is invalid"},
      {[&] { return tervik_efs_delete(2, nullptr, 0); }, -104, "sub invalid"},
      {[&] { return tervik_efs_delete(0, nullptr, 0); }, -105, "efs_path is null"},
      {[&] { return tervik_efs_delete(0, p, 0); }, -106, "len invalid"},
      {[&] { return tervik_efs_delete(0, p, 100); }, -106, "len invalid"},
      {[&] { return tervik_efs_delete(0, p, UINT32_MAX); }, -106, "len invalid"},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    const LogCapture log;
    EXPECT_EQ(rows[i].run(), rows[i].result) << "row " << i;
    const Strings lines = log.messages();
    ASSERT_GE(lines.size(), 4u) << "row " << i;
    EXPECT_EQ(lines[0], "function entry ------------->");
    EXPECT_EQ(lines[lines.size() - 2], rows[i].line) << "row " << i;
    EXPECT_EQ(lines.back(), "function exit <-------------");
  }
  EXPECT_TRUE(stub.requests().empty());
}

TEST_F(ExtendNvefs, FilesGoInChunksThatHandTheTransferOn) {
  for (const size_t size : {1u, 414u, 415u, 102410u}) {
    SCOPED_TRACE(size);
    const Bytes file = counted_bytes(size);
    uint16_t next_id = 0xFFF0;
    const ExtensionStub stub([&next_id](const ExtensionRequest&) {
      return answer_saying(Reply{.ins_id = ++next_id, .result = 7});  // above 0 is not a failure
    });
    tervik_extend_qmi_init_force();
    EXPECT_EQ(efs_write(0, "/f", file), 0);
    const auto requests = stub.requests();
    ASSERT_EQ(requests.size(), (size + 413) / 414);
    for (size_t i = 0; i < requests.size(); ++i) {
      const auto begin = file.begin() + static_cast<std::ptrdiff_t>(i * 414);
      const auto chunk = static_cast<uint32_t>(std::min<size_t>(414, size - i * 414));
      expect_request(requests[i], {.operation = 5,
                                   .id = static_cast<uint16_t>(i == 0 ? 255 : 0xFFF0 + i),
                                   .path = "/f",
                                   .all = static_cast<uint32_t>(size),
                                   .chunk = chunk,
                                   .offset = static_cast<uint32_t>(i * 414),
                                   .data = Bytes(begin, begin + chunk)});
    }
  }
}

TEST_F(ExtendNvefs, FilesOfAnyLengthComeBackFromTheModem) {
  for (const uint32_t size : {1u, 413u, 414u, 415u, 828u, 102410u}) {
    SCOPED_TRACE(size);
    const Bytes file = counted_bytes(size);
    ASSERT_EQ(efs_write(1, "/oem/debug/file", file), 0);
    EXPECT_EQ(read_state_file_text("efs/1/oem/debug/file"), std::string(file.begin(), file.end()));
    const Outcome whole = efs_read(1, "/oem/debug/file", size + 1);
    EXPECT_EQ(whole.result, 0);
    EXPECT_EQ(whole.read, file);
    // A buffer without a byte to spare counts as too small.
    for (const uint32_t capacity : {size, size - 1, size / 2, 0u}) {
      const Outcome cut = efs_read(1, "/oem/debug/file", capacity);
      EXPECT_EQ(cut.result, static_cast<int>(size)) << capacity;
      EXPECT_EQ(cut.read, Bytes(file.begin(), file.begin() + capacity)) << capacity;
    }
  }
  EXPECT_EQ(efs_delete(1, "/oem/debug/file"), 0);
  EXPECT_GT(efs_read(1, "/oem/debug/file", 10).result, 0);
  const Bytes item = counted_bytes(424);
  EXPECT_EQ(tervik_nv_write_ex(0, 7232, item.data(), 424), 0);
  EXPECT_EQ(nv_read(0, 7232, 500).read, item);
  EXPECT_EQ(tervik_nv_delete(0, 7232), 0);
  EXPECT_NE(nv_read(0, 7232, 500).result, 0);
}

TEST_F(ExtendNvefs, FailuresOfModemAndTransportEndEveryOperation) {
  const auto fails_everywhere = [](const ExtensionStub::Answer& answer, int expected,
                                   int expected_of_efs_write) {
    const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
    tervik_extend_qmi_init_force();
    for (size_t i = 0; i < kOperations; ++i) {
      EXPECT_EQ(run_operation(i), i == kEfsWrite ? expected_of_efs_write : expected) << i;
    }
    EXPECT_EQ(stub.requests().size(), kOperations);
  };
  for (const int32_t result : {1, INT_MAX}) {
    SCOPED_TRACE(result);
    fails_everywhere(answer_saying(Reply{.result = result}), result, 0);
  }
  for (const int32_t result : {-1, -5, INT_MIN}) {
    SCOPED_TRACE(result);
    fails_everywhere(answer_saying(Reply{.result = result}), result, result);
  }
  fails_everywhere(ExtensionAnswer{.result = 1}, -103, -103);
  fails_everywhere(ExtensionAnswer{}, -103, -103);  // handled, but without a payload
  fails_everywhere(ServiceReply::transport_error(-5), -103, -103);
  for (size_t length = 0; length < kResponseHeader; ++length) {
    SCOPED_TRACE(length);
    fails_everywhere(answer_saying(Reply{.all = 1, .chunk = 1, .length = length}), -103, -103);
  }
  const TimeLapse lapse(500);
  fails_everywhere(ServiceReply::silence(), -103, -103);
  platform::withdraw_service(0xFFE4);
  for (size_t i = 0; i < kOperations; ++i) EXPECT_EQ(run_operation(i), -102) << i;
}

TEST_F(ExtendNvefs, LengthsInAnswersAreCutToWhatArrived) {
  const Bytes data = counted_bytes(424);
  const struct {
    Reply reply;
    uint32_t capacity;
    int nv_result;
    size_t nv_len;
    int efs_result;
    size_t efs_len;  // of a read that got one answer
  } rows[] = {
      {{.all = 0, .chunk = 0, .length = 444}, 10, -108, 10, -108, 10},
      {{.all = 5, .chunk = 5, .length = 20}, 10, -108, 10, -108, 10},
      {{.all = 3, .chunk = 9, .length = 23}, 10, 0, 3, 0, 3},
      {{.all = 9, .chunk = 3, .length = 29}, 3, 0, 3, 9, 3},
      {{.all = UINT32_MAX, .chunk = 1, .length = 24}, 1, 0, 1, -1, 1},
      {{.all = 424, .chunk = UINT32_MAX, .length = 444}, 500, 0, 424, 0, 424},
      {{.all = 424, .chunk = 0x80000000, .length = 550}, 424, 0, 424, 424, 424},
      {{.all = 425, .chunk = 425, .length = UINT32_MAX}, 424, 0, 424, 425, 424},
      {{.all = 4, .chunk = 4, .length = 444}, 0, 0, 0, 4, 0},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    Reply reply = rows[i].reply;
    reply.data = data;
    const ExtensionStub stub([&reply](const ExtensionRequest&) { return answer_saying(reply); });
    tervik_extend_qmi_init_force();
    const auto expect = [&](const Outcome& outcome, int result, size_t len) {
      EXPECT_EQ(outcome.result, result);
      EXPECT_EQ(outcome.read.size(), len);
      if (result != -108) {
        EXPECT_TRUE(std::equal(outcome.read.begin(), outcome.read.end(), data.begin()));
      }
    };
    expect(nv_read(0, 1, rows[i].capacity), rows[i].nv_result, rows[i].nv_len);
    expect(efs_read(0, "/f", rows[i].capacity), rows[i].efs_result, rows[i].efs_len);
    EXPECT_EQ(stub.requests().size(), 2u);
  }
}

TEST_F(ExtendNvefs, EndlessAndOverlongReadsEnd) {
  uint32_t chunk = 1;
  const ExtensionStub stub([&chunk](const ExtensionRequest&) {
    return answer_saying(Reply{.all = UINT32_MAX, .chunk = chunk, .data = Bytes(chunk, 0xEE)});
  });
  const Outcome dripping = efs_read(0, "/f", 200'000);
  EXPECT_EQ(dripping.result, 0);
  EXPECT_EQ(dripping.read, Bytes(300, 0xEE));
  const auto requests = stub.requests();
  ASSERT_EQ(requests.size(), 300u);
  for (uint32_t i = 0; i < 300; ++i) {
    expect_request(requests[i], {.operation = 4, .path = "/f", .offset = i});
  }
  chunk = 424;  // more than 102409 bytes have arrived after the 242nd
  EXPECT_EQ(efs_read(0, "/f", 200'000).read.size(), 242u * 424);
  // A failure in the middle says so, whatever came before.
  const ExtensionStub failing([count = 0](const ExtensionRequest&) mutable {
    return answer_saying(Reply{.all = 30, .chunk = 10, .result = ++count == 3 ? 6 : 0});
  });
  tervik_extend_qmi_init_force();
  EXPECT_EQ(efs_read(0, "/f", 100).result, 6);
  EXPECT_EQ(failing.requests().size(), 3u);
}

TEST_F(ExtendNvefs, ItemReadOfClassOneTrustsNoLength) {
  const Bytes data = counted_bytes(412);
  const struct {
    int32_t status;
    uint32_t data_len;
    uint32_t length;  // of the answer
    uint32_t capacity;
    int result;
    int stored;
  } rows[] = {
      {0, 124, 432, 124, 0, 124},
      {0, 124, 432, 500, 0, 124},
      {0, 124, 432, 123, 0x0FFFF001, 123},
      {0, 412, 432, 500, 0, 412},
      {0, 413, 550, 500, 0, 412},
      {0, UINT32_MAX, 550, 500, 0x0FFFF001, 412},
      {0, 10, 23, 500, 0, 3},
      {0, 10, 20, 500, 0, 0},
      {0, 10, 19, 500, -3, 0},
      {0, 10, 0, 500, -3, 0},
      {6, 10, 432, 500, 6, 0},
      {-1, 10, 432, 500, -1, 0},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    const ExtensionStub stub([&row = rows[i], &data](const ExtensionRequest&) {
      Bytes body(432);
      put(body, 4, row.status);
      put(body, 16, row.data_len);
      std::copy(data.begin(), data.end(), body.begin() + 20);
      ExtensionAnswer answer = answer_of(body);
      answer.len = row.length;
      return answer;
    });
    tervik_extend_qmi_init_force();
    const Outcome outcome = read_into(rows[i].capacity, [](uint8_t* buf, uint32_t* len) {
      return tervik_extend_nv_read_item(6853, 1, buf, len);
    });
    EXPECT_EQ(outcome.result, rows[i].result);
    EXPECT_EQ(outcome.read, Bytes(data.begin(), data.begin() + rows[i].stored));
    ASSERT_EQ(stub.requests().size(), 1u);
    const ExtensionRequest request = stub.requests()[0];
    Bytes payload(kExtensionPayloadSize);
    put(payload, 0, uint32_t{1});
    put(payload, 4, uint32_t{6853});
    put(payload, 8, uint32_t{1});
    EXPECT_EQ(request.id, 1u);
    EXPECT_EQ(request.len, 428u);
    EXPECT_EQ(request.payload, payload);
  }
  Bytes hardware(124);
  hardware[16] = 1;
  EXPECT_EQ(read_into(200,
                      [](uint8_t* buf, uint32_t* len) {
                        platform::reset_service_bus();
                        tervik_extend_qmi_init_force();
                        return tervik_extend_nv_read_item(6853, 0, buf, len);
                      })
                .read,
            hardware);
}

TEST_F(ExtendNvefs, TransfersOfTwoThreadsDoNotMix) {
  const ExtensionStub stub([](const ExtensionRequest&) {
    std::this_thread::yield();
    return answer_saying(Reply{.ins_id = 1});
  });
  const auto write_files = [](const std::string& path) {
    for (int round = 0; round < 5; ++round) EXPECT_EQ(efs_write(0, path, Bytes(414 * 6)), 0);
  };
  std::thread other(write_files, "/a");
  write_files("/b");
  other.join();
  const auto requests = stub.requests();
  ASSERT_EQ(requests.size(), 60u);
  for (size_t i = 0; i < requests.size(); ++i) {
    const std::string path(1, static_cast<char>(requests[i - i % 6].payload[6]));
    expect_request(requests[i], {.operation = 5,
                                 .id = static_cast<uint16_t>(i % 6 == 0 ? 255 : 1),
                                 .path = "/" + path,
                                 .all = 414 * 6,
                                 .chunk = 414,
                                 .offset = static_cast<uint32_t>(i % 6) * 414});
  }
}

}  // namespace
}  // namespace kiv::test
