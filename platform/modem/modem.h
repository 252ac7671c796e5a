// The simulated modem as a whole: its table of services. The bus has it publish them once, before
// the first client looks for a service; nothing of the modem exists before.
#pragma once

namespace kiv::platform {

// Takes every service down and brings it up again, as after a restart of the modem: clients that
// were open stay dead. Any thread, with no service of the modem at work on it.
void restart_modem();

}  // namespace kiv::platform
