#include "platform/diag/diag_library.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>

#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::DiagAnswer;
using std::chrono::milliseconds;
using Bytes = std::vector<uint8_t>;
using Stream = DiagAnswer::Stream;

// What arrived at a receiver. While it is held, a callback does not return.
class Packets {
 public:
  void add(unsigned char* packet, int len) {
    std::unique_lock lock(mutex_);
    packets_.emplace_back(packet, packet + len);
    changed_.notify_all();
    changed_.wait(lock, [this] { return !held_; });
    ++callbacks_done_;
  }
  void hold(bool held) {
    const std::lock_guard lock(mutex_);
    held_ = held;
    changed_.notify_all();
  }
  size_t callbacks_done() {
    const std::lock_guard lock(mutex_);
    return callbacks_done_;
  }
  std::vector<Bytes> wait_for(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(1000), [&] { return packets_.size() >= count; });
    return packets_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Bytes> packets_;
  bool held_ = false;
  size_t callbacks_done_ = 0;
};

int store_response(unsigned char* packet, int len, void* context) {
  static_cast<Packets*>(context)->add(packet, len);
  return 0;
}

void store_dci_response(unsigned char* packet, int len, void* context) {
  static_cast<Packets*>(context)->add(packet, len);
}

Packets* g_stream_packets = nullptr;

void store_stream(unsigned char* packet, int len) {
  g_stream_packets->add(packet, len);
}

class DiagLibraryTest : public StateDirectoryTest {
 protected:
  void TearDown() override {
    platform::reset_diag_library();
    StateDirectoryTest::TearDown();
  }

  // Every command is answered with these.
  static void answer_with(const std::vector<DiagAnswer>& answers) {
    platform::set_diag_modem(
        {.processor = [answers](std::span<const uint8_t>) { return answers; }});
  }

  static void open_callback_mode(Packets& packets) {
    ASSERT_TRUE(Diag_LSM_Init(nullptr));
    diag_switch_logging(DIAG_CALLBACK_MODE, nullptr);
    diag_register_callback(store_response, &packets);
  }

  static int send(Bytes command = {1}) {
    return diag_callback_send_data(0, command.data(), static_cast<int>(command.size()));
  }

  static int new_client() {
    int id = -1;
    uint16_t list = DIAG_CON_MPSS;
    int signal = 18;
    EXPECT_EQ(diag_register_dci_client(&id, &list, 0, &signal), DIAG_DCI_NO_ERROR);
    return id;
  }

  int send_dci(int client, Packets& packets, int buffer_size = 16384, Bytes command = {1}) {
    return diag_send_dci_async_req(client, command.data(), static_cast<int>(command.size()),
                                   buffer_.data(), buffer_size, store_dci_response, &packets);
  }

  Bytes buffer_ = Bytes(16384);
};

TEST_F(DiagLibraryTest, DciResponsesArriveInPiecesAndCallbackResponsesWhole) {
  const struct {
    size_t size;
    int buffer_size;
    std::vector<size_t> pieces;
  } cases[] = {{0, 16384, {0}},
               {1, 16384, {1}},
               {4095, 16384, {4095}},
               {4096, 16384, {4096}},
               {4097, 16384, {4096, 1}},
               {8192, 16384, {4096, 4096}},
               {20000, 16384, {4096, 4096, 4096, 4096, 3616}},
               {2500, 1000, {1000, 1000, 500}}};
  for (const auto& row : cases) {
    Bytes answer(row.size);
    std::iota(answer.begin(), answer.end(), uint8_t{3});
    answer_with({{.bytes = answer}});
    Packets whole;
    open_callback_mode(whole);
    ASSERT_EQ(send(), 0);
    EXPECT_EQ(whole.wait_for(1), std::vector<Bytes>{answer}) << row.size;
    Packets pieces;
    int client = new_client();
    ASSERT_EQ(send_dci(client, pieces, row.buffer_size), DIAG_DCI_NO_ERROR);
    std::vector<size_t> lengths;
    Bytes joined;
    for (const Bytes& piece : pieces.wait_for(row.pieces.size())) {
      lengths.push_back(piece.size());
      joined.insert(joined.end(), piece.begin(), piece.end());
    }
    EXPECT_EQ(lengths, row.pieces) << row.size;
    EXPECT_EQ(joined, answer) << row.size;
    EXPECT_EQ(diag_release_dci_client(&client), DIAG_DCI_NO_ERROR);
    EXPECT_TRUE(Diag_LSM_DeInit());
  }
}

TEST_F(DiagLibraryTest, SeveralAnswersArriveByTheirDelaysAndAtTheirReceivers) {
  answer_with({{.bytes = {'c'}, .delay = milliseconds(900)},
               {.bytes = {'a'}},
               {.bytes = {'d'}, .delay = milliseconds(900)},
               {.bytes = {'b'}, .delay = milliseconds(400)},
               {.bytes = {'r'}, .processor = 2},
               {.bytes = {'x'}, .processor = 7},
               {.bytes = {'l'}, .stream = Stream::kDciLog},
               {.bytes = {'e'}, .stream = Stream::kDciEvent}});
  const TimeLapse lapse(50);
  Packets primary;
  Packets remote;
  open_callback_mode(primary);
  diag_register_remote_callback(store_response, 2, &remote);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(send(), 0);
  EXPECT_EQ(primary.wait_for(6), (std::vector<Bytes>{{'a'}, {'l'}, {'e'}, {'b'}, {'c'}, {'d'}}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(900));
  EXPECT_EQ(remote.wait_for(1), (std::vector<Bytes>{{'r'}}));
  // A DCI client gets what is no stream as its response, whatever the processor.
  const int client = new_client();
  ASSERT_EQ(diag_register_dci_stream_proc(client, store_stream, store_stream), DIAG_DCI_NO_ERROR);
  Packets responses;
  Packets streams;
  g_stream_packets = &streams;
  ASSERT_EQ(send_dci(client, responses), DIAG_DCI_NO_ERROR);
  EXPECT_EQ(responses.wait_for(6), (std::vector<Bytes>{{'a'}, {'r'}, {'x'}, {'b'}, {'c'}, {'d'}}));
  EXPECT_EQ(streams.wait_for(2), (std::vector<Bytes>{{'l'}, {'e'}}));
}

TEST_F(DiagLibraryTest, TheLastCloseWaitsForTheCallbackAndDropsTheRest) {
  platform::set_diag_modem({.processor = [](std::span<const uint8_t> command) {
    const DiagAnswer echo{.bytes = {command.begin(), command.end()}};
    return std::vector{echo, echo};
  }});
  Packets packets;
  open_callback_mode(packets);
  ASSERT_TRUE(Diag_LSM_Init(nullptr));
  packets.hold(true);
  ASSERT_EQ(send(), 0);
  packets.wait_for(1);
  EXPECT_TRUE(Diag_LSM_DeInit());  // not the last one: waits for nothing
  auto done_at_close = std::async(std::launch::async, [&packets] {
    EXPECT_TRUE(Diag_LSM_DeInit());
    return packets.callbacks_done();
  });
  std::this_thread::sleep_for(milliseconds(20));
  packets.hold(false);
  EXPECT_EQ(done_at_close.get(), 1u);
  EXPECT_EQ(packets.wait_for(1).size(), 1u);
  EXPECT_FALSE(Diag_LSM_DeInit());
  // The next connection starts without the receiver and in the other mode.
  ASSERT_TRUE(Diag_LSM_Init(nullptr));
  Packets fresh;
  diag_register_callback(store_response, &fresh);
  EXPECT_EQ(send({7}), 0);
  diag_switch_logging(DIAG_CALLBACK_MODE, nullptr);
  EXPECT_EQ(send({8}), 0);
  EXPECT_EQ(fresh.wait_for(2), (std::vector<Bytes>{{8}, {8}}));
  EXPECT_EQ(packets.wait_for(1).size(), 1u);
}

TEST_F(DiagLibraryTest, NoCallbackOutlivesTheConnection) {
  answer_with({{.bytes = Bytes(5000)}, {.bytes = {2}, .delay = milliseconds(1)}});
  for (int round = 0; round < 200; ++round) {
    const auto packets = std::make_unique<Packets>();
    open_callback_mode(*packets);
    int client = new_client();
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(send_dci(client, *packets), DIAG_DCI_NO_ERROR);
    // Callers close and release in either order; their buffer is their own again after both.
    const bool close_first = round % 2 == 0;
    EXPECT_EQ(close_first && Diag_LSM_DeInit(), close_first);
    EXPECT_EQ(diag_release_dci_client(&client), DIAG_DCI_NO_ERROR);
    Bytes(buffer_.size()).swap(buffer_);
    EXPECT_EQ(Diag_LSM_DeInit(), !close_first);
  }
}

TEST_F(DiagLibraryTest, ACallbackMayCloseTheConnection) {
  answer_with({{.bytes = {1}}, {.bytes = {2}}});
  struct {
    std::promise<bool> closed;
    std::atomic<bool> ended = false;
  } closing;
  ASSERT_TRUE(Diag_LSM_Init(nullptr));
  diag_switch_logging(DIAG_CALLBACK_MODE, nullptr);
  diag_register_callback(
      [](unsigned char*, int, void* context) {
        auto& state = *static_cast<decltype(closing)*>(context);
        state.closed.set_value(Diag_LSM_DeInit());
        std::this_thread::sleep_for(milliseconds(20));
        state.ended = true;
        return 0;
      },
      &closing);
  ASSERT_EQ(send(), 0);
  EXPECT_TRUE(closing.closed.get_future().get());
  Packets packets;
  open_callback_mode(packets);
  ASSERT_EQ(send(), 0);
  EXPECT_EQ(packets.wait_for(2).size(), 2u);
  EXPECT_TRUE(closing.ended) << "two callbacks at once";
}

TEST_F(DiagLibraryTest, AReleasedClientGetsNothingMore) {
  answer_with({{.bytes = {1}}, {.bytes = {2}, .delay = milliseconds(1000)}});
  const TimeLapse lapse(50);
  ASSERT_TRUE(Diag_LSM_Init(nullptr));
  int released = new_client();
  int kept = new_client();
  EXPECT_NE(released, kept);
  Packets of_released;
  Packets of_kept;
  of_released.hold(true);
  ASSERT_EQ(send_dci(released, of_released), DIAG_DCI_NO_ERROR);
  of_released.wait_for(1);
  auto done_at_release = std::async(std::launch::async, [&] {
    EXPECT_EQ(diag_release_dci_client(&released), DIAG_DCI_NO_ERROR);
    return of_released.callbacks_done();
  });
  std::this_thread::sleep_for(milliseconds(500));
  of_released.hold(false);
  EXPECT_EQ(done_at_release.get(), 1u);
  ASSERT_EQ(send_dci(kept, of_kept), DIAG_DCI_NO_ERROR);
  EXPECT_EQ(of_kept.wait_for(2).size(), 2u);
  EXPECT_EQ(of_released.wait_for(1).size(), 1u);
  EXPECT_NE(diag_release_dci_client(&released), DIAG_DCI_NO_ERROR);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(Diag_LSM_DeInit());
  EXPECT_NE(send_dci(kept, of_kept), DIAG_DCI_NO_ERROR);
}

TEST_F(DiagLibraryTest, BadArgumentsAndConfiguredFailures) {
  uint16_t list = 0;
  uint8_t byte = 1;
  int client = 0;
  answer_with({});
  EXPECT_NE(send(), 0);
  EXPECT_EQ(errno, ENOTCONN);
  ASSERT_TRUE(Diag_LSM_Init(nullptr));
  client = new_client();
  Packets packets;
  const std::function<int()> bad_calls[] = {
      [&] { return diag_callback_send_data(1, &byte, 1); },
      [&] { return diag_callback_send_data(0, &byte, 0); },
      [&] { return diag_register_dci_client(&client, &list, 1, &byte); },
      [&] { return diag_get_dci_support_list_proc(0, nullptr); },
      [&] { return diag_register_dci_stream_proc(client, nullptr, store_stream); },
      [&] { return send_dci(client + 1, packets); },
      [&] { return send_dci(client, packets, 0); },
      [&] { return send_dci(client, packets, 100, {}); },
      [&] { return diag_release_dci_client(nullptr); },
  };
  for (const auto& call : bad_calls) {
    errno = 0;
    const int result = call();
    EXPECT_TRUE(result != 0 && result != DIAG_DCI_NO_ERROR && errno == EINVAL) << &call - bad_calls;
  }
  platform::set_diag_modem({.faults = {.init = true, .dci_send = 6, .release_dci_client = 7}});
  EXPECT_FALSE(Diag_LSM_Init(nullptr));
  EXPECT_EQ(send_dci(client, packets), 6);
  EXPECT_EQ(diag_release_dci_client(&client), 7);
  EXPECT_EQ(errno, EIO);
  platform::set_diag_modem({});
  EXPECT_NE(send_dci(client, packets), DIAG_DCI_NO_ERROR) << "a failed release ends the client";
}

TEST_F(DiagLibraryTest, TheModemAnswersAsItsConfigurationSays) {
  const struct {
    const char* conf;
    Bytes command;
    size_t size;
    Bytes start;
  } cases[] = {{"", {0x00}, 55, {0x00, 'J', 'a', 'n'}},
               {"", {0x4B, 0x04, 0x0F}, 3, {0x4B, 0x04, 0x0F}},
               {"", {0x7C}, 41, {0x7C, 2}},
               {"", {0xFE, 0x01}, 3, {0x13, 0xFE, 0x01}},
               {"fault.diag = result:300", {0x00}, 2, {0x2C, 0x00}},
               {"diag.response_size = 4097", {0x4B}, 4097, {0x4B, 1, 2, 3}}};
  for (const auto& row : cases) {
    platform::reset_diag_library();
    write_state_file_text("modem.conf", row.conf);
    Packets packets;
    open_callback_mode(packets);
    ASSERT_EQ(send(row.command), 0);
    const std::vector<Bytes> answers = packets.wait_for(1);
    EXPECT_TRUE(Diag_LSM_DeInit());
    ASSERT_EQ(answers.size(), 1u) << row.conf;
    ASSERT_EQ(answers[0].size(), row.size) << row.conf;
    EXPECT_TRUE(std::equal(row.start.begin(), row.start.end(), answers[0].begin())) << row.conf;
  }
}

TEST_F(DiagLibraryTest, TheModemFailsAsItsConfigurationSays) {
  Packets packets;
  uint16_t list = 0xFFFF;
  const auto restart = [this](const char* conf) {
    platform::reset_diag_library();
    write_state_file_text("modem.conf", conf);
  };
  restart("fault.diag = error:-9\ndiag.remote = 5\ndiag.dci = down\n");
  open_callback_mode(packets);
  EXPECT_EQ(send(), -9);
  EXPECT_EQ(send_dci(new_client(), packets), -9);
  EXPECT_EQ(diag_has_remote_device(&list), 1);
  EXPECT_EQ(list, 5);
  EXPECT_EQ(diag_get_dci_support_list_proc(0, &list), DIAG_DCI_NO_ERROR);
  EXPECT_EQ(list, 0);
  restart("fault.diag = down");
  EXPECT_FALSE(Diag_LSM_Init(nullptr));
  restart("fault.diag = silent");
  open_callback_mode(packets);
  EXPECT_EQ(send(), 0);
  restart("diag.delay_ms = 2000");
  const TimeLapse lapse(50);
  open_callback_mode(packets);
  EXPECT_EQ(diag_has_remote_device(&list), 0);
  EXPECT_EQ(diag_get_dci_support_list_proc(0, &list), DIAG_DCI_NO_ERROR);
  EXPECT_EQ(list, DIAG_CON_MPSS);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send({0x4B}), 0);
  EXPECT_EQ(packets.wait_for(1), (std::vector<Bytes>{{0x4B}}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(2000));
}

}  // namespace
}  // namespace kiv::test
