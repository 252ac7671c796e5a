// Every message that the product takes in, cut at every byte and with every length and count at its
// limits. Nothing that was not received may show: neither what stands behind the cut, nor what an
// earlier answer left behind, nor zeros in its place. Reads out of bounds show under
// AddressSanitizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <ostream>
#include <sstream>

#include "tests/fuzz/stage.h"
#include "tests/support/log_capture.h"

namespace kiv::fuzz {

void PrintTo(const Decoder& row, std::ostream* out) {
  *out << row.name;
}

namespace {

// Every byte of a longer message would take minutes: lengths and counts stand at its beginning, and
// between there and its end every so many bytes are enough.
constexpr size_t kCutsAtTheBeginning = 96;
constexpr size_t kCutsAtTheEnd = 64;
constexpr size_t kCutsBetween = 13;
// Of these what is shown is compared: each at the beginning, where the lengths stand, then one in
// so many.
constexpr size_t kCutsCompared = 37;

// What is shown on standard output. Traces are left out, which show handles, and what is of no
// message: the number of a request, a watchdog on a loaded machine.
std::string output_of(Stage& stage, ByteView bytes, uint8_t filler) {
  std::string shown;
  std::istringstream lines(test::captured_stdout([&] { stage.feed(bytes, filler); }));
  for (std::string line; std::getline(lines, line);) {
    const std::string message(test::message_of(line));
    const bool steady = message.find("number = ") == std::string::npos &&
                        message.find("timer") == std::string::npos;
    if (steady) shown += message + "\n";
  }
  return shown;
}

// Feeds the bytes twice, with other bytes behind them and in the answer before them: `whole` is
// what they are the beginning of. What is shown must be the same, and be of the bytes themselves.
void expect_nothing_else_shown(Stage& stage, ByteView bytes, ByteView whole) {
  std::optional<std::string> first;
  for (const uint8_t filler : {uint8_t{0x3C}, uint8_t{0xC3}}) {
    Bytes earlier(whole.begin(), whole.end());
    std::fill(earlier.begin() + static_cast<ptrdiff_t>(bytes.size()), earlier.end(), filler);
    stage.feed(earlier, filler);
    const std::string shown = output_of(stage, bytes, filler);
    if (!first) first = shown;
    ASSERT_EQ(shown, *first) << "bytes received: " << bytes.size();
  }
}

void expect_cuts_hold(Stage& stage, const Decoder& row, ByteView whole, size_t step) {
  for (size_t size = 0; size <= whole.size(); size += step) {
    const bool between = size >= kCutsAtTheBeginning && size + kCutsAtTheEnd < whole.size();
    if (between && size % kCutsBetween != 0) continue;
    stage.feed(whole.first(size));
    const bool compared = size < kCutsCompared || size % kCutsCompared == 0 || size == whole.size();
    if (compared && row.inlet != Inlet::kFunction) {
      expect_nothing_else_shown(stage, whole.first(size), whole);
    }
    if (testing::Test::HasFatalFailure()) return;
  }
}

void expect_limits_hold(Stage& stage, const Decoder& row, const Bytes& seed) {
  for (const CountField& field : row.fields) {
    if (field.offset + field.width > seed.size()) continue;
    for (const uint64_t value : {uint64_t{0}, uint64_t{1}, field.max, field.max + 1, UINT64_MAX}) {
      Bytes changed(seed);
      std::memcpy(changed.data() + field.offset, &value, field.width);
      SCOPED_TRACE(testing::Message()
                   << "the " << field.width << " bytes at " << field.offset << " are " << value);
      expect_nothing_else_shown(stage, changed, changed);
      // A count that claims too much of a message that ends early.
      if (row.inlet == Inlet::kPayload) expect_cuts_hold(stage, row, changed, 37);
      if (testing::Test::HasFatalFailure()) return;
    }
  }
}

class Limits : public testing::TestWithParam<Decoder> {};

TEST_P(Limits, HoldAndShowNothingThatWasNotReceived) {
  const Decoder& row = GetParam();
  Stage stage(row);
  const std::vector<Bytes> seeds = stage.record();
  ASSERT_FALSE(seeds.empty());
  show_traces(false);
  for (const Bytes& seed : seeds) {
    expect_cuts_hold(stage, row, seed, 1);
    expect_limits_hold(stage, row, seed);
    if (HasFatalFailure()) break;
  }
  show_traces(true);
}

INSTANTIATE_TEST_SUITE_P(All, Limits, testing::ValuesIn(decoders()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace kiv::fuzz
