#include "tervik_utils_timer.h"

#include <unistd.h>

#include <atomic>
#include <thread>

#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "tests/support/virtual_time.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;

// What the timer callbacks did.
std::atomic<size_t> g_fired{0};
std::atomic<size_t> g_stopped{0};

void note_firing(sigval) {
  ++g_fired;
}

void stop_own_timer(sigval value) {
  g_stopped += tervik_timer_stop(static_cast<uint32_t>(value.sival_int)) ? 1 : 0;
  ++g_fired;
}

class UtilsTimer : public StateDirectoryTest {
 protected:
  void SetUp() override {
    StateDirectoryTest::SetUp();
    tervik_hal_set_shell_print_mask(0);
    tervik_timer_stop(1);  // loads the masks and makes the mutexes
    g_fired = g_stopped = 0;
  }
};

TEST_F(UtilsTimer, NumbersAreTakenFromTheirStartToTheirStop) {
  const uint32_t first = tervik_timer_start(note_firing, 60);
  EXPECT_GE(first, 501u);
  for (const auto fail : {fail_next_timer_create, fail_next_timer_settime}) {
    fail();
    EXPECT_EQ(tervik_timer_start(note_firing, 60), 0u);
    fail();
    EXPECT_FALSE(tervik_timer_start(7, note_firing, 50));
    EXPECT_FALSE(tervik_timer_stop(7));
  }
  EXPECT_EQ(tervik_timer_start(note_firing, 60), first + 3) << "failed creations use numbers up";
  for (const uint32_t number : {1u, 2u}) EXPECT_FALSE(tervik_timer_stop(first + number));
  for (const uint32_t timer_id : {7u, 8u, 9u}) {
    EXPECT_TRUE(tervik_timer_start(timer_id, note_firing, 50));
  }
  // From the middle of the list and from both its ends.
  for (const uint32_t timer_id : {8u, 9u, first, 7u, first + 3}) {
    EXPECT_TRUE(tervik_timer_stop(timer_id));
  }
}

TEST_F(UtilsTimer, FiresOnceWhenItIsTimeAndStaysUntilStopped) {
  ASSERT_TRUE(tervik_timer_start(7, note_firing, 2));
  ASSERT_TRUE(tervik_timer_stop(tervik_timer_start(note_firing, 1)));
  std::this_thread::sleep_for(2s - 1ns);
  EXPECT_EQ(g_fired, 0u);
  std::this_thread::sleep_for(1ns);
  EXPECT_EQ(g_fired, 1u);
  EXPECT_FALSE(tervik_timer_start(7, note_firing, 2));
  sleep(10);
  EXPECT_EQ(g_fired, 1u);
  EXPECT_TRUE(tervik_timer_stop(7));
}

// Starters and callbacks race for every timer: each is stopped exactly once, and a callback always
// finds its own timer when nobody else stops it.
TEST_F(UtilsTimer, ManyThreadsStartStopAndExpireAtOnce) {
  constexpr uint32_t kSharedId = 77;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    const Shuffle shuffle(seed);
    g_fired = g_stopped = 0;
    std::atomic<size_t> started{0};
    std::atomic<size_t> stopped{0};
    const auto work = [&](int offset) {
      for (int round = 0; round < 12; ++round) {
        const int kind = (offset + round) % 4;
        if (kind == 3) {
          started += tervik_timer_start(kSharedId, note_firing, 60'000) ? 1 : 0;
          stopped += tervik_timer_stop(kSharedId) ? 1 : 0;
          continue;
        }
        const uint32_t timer_id =
            tervik_timer_start(stop_own_timer, static_cast<unsigned long>(round % 2));
        ++started;
        if (kind == 0) continue;  // it fires
        if (kind == 1) usleep(1);
        stopped += tervik_timer_stop(timer_id) ? 1 : 0;
      }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
    sleep(2);
    while (tervik_timer_stop(kSharedId)) ++stopped;
    EXPECT_EQ(stopped + g_stopped, started) << seed;
    EXPECT_GE(g_fired, 12u);
  }
}

}  // namespace
}  // namespace kiv::test
