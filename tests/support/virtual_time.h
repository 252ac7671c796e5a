// Virtual time, in every test program that links this: one thread runs at a time, until it waits,
// and when all of them wait the clock jumps to the next deadline. So a wait of an hour takes no
// time, a busy machine changes nothing, and the threads of a test meet in the same order in every
// run. The calls by which threads wait, wake, start and read the clock are replaced at link time;
// those of other programs, and a read or waitpid, still take the machine's time, and the clock
// stands meanwhile. A program in which every thread waits for another one is aborted.
//
// ThreadSanitizer does not see the order that this adds: it reports what the locks of the code
// under test leave open.
#pragma once

#include <chrono>
#include <cstdint>

namespace kiv::test {

// Virtual time since the program's start.
std::chrono::nanoseconds virtual_now();

// The calling thread's number: 0 for the first thread, the others in the order of their start.
int thread_number();

// While this lives, threads change at their locks too, and in an order drawn from `seed`.
class Shuffle {
 public:
  explicit Shuffle(uint64_t seed);
  ~Shuffle();
  Shuffle(const Shuffle&) = delete;
  Shuffle& operator=(const Shuffle&) = delete;
};

// The next timer_create or timer_settime of any thread, or its pthread_create after some more,
// fails with EAGAIN.
void fail_next_timer_create();
void fail_next_timer_settime();
void fail_next_pthread_create(int after = 0);

}  // namespace kiv::test
