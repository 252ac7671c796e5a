#include "tervik_extend_nvefs.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <thread>

#include "tests/qmi/extension_client_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;

using ExtendNvefs = ExtensionClientTest;

// What a request of class 2 says; everything else in it is zero.
struct Wanted {
  uint8_t operation = 0;
  uint8_t sub = 0;
  uint16_t id = 0;
  std::string path{};
  size_t all = 0;
  size_t chunk = 0;
  size_t offset = 0;
  Bytes data{};
};

void expect_request(const ExtensionRequest& request, const Wanted& wanted) {
  Bytes bytes(kExtensionPayloadSize);
  put(bytes, 0, wanted.operation);
  put(bytes, 1, wanted.sub);
  put(bytes, 2, wanted.id);
  put(bytes, 4, static_cast<uint8_t>(wanted.path.size()));
  std::copy(wanted.path.begin(), wanted.path.end(), bytes.begin() + 5);
  put(bytes, 108, static_cast<uint32_t>(wanted.all));
  put(bytes, 112, static_cast<uint32_t>(wanted.chunk));
  put(bytes, 116, static_cast<uint32_t>(wanted.offset));
  std::copy(wanted.data.begin(), wanted.data.end(), bytes.begin() + 120);
  EXPECT_EQ(request.id, 2u);
  EXPECT_EQ(request.len, 544u);
  EXPECT_EQ(request.payload, bytes);
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
struct Outcome {
  int result = 0;
  Bytes read{};
};

template <class Read>
Outcome read_into(uint32_t capacity, const Read& read) {
  const auto buf = std::make_unique<uint8_t[]>(capacity);
  uint32_t len = capacity;
  const int result = read(buf.get(), &len);
  EXPECT_LE(len, capacity);
  return {result, Bytes(buf.get(), buf.get() + std::min(len, capacity))};
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

TEST_F(ExtendNvefs, EachOperationSendsItsRequest) {
  const ExtensionStub stub([](const ExtensionRequest&) {
    return answer_saying({0, 3, 3, 0, {7, 8, 9}});
  });
  const std::string path99(99, 'p');
  const std::string path100(100, 'q');
  const Bytes item = counted_bytes(424);
  EXPECT_EQ(nv_read(1, 7232, 10).read, (Bytes{7, 8, 9}));
  EXPECT_EQ(nv_read(2, 550, 2).read, (Bytes{7, 8}));
  EXPECT_EQ(tervik_nv_write_ex(1, 258, item.data(), 424), 0);
  EXPECT_EQ(tervik_nv_write_ex(0, 0, item.data(), 1), 0);
  EXPECT_EQ(tervik_nv_delete(1, 0x102), 0);
  EXPECT_EQ(efs_read(1, path100, 4).read, (Bytes{7, 8, 9}));
  EXPECT_EQ(efs_write(1, path99, {5, 6}), 0);
  EXPECT_EQ(tervik_efs_delete(0, path99.data(), 99), 0);
  const Wanted wanted[] = {
      {1, 1, 7232},
      {1, 2, 550},
      {2, 1, 258, "", 424, 0, 0, item},
      {2, 0, 0, "", 1, 0, 0, {1}},
      {3, 1, 0x102},
      {4, 1, 0, path100},
      {5, 1, 255, path99, 2, 2, 0, {5, 6}},
      {6, 0, 0, path99},
  };
  const auto requests = stub.requests();
  ASSERT_EQ(requests.size(), std::size(wanted));
  for (size_t i = 0; i < requests.size(); ++i) expect_request(requests[i], wanted[i]);
}

TEST_F(ExtendNvefs, ArgumentsAreCheckedInTheOrderOfTheirCodes) {
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_saying({}); });
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
      {[&] { return tervik_nv_read(0, 7233, nullptr, nullptr); }, -107, "buf is null"},
      {[&] { return tervik_nv_read(0, 7233, buf, nullptr); }, -108, "p_buf_len is null"},
      {[&] { return tervik_nv_read(0, 7233, buf, &len); }, -109, "nv_id is out range(7232)"},
      {[&] { return tervik_nv_write_ex(2, 550, nullptr, 0); }, -104, "sub invalid"},
      {[&] { return tervik_nv_write_ex(0, 7233, buf, 0); }, -108, "buf_len is invalid"},
      {[&] { return tervik_nv_write_ex(0, 1, buf, 425); }, -108, "buf_len is invalid"},
      {[&] { return tervik_nv_write_ex(0, 7233, buf, 1); }, -109, "nv_id is out range(7232)"},
      {[&] { return tervik_nv_delete(2, 550); }, -104, "sub invalid"},
      {[&] { return tervik_nv_delete(1, 7233); }, -109, "nv_id is out range(7232)"},
      {[&] { return tervik_efs_read(2, nullptr, 0, nullptr, nullptr); }, -104, "sub invalid"},
      {[&] { return tervik_efs_read(0, nullptr, 0, nullptr, nullptr); }, -105, "efs_path is null"},
      {[&] { return tervik_efs_read(0, p, 101, nullptr, nullptr); }, -106, "len invalid"},
      {[&] { return tervik_efs_read(0, p, 100, nullptr, nullptr); }, -107, "buf is null"},
      {[&] { return tervik_efs_read(0, p, 100, buf, nullptr); }, -108, "p_buf_len is null"},
      {[&] { return tervik_efs_write(2, nullptr, 0, nullptr, 0); }, -104, "sub invalid"},
      {[&] { return tervik_efs_write(1, nullptr, 0, nullptr, 0); }, -105, "efs_path is null"},
      {[&] { return tervik_efs_write(1, p, 100, nullptr, 0); }, -106, "len invalid"},
      {[&] { return tervik_efs_write(1, p, 99, nullptr, 0); }, -107, "buf is null"},
      {[&] { return tervik_efs_write(1, p, 99, buf, 0); }, -108, "buf_len is invalid"},
      {[&] { return tervik_efs_write(1, p, 99, buf, 102411); }, -108, "buf_len is invalid"},
      {[&] { return tervik_efs_delete(2, nullptr, 0); }, -104, "sub invalid"},
      {[&] { return tervik_efs_delete(0, nullptr, 0); }, -105, "efs_path is null"},
      {[&] { return tervik_efs_delete(0, p, 100); }, -106, "len invalid"},
      {[&] { return tervik_efs_delete(0, p, UINT32_MAX); }, -106, "len invalid"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const LogCapture log;
    EXPECT_EQ(row.run(), row.result);
    EXPECT_EQ(log.count(row.line), 1u);
  }
  EXPECT_TRUE(stub.requests().empty());
}

TEST_F(ExtendNvefs, FilesGoInChunksThatHandTheTransferOn) {
  for (const size_t size : {1u, 414u, 415u, 102410u}) {
    SCOPED_TRACE(size);
    const Bytes file = counted_bytes(size);
    uint16_t next_id = 0xFFF0;
    const ExtensionStub stub([&next_id](const ExtensionRequest&) {
      return answer_saying({.ins_id = ++next_id, .result = 7});  // above 0 is not a failure
    });
    tervik_extend_qmi_init_force();
    EXPECT_EQ(efs_write(0, "/f", file), 0);
    const auto requests = stub.requests();
    ASSERT_EQ(requests.size(), (size + 413) / 414);
    uint16_t id = 255;
    for (size_t i = 0, offset = 0; offset < size; ++i, offset += 414) {
      const size_t chunk = std::min<size_t>(414, size - offset);
      const Bytes data(&file[offset], &file[offset] + chunk);
      expect_request(requests[i], {5, 0, id, "/f", size, chunk, offset, data});
      id = static_cast<uint16_t>(0xFFF1 + i);
    }
  }
}

TEST_F(ExtendNvefs, FilesOfAnyLengthComeBackFromTheModem) {
  for (const uint32_t size : {1u, 413u, 414u, 415u, 828u, 102410u}) {
    SCOPED_TRACE(size);
    const Bytes file = counted_bytes(size);
    ASSERT_EQ(efs_write(1, "/oem/debug/file", file), 0);
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
}

TEST_F(ExtendNvefs, FailuresOfModemAndTransportEndEveryOperation) {
  const Bytes data{1};
  const std::function<int()> operations[] = {
      [] { return nv_read(0, 1, 10).result; },
      [&] { return tervik_nv_write_ex(0, 1, data.data(), 1); },
      [] { return tervik_nv_delete(0, 1); },
      [] { return efs_read(0, "/f", 10).result; },
      [] { return tervik_efs_delete(0, "/f", 2); },
      [&] { return efs_write(0, "/f", data); },
  };
  const auto fails_everywhere = [&](const ExtensionStub::Answer& answer, int expected) {
    const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
    tervik_extend_qmi_init_force();
    for (const auto& run : operations) {
      const bool is_good = &run == &operations[5] && expected > 0;  // positive results of a write
      EXPECT_EQ(run(), is_good ? 0 : expected) << &run - operations;
    }
    EXPECT_EQ(stub.requests().size(), std::size(operations));
  };
  for (const int32_t result : {1, INT_MAX, -1, INT_MIN}) {
    SCOPED_TRACE(result);
    fails_everywhere(answer_saying({.result = result}), result);
  }
  fails_everywhere(ExtensionAnswer{.result = 1}, -103);
  fails_everywhere(ExtensionAnswer{}, -103);  // handled, but without a payload
  fails_everywhere(ServiceReply::transport_error(-5), -103);
  for (uint32_t length = 0; length < 20; ++length) {
    SCOPED_TRACE(length);
    fails_everywhere(answer_saying({.all = 1, .chunk = 1, .length = length}), -103);
  }
  const TimeLapse lapse(500);
  tervik_extend_qmi_init_force();
  platform::withdraw_service(0xFFE4);
  for (const auto& run : operations) EXPECT_EQ(run(), -102) << &run - operations;
}

TEST_F(ExtendNvefs, LengthsInAnswersAreCutToWhatArrived) {
  const Bytes data = counted_bytes(424);
  const struct {
    uint32_t all, chunk, length, capacity;
    int nv_result;
    uint32_t nv_len;
    int efs_result;
    uint32_t efs_len;  // of a read that got one answer
  } rows[] = {
      {0, 0, 444, 10, -108, 10, -108, 10},
      {5, 5, 20, 10, -108, 10, -108, 10},
      {3, 9, 23, 10, 0, 3, 0, 3},
      {9, 3, 29, 3, 0, 3, 9, 3},
      {INT_MAX, 1, 24, 1, 0, 1, INT_MAX, 1},
      {424, UINT32_MAX, 444, 500, 0, 424, 0, 424},
      {424, 0x80000000, 550, 424, 0, 424, 424, 424},
      {425, 425, UINT32_MAX, 424, 0, 424, 425, 424},
      {4, 4, 444, 0, 0, 0, 4, 0},
  };
  ExtensionAnswer answer;
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    answer = answer_saying({0, row.all, row.chunk, 0, data, row.length});
    const auto expect = [&](const Outcome& outcome, int result, uint32_t len) {
      const Bytes untouched(len);
      EXPECT_EQ(outcome.result, result);
      EXPECT_EQ(outcome.read, result == -108 ? untouched : Bytes(data.data(), data.data() + len));
    };
    expect(nv_read(0, 1, row.capacity), row.nv_result, row.nv_len);
    expect(efs_read(0, "/f", row.capacity), row.efs_result, row.efs_len);
  }
  EXPECT_EQ(stub.requests().size(), 2 * std::size(rows));
}

TEST_F(ExtendNvefs, EndlessAndOverlongReadsEnd) {
  uint32_t chunk = 1;
  const ExtensionStub stub([&chunk](const ExtensionRequest&) {
    return answer_saying({0, UINT32_MAX, chunk, 0, Bytes(chunk, 0xEE)});
  });
  const Outcome dripping = efs_read(0, "/f", 200'000);
  EXPECT_EQ(dripping.result, 0);
  EXPECT_EQ(dripping.read, Bytes(300, 0xEE));
  const auto requests = stub.requests();
  ASSERT_EQ(requests.size(), 300u);
  for (size_t i = 0; i < 300; ++i) expect_request(requests[i], {4, 0, 0, "/f", 0, 0, i});
  chunk = 424;  // more than 102409 bytes have arrived after the 242nd
  EXPECT_EQ(efs_read(0, "/f", 200'000).read.size(), 242u * 424);
  // A failure in the middle says so, whatever came before.
  const ExtensionStub failing([count = 0](const ExtensionRequest&) mutable {
    return answer_saying({.all = 30, .chunk = 10, .result = ++count == 3 ? 6 : 0});
  });
  tervik_extend_qmi_init_force();
  EXPECT_EQ(efs_read(0, "/f", 100).result, 6);
  EXPECT_EQ(failing.requests().size(), 3u);
}

TEST_F(ExtendNvefs, ItemReadOfClassOneTrustsNoLength) {
  const Bytes data = counted_bytes(412);
  ExtensionAnswer answer;
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  const struct {
    int32_t status;
    uint32_t data_len, length, capacity;
    int result, stored;
    uint32_t error = 0;
  } rows[] = {
      {0, 124, 432, 124, 0, 124},
      {0, 124, 432, 500, 0, 124},
      {0, 124, 432, 123, 0x0FFFF001, 123},
      {0, 413, 550, 500, 0, 412},
      {0, UINT32_MAX, 550, 500, 0x0FFFF001, 412},
      {0, 10, 23, 500, 0, 3},
      {0, 10, 19, 500, -3, 0},
      {0, 10, 0, 500, -3, 0},
      {6, 10, 432, 500, 6, 0},
      {-1, 10, 432, 500, -1, 0},
      {0, 10, 432, 500, -3, 0, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Bytes body = words({0, static_cast<uint32_t>(row.status), 0, 0, row.data_len});
    body.insert(body.end(), data.begin(), data.end());
    answer = {.result = row.error, .len = row.length, .payload = body};
    const Outcome outcome = read_into(row.capacity, [](uint8_t* buf, uint32_t* len) {
      return tervik_extend_nv_read_item(6853, 1, buf, len);
    });
    EXPECT_EQ(outcome.result, row.result);
    EXPECT_EQ(outcome.read, Bytes(data.begin(), data.begin() + row.stored));
  }
  const ExtensionRequest request = stub.requests().at(0);
  EXPECT_EQ(request.id, 1u);
  EXPECT_EQ(request.len, 428u);
  EXPECT_EQ(request.payload, payload_of(words({1, 6853, 1})));
}

TEST_F(ExtendNvefs, TransfersOfTwoThreadsDoNotMix) {
  const ExtensionStub stub([](const ExtensionRequest&) {
    std::this_thread::yield();
    return answer_saying({.ins_id = 1});
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
    const size_t part = i % 6;
    const std::string path{'/', static_cast<char>(requests[i - part].payload[6])};
    const uint16_t id = part == 0 ? 255 : 1;
    expect_request(requests[i], {5, 0, id, path, 414 * 6, 414, part * 414});
  }
}

}  // namespace
}  // namespace kiv::test
