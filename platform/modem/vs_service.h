// The modem's vendor-specific statistics service: features that are switched on, and measurements
// that are fetched by parameter id and subscription. Called on the threads of its senders, several
// at once; requests are untrusted.
#pragma once

#include <cstdint>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {

inline constexpr uint32_t kVsServiceId = 0xE4;

// Answers parameters whether or not their feature was switched on. The configured indications go
// out with each request that switches the statistics on.
Service make_vs_service(const ModemConf& conf);

}  // namespace kiv::platform
