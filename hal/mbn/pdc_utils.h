// The modem's persistent device configuration (PDC) service. A request is answered twice: by a
// response that says it was accepted, and by an indication that carries the outcome; the state here
// joins the two. Requests come from the command's thread, indications from the QMI framework's,
// watchdogs from timer threads, the self-test of the waiting from a worker; all meet under one
// mutex. Indications are untrusted.
#pragma once

#include <array>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "pdc_idl.h"
#include "qmi_client.h"
#include "qti_shared_mutex.h"

inline constexpr uint32_t PDC_CONFIG_ID_MAX = 124;

// A configuration id: its length, then its bytes, not terminated.
struct pdc_config_pdc_info {
  uint32_t config_id_len;
  uint8_t config_id[PDC_CONFIG_ID_MAX];
};
static_assert(sizeof(pdc_config_pdc_info) == 128);

// Kinds of requests, by number: the list, which is never asked for, and those that are made.
enum pdc_req_type : int {
  PDC_REQ_LIST = 1,
  PDC_REQ_DEACT = 4,
  PDC_REQ_GET_SEL = 6,
  PDC_REQ_SEL_CONFIG = 7,
  PDC_REQ_ACT_CONFIG = 8,
};
inline constexpr int PDC_REQ_TYPE_COUNT = 10;

// Results of requests.
inline constexpr int PDC_SUCCESS = 0;
inline constexpr int PDC_FAILURE = -1;  // send error, QMI error or time-out
inline constexpr int PDC_BUSY = -2;     // a request of this kind is in progress
inline constexpr int PDC_ID_TOO_LONG = -4;
inline constexpr int PDC_NO_ACTIVE_CONFIG = -6;

// What a requester of one kind and its indication share.
struct pdc_req_waiter {
  const char* name;  // in the log
  std::condition_variable_any condition{};
  uint32_t is_handling = 0;  // from the claim until the result has been taken
  uint32_t is_waiting = 0;   // while the requester sleeps
  uint32_t is_done = 0;      // a result is there
  int32_t result = 0;
  pdc_config_pdc_info* get_sel_holder = nullptr;  // where get selected puts the active id
  uint32_t timer_id = 0;                          // the running watchdog
  uint64_t claim_number = 0;                      // tells the claims of one kind apart
};

// All of it under `mutex`.
struct pdc_info_s_type {
  qtimutex::QtiSharedMutex mutex{"g_pdc_info_ex"};
  // By request type, from 1.
  std::array<pdc_req_waiter, PDC_REQ_TYPE_COUNT> waiters = {{
      {"pdc_list"},
      {"pdc_load"},
      {"pdc_info"},
      {"pdc_deact"},
      {"pdc_del"},
      {"get_sel"},
      {"sel_config"},
      {"act_config"},
      {"set_feature"},
      {"default_info"},
  }};
  uint32_t spare_timer_id = 0;  // of every type outside 1 to 10
  std::condition_variable_any test_condition;
  uint32_t is_pdc_test_handling = 0;
  uint32_t is_pdc_test_waiting = 0;
  uint32_t is_pdc_test_done = 0;
};

// Never destroyed: timer and framework threads may come while the process exits.
extern pdc_info_s_type& g_pdc_info_ex;

// ---- state and connection ----

// Clears every waiter and the test's fields.
void qmi_pdc_init_pdc_info_ex();
// Resets the state and connects: at most 20 attempts, 5 s apart. 0, or -1. `may_process` is the MBN
// layer's tervik_mbn_debug_all_pdc_no_rsp_count_check: asked before an indication is looked at,
// false when indications are to be dropped. Framework thread.
[[nodiscard]] int pdc_init_ex(bool (*may_process)());
// Releases the client if there is one.
void pdc_clean_ex();

// ---- watchdogs of 5 s; the mutex is held ----

void qmi_pdc_request_timer_start(int req_type);
void qmi_pdc_request_timer_stop(int req_type);
// The cell that holds the watchdog of a type; the spare one for types outside 1 to 10.
[[nodiscard]] uint32_t* qmi_pdc_request_timer_get_ptr_by_req_type(int req_type);
// The cell that holds this timer, or null; its type, or 1 when none holds it.
[[nodiscard]] uint32_t* qmi_pdc_request_timer_get_ptr_by_timer_id(uint32_t timer_id);
[[nodiscard]] int qmi_pdc_request_timer_get_req_type_by_timer_id(uint32_t timer_id);
// The watchdog: `value.sival_int` is the timer. Gives every kind that waits the result -1, not only
// the timer's own. Takes the mutex. Timer thread.
void qmi_pdc_request_timer_timeout_proc(union sigval value);

// ---- requests: 0 or one of the results above ----

[[nodiscard]] int pdc_deactivate_config_ex(uint32_t sub, uint32_t config_type);
// Fills `holder` with the active configuration's id.
[[nodiscard]] int pdc_get_current_config_ex(pdc_config_pdc_info* holder, uint32_t config_type,
                                            uint32_t sub);
// Selects the configuration whose id is in `holder`.
[[nodiscard]] int pdc_select_config_ex(const pdc_config_pdc_info* holder, uint32_t config_type,
                                       uint32_t sub);
// Types 0 and 1 do not wait for their indication.
[[nodiscard]] int pdc_activate_config_ex(uint32_t config_type, uint32_t activation_type,
                                         uint32_t sub, uint32_t slot);
[[nodiscard]] int pdc_activate_config_ex2(uint32_t config_type, uint32_t sub);

// The indication callback. Framework thread.
void qmi_pdc_unsol_ind_cb_ex(qmi_client_type user_handle, unsigned int msg_id, void* ind_buf,
                             unsigned int ind_buf_len, void* ind_cb_data);

// ---- self-test of waiting and notifying: the outcome is in the log; takes 1010 s ----

void tervik_pdc_test_wait_notify(int flag);
void tervik_qcril_start_pdc_test_thread(int flag);
void* tervik_qcril_pdc_test_thread_proc(void* params);
void tervik_pdc_test_req(int flag);
void tervik_pdc_test_rsp(int flag);
