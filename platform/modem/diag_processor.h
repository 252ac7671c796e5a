// The modem's DIAG side: what it answers to a command, and what the DIAG library is told about it.
// Called on the threads of the senders; commands are untrusted.
#pragma once

#include "platform/diag/diag_library.h"
#include "platform/modem/modem_conf.h"

namespace kiv::platform {

// The modem that the configuration describes, as the DIAG library sees it.
DiagModem make_diag_modem(const ModemConf& conf);

}  // namespace kiv::platform
