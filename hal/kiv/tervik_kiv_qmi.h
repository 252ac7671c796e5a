// Category 12: starts a full or an incremental network scan in the modem, whose results are not
// printed. Command thread.
#pragma once

#include "nas_idl.h"

// The handler of category 12. Returns 0.
int tervik_test_qmi_do(int argc, char** argv);
// Prints the help block of category 12 when `category` is 0 or 12.
void tervik_test_qmi_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_QMI_CATEGORY;

// The scans: 0, or the error of the NAS request. They wait at most 10 s for the response.
[[nodiscard]] int tervik_send_nas_perform_network_scan_req_msg_v01(
    nas_scan_scope_enum_v01 scan_scope);
[[nodiscard]] int tervik_send_nas_perform_incremental_network_scan_req_msg_v01(
    nas_scan_scope_enum_v01 scan_scope);
