// Refresh and reactivation of the modem's configuration (MBN) for one or both subscriptions, made
// of PDC requests. Command thread; the debug gate is asked on the QMI framework's thread.
#pragma once

#include <cstdint>

// Subscriptions as a mask: bit 0 and bit 1.

// Connects the PDC client unless it is connected, or anew with `force_init`. 0, or -1.
[[nodiscard]] int tervik_mbn_init(uint8_t force_init);

// Asks the modem to apply the active configuration again. Returns the result of the last request,
// 0 when the arguments are refused.
[[nodiscard]] int tervik_refresh_mbn(uint32_t sub_mask, uint32_t mbn_type);
[[nodiscard]] int tervik_refresh_sw_mbn(uint32_t sub_mask);

// Reads the active configuration, deactivates it, selects it again and activates it. A failed read
// ends it; after a failed deactivation or selection it goes on. Returns the result of the last
// request, -1 when the arguments are refused or the client cannot connect.
[[nodiscard]] int tervik_reactivate_mbn(uint32_t sub_mask, uint32_t mbn_type);
[[nodiscard]] int tervik_reactivate_sw_mbn(uint32_t sub_mask);

// Deactivates a configuration, then has the modem sync its NV items to storage.
void tervik_mbn_deactivate_config(uint32_t sub, uint32_t config_type);
// False when the debug property "persist.radio.all_pdc_no_rsp_count" has the PDC client drop all
// indications.
[[nodiscard]] bool tervik_mbn_debug_all_pdc_no_rsp_count_check();
