// The modem's PDC service: which configuration is active, pending and selected on each
// subscription, kept in the state files `pdc/<sub>/active`, `pending` and `selected`. It accepts a
// request at once and tells the outcome in an indication, from a thread of its own that starts
// with the first one. Called on the threads of its senders, several at once; requests and files
// are untrusted.
#pragma once

#include <cstdint>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {

inline constexpr uint32_t kPdcServiceId = 0x24;

Service make_pdc_service(const ModemConf& conf);

}  // namespace kiv::platform
