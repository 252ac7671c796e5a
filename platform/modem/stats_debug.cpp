#include "platform/modem/stats_debug.h"

#include <array>

#include "platform/modem/service_messages.h"

namespace kiv::platform {
namespace {

// A counter of the debug block. All have a value of their own, so that none can pass for another.
struct Counter {
  uint8_t width;  // bytes
  uint8_t since;  // first layout version that has it
  uint64_t value;
};

constexpr std::array kCounters{
    // Section main, behind the enable status and the number of logs that are not supported.
    Counter{8, 0, 1201},    // commands done
    Counter{8, 0, 3},       // commands failed
    Counter{8, 2, 65536},   // heap: most bytes in use
    Counter{8, 2, 40960},   // heap: bytes in use
    Counter{4, 2, 5},       // commands queued
    Counter{4, 2, 27},      // free places in the queue
    Counter{4, 4, 0x12F},   // log mask
    Counter{4, 4, 0x1003},  // statistics log mask

    // Section diag.
    Counter{1, 0, 1},      // state
    Counter{4, 0, 11},     // events listened to
    Counter{1, 0, 2},      // state of the event listener
    Counter{4, 0, 4101},   // events received
    Counter{4, 0, 4096},   // events parsed
    Counter{4, 0, 14},     // logs listened to
    Counter{1, 0, 3},      // state of the log listener
    Counter{8, 0, 90210},  // logs received
    Counter{8, 0, 90123},  // logs parsed
    Counter{4, 0, 601},    // polls
    Counter{4, 0, 600},    // polls parsed
    Counter{8, 1, 4102},   // event callbacks
    Counter{8, 1, 90211},  // log callbacks
    Counter{4, 1, 6},      // LTE cells without an id
    Counter{4, 1, 7},      // NR cells without an id
    Counter{4, 2, 17},     // longest event, ms
    Counter{4, 2, 29},     // longest log, ms
    Counter{4, 2, 31},     // longest command, ms
    Counter{4, 2, 81},     // debug records received
    Counter{4, 2, 80},     // debug records parsed
    Counter{4, 3, 22},     // custom events received
    Counter{4, 3, 21},     // custom events parsed

    // Section cm.
    Counter{1, 0, 1},     // state
    Counter{1, 0, 4},     // state of the listener
    Counter{4, 0, 52},    // call events received
    Counter{4, 0, 51},    // call events parsed
    Counter{4, 0, 34},    // subscription events received
    Counter{4, 0, 33},    // subscription events parsed
    Counter{4, 0, 2048},  // serving system events received
    Counter{4, 0, 2047},  // serving system events parsed
    Counter{4, 0, 512},   // statistics events received
    Counter{4, 0, 511},   // statistics events parsed
    Counter{4, 0, 303},   // RF polls
    Counter{4, 0, 302},   // RF polls parsed
    Counter{4, 0, 205},   // LTE polls
    Counter{4, 0, 204},   // LTE polls parsed
    Counter{4, 0, 107},   // NR polls
    Counter{4, 0, 106},   // NR polls parsed

    // Section uim.
    Counter{1, 0, 1},  // state
    Counter{1, 0, 5},  // state of the listener
    Counter{4, 0, 9},  // events received
    Counter{4, 0, 8},  // events parsed
};

template <class Integer>
void append(std::vector<uint8_t>& block, Integer value, size_t width = sizeof(Integer)) {
  const auto bytes = bytes_of(value).first(width);
  block.insert(block.end(), bytes.begin(), bytes.end());
}

}  // namespace

std::vector<uint8_t> make_stats_debug_block(const ModemConf& conf) {
  std::vector<uint8_t> block;
  append(block, static_cast<uint8_t>(conf.stats_debug_version));
  append(block, static_cast<uint8_t>(conf.stats_enable));
  append(block, static_cast<uint64_t>(conf.stats_not_supported));
  for (const Counter& counter : kCounters) {
    if (counter.since <= conf.stats_debug_version) {
      append(block, counter.value, counter.width);
    }
  }
  return block;
}

std::vector<uint8_t> make_stats_log_ids_block(const ModemConf& conf) {
  std::vector<uint8_t> block;
  append(block, static_cast<uint16_t>(conf.stats_log_ids.size()));
  for (const uint16_t id : conf.stats_log_ids) {
    append(block, id);
  }
  return block;
}

}  // namespace kiv::platform
