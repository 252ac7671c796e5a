// What the modem does when it crashes: restart by itself (SSR) or leave a full dump. The choice is
// a system property; before it is changed for a provoked crash, the level found on the device is
// kept in a backup property, so that it can be put back. Also the waits around such a crash.
// Command thread. The properties are untrusted: an unknown level reads as invalid.
#pragma once

#include <cstdint>

// SSR types, as numbers for the modem control services.
enum tervik_modem_ssr_type : int {
  MODEM_RESTART_LEVEL_ID_DEF = 0,      // the backed-up level
  MODEM_RESTART_LEVEL_ID_SSR = 1,      // "ALL_ENABLE"
  MODEM_RESTART_LEVEL_ID_DUMP = 2,     // "ALL_DISABLE"; an empty level reads as this
  MODEM_RESTART_LEVEL_ID_INVALID = 3,  // any other level; reading only
};

// The current type; makes the backup when there is none.
[[nodiscard]] int tervik_get_modem_ssr_type();

// Sets the level of type 0, 1 or 2. Returns 1 when the level property was written, 0 when there
// was nothing to do or the type is none of these.
[[nodiscard]] int tervik_set_modem_ssr_type(uint32_t type);

// Sleeps for `seconds`, or, when that is negative, for the seconds of the property
// "persist.radio.ssr_wait_s" (5 when unset). Returns the seconds that it settled on; below 1 it
// did not sleep.
int tervik_modem_ssr_wait_s(int seconds);
// The same with "persist.radio.modem_wait_s" (3 when unset).
int tervik_modem_wait_s(int seconds);
