// The measurements that the modem has: by parameter id, the raw bytes that its statistics service
// hands out. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/modem/modem_conf.h"

namespace kiv::platform {

// At most kStatsValueMax bytes; empty when the modem has no such parameter on `sub` (0 or 1), which
// for LTE and NR depends on the subscription's radio technology.
std::vector<uint8_t> read_stats_parameter(const ModemConf& conf, uint32_t sub, uint32_t id);

}  // namespace kiv::platform
