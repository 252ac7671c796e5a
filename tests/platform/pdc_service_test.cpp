#include <condition_variable>

#include "pdc_idl.h"
#include "qmi_client.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

class PdcServiceTest : public StateDirectoryTest {
 public:
  // A run on the state directory: "r" for the response (or its error), "i" for an indication (or
  // its error), in the order of their arrival; ends a tick after the `count`-th.
  std::string run(uint16_t id, const std::vector<uint32_t>& request, size_t count = 2) {
    platform::reset_service_bus();
    events_.clear();
    const auto receive = [](qmi_client_type from, unsigned int msg_id, void* data,
                            unsigned int size, void* test) {
      auto& self = *static_cast<PdcServiceTest*>(test);
      self.add("i", qmi_client_message_decode(from, QMI_IDL_INDICATION, msg_id, data, size,
                                              self.seen_.data(), size) +
                        static_cast<int>(self.seen_[0]));
    };
    qmi_client_type client = nullptr;
    const auto object = pdc_get_service_object_internal_v01(1, 18, 6);
    EXPECT_EQ(qmi_client_init_instance(object, 0xFFFF, receive, this, nullptr, 4, &client), 0);
    int answer[2];
    const auto size = static_cast<unsigned int>(4 * request.size());
    EXPECT_EQ(qmi_client_send_msg_sync(client, id, request.data(), size, answer, 8, 9), 0);
    add("r", answer[1]);
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::minutes(1), [&] { return events_.size() >= count; });
    changed_.wait_for(lock, std::chrono::milliseconds(30), [&] { return events_.size() > count; });
    lock.unlock();
    EXPECT_EQ(qmi_client_release(client), 0);
    return events_;
  }
  // Length and first four bytes of subscription 1's active id, and of its pending one.
  std::vector<uint32_t> ids() {
    EXPECT_EQ(run(0x22, {1, 1, 1}), "ri");
    return {seen_[2], seen_[3], seen_[35], seen_[36]};
  }

 private:
  void add(const std::string& event, int error) {
    const std::lock_guard lock(mutex_);
    events_ += error == 0 ? event : std::to_string(error);
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string events_;
  std::array<uint32_t, 67> seen_{};
};
using Words = std::vector<uint32_t>;

TEST_F(PdcServiceTest, WhatIsSelectedAndActivatedOutlivesTheRun) {
  Words selection(35, 1);
  selection[1] = 124;
  EXPECT_EQ(ids(), (Words{20, 0xC1C1C1C1, 0, 0}));
  EXPECT_EQ(run(0x2B, {1, 1, 1}) + run(0x23, selection), "riri");
  EXPECT_EQ(run(0x27, {1, 1, 1, 1, 1, 1, 1}), "ri") << "refresh only";
  EXPECT_EQ(ids(), (Words{0, 0, 124, 1}));
  EXPECT_EQ(run(0x27, {1, 1, 0, 1, 1, 1, 1}), "ri");
  EXPECT_EQ(ids(), (Words{124, 1, 0, 0}));
  selection[1] = 125;
  EXPECT_EQ(run(0x23, selection) + run(0x22, {2, 1, 1}) + run(0x2B, {1, 1, 2}), "484848");
}

TEST_F(PdcServiceTest, MisbehavesAsConfigured) {
  const std::string longest(250, '1');
  write_state_file_text("modem.conf", "pdc.active.1 = " + longest + "\npdc.pending.1 = 0203");
  EXPECT_EQ(ids(), (Words{125, 0x11111111, 2, 0x0302}));
  for (const std::string row :
       {"ir pdc.ind = early", "rii pdc.ind = twice", "r pdc.ind = never", "r fault.pdc = silent",
        "r5 pdc.ind_error = 5", "9 fault.pdc = result:9", "ri pdc.ind = late"}) {
    const TimeLapse lapse(row.ends_with("late") ? 100 : 1);
    const auto sent = std::chrono::steady_clock::now();
    write_state_file_text("modem.conf", row.substr(row.find(' ')));
    EXPECT_EQ(run(0x2B, {1, 1, 0}, row.find(' ')), row.substr(0, row.find(' '))) << row;
    const bool is_late = std::chrono::steady_clock::now() - sent >= std::chrono::seconds(6);
    EXPECT_EQ(is_late, row.ends_with("late")) << row;
  }
}

}  // namespace
}  // namespace kiv::test
