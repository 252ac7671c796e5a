// The modem's SAR service: the RF state (DSI) that selects its RF exposure back-off table, kept in
// the state file `sar/dsi`. Called on the threads of its senders; requests are untrusted.
#pragma once

#include <cstdint>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {

inline constexpr uint32_t kSarServiceId = 0x11;

Service make_sar_service(const ModemConf& conf);

}  // namespace kiv::platform
