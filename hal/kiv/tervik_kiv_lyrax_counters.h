// The debug counters of the modem's statistics framework, in the order in which they follow each
// other in the debug block. Rows alone; tervik_kiv_lyrax_unpk prints them.
#pragma once

#include <array>
#include <cstdint>
#include <span>

// A counter: its name, its bytes and the first layout version that has it.
struct debug_counter {
  const char* name = nullptr;
  uint8_t size = 0;
  uint8_t from_version = 0;
};

inline constexpr std::array<debug_counter, 10> MAIN_COUNTERS = {{
    {"g_modem_stats_feature_enable_status", 1},
    {"g_unpk_version_not_support_num", 8},
    {"g_modem_stats_cmd_ok_count", 8},
    {"g_modem_stats_cmd_fail_count", 8},
    {"lyrax_system_heapi_mem_max_num", 8, 2},
    {"lyrax_system_heapi_mem_cur_num", 8, 2},
    {"modem_statsi_cmd_q_count", 4, 2},
    {"modem_statsi_cmd_free_q_count", 4, 2},
    {"g_lyrax_log_mask", 4, 4},
    {"g_lyrax_log_stats_mask", 4, 4},
}};

inline constexpr std::array<debug_counter, 22> DIAG_COUNTERS = {{
    {"init_state", 1},
    {"listener_event_num", 4},
    {"listener_event_state", 1},
    {"listener_event_call_num", 4},
    {"listener_event_parse_num", 4},
    {"listener_log_num", 4},
    {"listener_log_state", 1},
    {"listener_log_call_num", 8},
    {"listener_log_parse_num", 8},
    {"poll_update_call_num", 4},
    {"poll_update_parse_num", 4},
    {"listener_event_callback_num", 8, 1},
    {"listener_log_callback_num", 8, 1},
    {"lte_cell_id_invalid_num", 4, 1},
    {"nr5g_cell_id_invalid_num", 4, 1},
    {"event_duration_ms_max", 4, 2},
    {"log_duration_ms_max", 4, 2},
    {"do_duration_ms_max", 4, 2},
    {"debug_call_num", 4, 2},
    {"debug_parse_num", 4, 2},
    {"cust_event_call_num", 4, 3},
    {"cust_event_parse_num", 4, 3},
}};

inline constexpr std::array<debug_counter, 16> CM_COUNTERS = {{
    {"init_state", 1},
    {"listener_state", 1},
    {"listener_call_event_call_num", 4},
    {"listener_call_event_parse_num", 4},
    {"listener_subs_event_call_num", 4},
    {"listener_subs_event_parse_num", 4},
    {"listener_ss_event_call_num", 4},
    {"listener_ss_event_parse_num", 4},
    {"listener_stats_event_call_num", 4},
    {"listener_stats_event_parse_num", 4},
    {"poll_update_rf_call_num", 4},
    {"poll_update_rf_parse_num", 4},
    {"poll_update_lte_call_num", 4},
    {"poll_update_lte_parse_num", 4},
    {"poll_update_nr5g_call_num", 4},
    {"poll_update_nr5g_parse_num", 4},
}};

inline constexpr std::array<debug_counter, 4> UIM_COUNTERS = {{
    {"init_state", 1},
    {"listener_state", 1},
    {"listener_event_call_num", 4},
    {"listener_event_parse_num", 4},
}};
