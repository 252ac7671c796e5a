#include "platform/diag/diag_library.h"

#include "tests/platform/callback_record.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
using platform::DiagAnswer;
using std::this_thread::sleep_for;
using Bytes = std::vector<uint8_t>;
using Packets = CallbackRecord<Bytes>;
using Received = std::vector<Bytes>;

void store_dci_response(unsigned char* packet, int len, void* context) {
  static_cast<Packets*>(context)->add({packet, packet + len});
}

int store_response(unsigned char* packet, int len, void* context) {
  store_dci_response(packet, len, context);
  return 0;
}

int new_client() {
  int id = -1;
  uint16_t list = DIAG_CON_MPSS;
  int signal = 18;
  EXPECT_EQ(diag_register_dci_client(&id, &list, 0, &signal), DIAG_DCI_NO_ERROR);
  return id;
}

int send_dci(int client, Packets& packets) {
  uint8_t command = 1;
  static uint8_t buffer[100];
  return diag_send_dci_async_req(client, &command, 1, buffer, 100, store_dci_response, &packets);
}

class DiagLibraryTest : public StateDirectoryTest {
 protected:
  void TearDown() override {
    platform::reset_diag_library();
    StateDirectoryTest::TearDown();
  }
};

TEST_F(DiagLibraryTest, TheLastCloseAndAReleaseWaitForTheirCallbackAlone) {
  platform::set_diag_modem({.processor = [](auto) {
    return std::vector<DiagAnswer>{{.bytes = {1}}, {.bytes = {2}, .delay = 1s}};
  }});
  Packets of_released(400ms);
  Packets of_kept;
  Packets of_connection(900ms);
  ASSERT_TRUE(Diag_LSM_Init(nullptr) && Diag_LSM_Init(nullptr));
  diag_switch_logging(DIAG_CALLBACK_MODE, nullptr);
  diag_register_callback(store_response, &of_connection);
  int clients[] = {new_client(), new_client(), new_client()};
  auto& [released, kept, idle] = clients;
  ASSERT_EQ(send_dci(kept, of_kept), DIAG_DCI_NO_ERROR);
  ASSERT_EQ(send_dci(released, of_released), DIAG_DCI_NO_ERROR);
  uint8_t command = 1;
  ASSERT_EQ(diag_callback_send_data(0, &command, 1), 0);
  sleep_for(300ms);
  const auto release_time = [](int& client) {
    return time_of([&] { EXPECT_EQ(diag_release_dci_client(&client), DIAG_DCI_NO_ERROR); });
  };
  EXPECT_EQ(release_time(idle), 0ms) << "no callback of that one is at work";
  EXPECT_EQ(release_time(released), 100ms);
  of_released.end();
  sleep_for(100ms);
  EXPECT_EQ(time_of([] { EXPECT_TRUE(Diag_LSM_DeInit()); }), 0ms) << "not the last one";
  EXPECT_EQ(time_of([] { EXPECT_TRUE(Diag_LSM_DeInit()); }), 800ms);
  of_connection.end();
  EXPECT_FALSE(Diag_LSM_DeInit());
  EXPECT_EQ(of_connection.received(), Received{{1}});
  EXPECT_EQ(of_released.received(), Received{{1}});
  EXPECT_EQ(of_kept.received(), Received{{1}});
  ASSERT_TRUE(Diag_LSM_Init(nullptr));
  EXPECT_NE(send_dci(kept, of_kept), DIAG_DCI_NO_ERROR) << "a client of an earlier connection";
}

}  // namespace
}  // namespace kiv::test
