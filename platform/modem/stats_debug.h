// What the modem tells of its own statistics framework through the extension service: the debug
// block with the framework's counters, and the ids of the DIAG logs that it cannot read. Built
// once, by the thread that publishes the modem's services.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/modem/modem_conf.h"

namespace kiv::platform {

// The layout version, then the sections main, diag, cm and uim one behind the other.
std::vector<uint8_t> make_stats_debug_block(const ModemConf& conf);

// A 16-bit count, then that many 16-bit log ids.
std::vector<uint8_t> make_stats_log_ids_block(const ModemConf& conf);

}  // namespace kiv::platform
