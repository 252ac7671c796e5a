// The modem's UIM service: the cards in the two slots and the eUICC that can feed the second one.
// The SIM type that was set last (`uim/sim_type`) and the number of profiles on the eUICC
// (`uim/profiles`) are kept in the state directory; logical channels end with the modem. Called on
// the threads of its senders, several at once; requests are untrusted.
#pragma once

#include <cstdint>

#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {

inline constexpr uint32_t kUimServiceId = 0x0B;

Service make_uim_service(const ModemConf& conf);

}  // namespace kiv::platform
