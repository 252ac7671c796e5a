// The modem's vendor extension service: one request message that carries NV items, EFS files and
// the common requests. Called on the threads of its senders, several at once; every byte of a
// request is untrusted.
#pragma once

#include <cstdint>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {

inline constexpr uint32_t kExtensionServiceId = 0xFFE4;

// A service for the bus, with a state of its own (EFS files that are being written).
Service make_extension_service(const ModemConf& conf);

}  // namespace kiv::platform
