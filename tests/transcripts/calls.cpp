#include <cstdio>
#include <initializer_list>
#include <utility>

#include "modem_lyrax_mgr.h"
#include "pdc_utils.h"
#include "tervik_diag_send.h"
#include "tervik_extend_api.h"
#include "tervik_extend_cmn.h"
#include "tervik_extend_nvefs.h"
#include "tervik_kiv_esim_test.h"
#include "tervik_kiv_test_cmn.h"
#include "tervik_mbn_utils.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_timer.h"
#include "tests/support/virtual_time.h"
#include "tests/transcripts/transcript.h"

namespace kiv::test {
namespace {

// The results of calls, which are made in their order.
void show(std::initializer_list<int64_t> results) {
  printf("results:");
  for (const int64_t result : results) printf(" %ld", static_cast<long>(result));
  printf("\n");
}

// ---- utilities ----

void call_properties() {
  char value[TERVIK_TEXT_SIZE];
  const std::string longest(92, 'v');
  show({tervik_get_property_value(nullptr, value, ""), tervik_get_property_value("a", nullptr, ""),
        tervik_get_property_value("a", value, nullptr), tervik_set_property_value(nullptr, ""),
        tervik_set_property_value("a", nullptr),
        tervik_set_property_value("a", (longest + "v").c_str()),
        tervik_set_property_value("a", longest.c_str()),
        tervik_set_property_value("b", "two\nlines"),
        tervik_set_property_value(std::string(300, 'n').c_str(), "cut")});
  tervik_print_property_value(nullptr);
}

void call_text() {
  char out[16];
  const uint8_t byte = 1;
  show({tervik_get_hex_str(nullptr, 16, &byte, 1), tervik_get_hex_str(out, 4, &byte, 1),
        tervik_get_hex_str(out, 16, nullptr, 1)});
  show({tervik_str_cmp(nullptr, nullptr), tervik_str_cmp("a", nullptr),
        tervik_str_cmp("abc", "abd"), tervik_str_cmp("abc", "ab"), tervik_str_cmp("a", "a")});
  // Of a long number each digit's share is cut, and the sum of the shares wraps.
  const std::string zeros(48, '0');
  show({tervik_string_to_int(nullptr), tervik_hex_string_to_int(nullptr),
        tervik_string_to_int("0x"), tervik_string_to_int("0xG1"),
        tervik_string_to_int("0x80000000"), tervik_string_to_int("0xFFFFFFFF"),
        tervik_string_to_int("0x123456789A"), tervik_string_to_int(("0x" + zeros + "7f").c_str())});
}

void call_process() {
  tervik_get_current_pid_info(nullptr);
  for (int times = 0; times < 2; ++times) puts(tervik_get_current_pid_name());
  show({static_cast<int64_t>(tervik_create_pthread("TERV", nullptr, nullptr))});
  tervik_utils_syslog(6, "%s", "fine");
  tervik_utils_syslog(8, "%s", "bad");
  tervik_utils_syslog_err("%s", "error");
}

void call_timers() {
  const auto callback = [](sigval) {};
  show({tervik_timer_start(nullptr, 60), tervik_timer_start(7, nullptr, 9),
        tervik_timer_start(7, callback, 60), tervik_timer_start(7, callback, 60)});
  fail_next_timer_settime();
  show({tervik_timer_stop(7), tervik_timer_stop(7)});
}

// ---- NV items and EFS files ----

void call_nvefs() {
  uint8_t buf[424] = {};
  uint32_t len = 1;
  const std::string path(101, 'p');
  const char* const p = path.c_str();
  show({tervik_nv_read(2, 7233, nullptr, nullptr), tervik_nv_read(2, 551, buf, &len),
        tervik_nv_read(0, 7233, nullptr, nullptr), tervik_nv_read(0, 7233, buf, nullptr)});
  show({tervik_nv_write_ex(2, 550, nullptr, 0), tervik_nv_write_ex(0, 7233, nullptr, 0),
        tervik_nv_write_ex(0, 7233, buf, 425)});
  show({tervik_nv_delete(2, 7233), tervik_nv_delete(1, 7233)});
  show({tervik_efs_read(2, nullptr, 0, nullptr, nullptr),
        tervik_efs_read(0, nullptr, 0, nullptr, nullptr),
        tervik_efs_read(0, p, 101, nullptr, nullptr), tervik_efs_read(0, p, 100, nullptr, nullptr),
        tervik_efs_read(0, p, 100, buf, nullptr)});
  show({tervik_efs_write(2, nullptr, 0, nullptr, 0), tervik_efs_write(1, nullptr, 0, nullptr, 0),
        tervik_efs_write(1, p, 100, nullptr, 0), tervik_efs_write(1, p, 99, nullptr, 0),
        tervik_efs_write(1, p, 99, buf, 102411)});
  show({tervik_efs_delete(2, nullptr, 0), tervik_efs_delete(0, nullptr, 0),
        tervik_efs_delete(0, p, 100)});
}

// The longest that are taken; one identifier needs no subscription.
void call_nvefs_at_limits() {
  uint8_t buf[424] = {};
  uint32_t len = sizeof(buf);
  const std::string path(99, 'p');
  show({tervik_nv_read(2, 550, buf, &len), tervik_nv_write_ex(0, 7232, buf, 424),
        tervik_efs_write(1, path.c_str(), 99, buf, 1), tervik_efs_delete(1, path.c_str(), 99)});
}

// ---- services ----

void call_extension() {
  uint8_t bytes[551] = {};
  int room = 4;
  show({tervik_extend_qmi_send_sync(2, nullptr, 4, bytes, &room),
        tervik_extend_qmi_send_sync(2, bytes, 551, bytes, &room)});
  tervik_extend_qmi_deinit_do();
  tervik_extend_qmi_deinit_do();
  tervik_qmi_lock_init();
}

void call_class_four() {
  uint8_t bytes[508] = {};
  for (const auto& [send, most] :
       {std::pair{&tervik_send_common_qmi_msg, 491U}, {&tervik_common_qmi_req, 499U}}) {
    show({send(31, most + 1, bytes, bytes, nullptr), send(31, 1, nullptr, bytes, nullptr),
          send(31, UINT32_MAX, nullptr, nullptr, nullptr)});
  }
}

void call_cards() {
  show({tervik_setSimType(nullptr)});
  error_cb(nullptr, -3, nullptr);
  error_cb(nullptr, -2, nullptr);
  const uint8_t slot_and_channel[] = {2, 1};
  show({tervik_uim_close_channel(slot_and_channel)});
  const uint8_t states[] = {3, 2};
  map_sim_state(states);
  const uint8_t eid[UIM_EID_SIZE] = {1};
  save_eid_to_efs(eid);
  save_eid_to_efs(eid);
}

void call_network() {
  uint8_t bytes[576] = {};
  show({tervik_send_nas_qmi_req_msg(0x85, nullptr, 576, bytes, 8, 1),
        tervik_send_nas_qmi_req_msg(0x85, bytes, 576, nullptr, 8, 1)});
  tervik_qmi_client_common_empty_unsol_ind_cb(nullptr, 5, nullptr, 0, nullptr);
  tervik_qmi_client_unsol_ind_cb(nullptr, 6, nullptr, 0, nullptr);
  tervik_qmi_client_error_cb(nullptr, -2, nullptr);
}

void call_diag() {
  const auto callback_mode = tervik_diag_cmd_send_with_result_by_callback_mode;
  const auto dci_mode = tervik_diag_cmd_send_with_result_by_dci_mode;
  uint8_t bytes[4097] = {};
  int one = 1;
  int none = 0;
  show({callback_mode(nullptr, 1, 100, bytes, &one), dci_mode(bytes, 4097, 100, bytes, &one),
        callback_mode(bytes, 1, 100, nullptr, &one), dci_mode(bytes, 1, 100, bytes, nullptr),
        callback_mode(bytes, 1, 100, bytes, &none),
        tervik_diag_cmd_send_without_result_start_thread(bytes, 0, 1)});
  tervik_print_data_with_hex(nullptr, 1);
  tervik_print_data_with_hex(bytes, 0);
  tervik_diag_cmd_response_by_callback(bytes, 1, nullptr);
  tervik_diag_cmd_response_by_dci(nullptr, 1, nullptr);
  tervik_diag_cmd_send_without_result_by_callback_mode_thread_proc(nullptr);
  tervik_diag_cmd_send_without_result_by_dci_mode_thread_proc(nullptr);
}

// ---- statistics ----

void call_statistics() {
  const auto add = [](uint32_t type) {
    int32_t id = -1;
    return modem_api_init_client(type, nullptr, nullptr, &id);
  };
  stats_para_data data = {};
  show({modem_lyrax_stats_start(), modem_lyrax_data_get(1, 0x64), modem_lyrax_data_get(2, 0x64),
        modem_lyrax_mcs_trm_asdiv_get(1, nullptr)});
  show({modem_api_init(), add(1), modem_api_get_stats_parameter(0, 0, 1, &data), add(0), add(0),
        modem_api_get_stats_parameter(0, 0, 1, nullptr),
        modem_api_get_stats_parameter(0, 0, 1, &data),
        (modem_api_operational_status_cb(0, 4), add(0)),
        modem_api_set_lyrax_feature_status(10, 2, 1, 1, 1), modem_api_free_client(-1),
        modem_api_free_client(1), modem_api_free_client(0)});
  modem_lyrax_api_deinit();
}

// ---- configurations ----

void call_configurations() {
  tervik_mbn_deactivate_config(2, 0);
  tervik_mbn_deactivate_config(0, 2);
  show({tervik_refresh_mbn(1, 2), tervik_reactivate_mbn(1, 2), tervik_mbn_init(1),
        tervik_mbn_init(1)});
  for (pdc_req_waiter& waiter : g_pdc_info_ex.waiters) waiter.is_waiting = 1;
  qmi_pdc_request_timer_timeout_proc({.sival_int = 77});
}

constexpr Scenario calls(const char* about, void (*scene)()) {
  return {.about = about, .line = nullptr, .scene = scene};
}

constexpr Scenario kCalls[] = {
    calls("properties: null pointers, a value that is too long, names and values that are not kept",
          call_properties),
    calls("texts: null pointers, buffers without room, differences", call_text),
    calls("the process, a thread without routine, lines past the log", call_process),
    calls("timers: no callback, a number that is taken, a stop that fails", call_timers),
    calls("NV items and EFS files: every argument that is refused", call_nvefs),
    calls("NV items and EFS files: the largest arguments", call_nvefs_at_limits),
    calls("extension service: requests that are refused, a second start", call_extension),
    calls("extension service, class 4: requests that are refused", call_class_four),
    calls("cards: nothing to set, callbacks, unknown states, an EID that is stored", call_cards),
    calls("network: null buffers, callbacks", call_network),
    calls("DIAG: arguments that are refused, responses that nobody waits for", call_diag),
    calls("statistics: clients and arguments that are refused", call_statistics),
    calls("configurations: numbers that are refused, a watchdog that nobody knows ends all waits",
          call_configurations),
};

}  // namespace

std::span<const Scenario> call_scenarios() {
  return kCalls;
}

}  // namespace kiv::test
