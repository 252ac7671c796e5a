// The modem's NAS service: it takes the network scans that clients ask for and finds nothing.
// Called on the threads of its senders; requests are untrusted.
#pragma once

#include <cstdint>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {

inline constexpr uint32_t kNasServiceId = 0x03;

Service make_nas_service(const ModemConf& conf);

}  // namespace kiv::platform
