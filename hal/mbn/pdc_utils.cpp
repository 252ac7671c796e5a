#include "pdc_utils.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "qcril_malloc.h"
#include "qcril_qmi_util.h"
#include "tervik_qmi_client.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_cust.h"
#include "tervik_utils_timer.h"

pdc_info_s_type& g_pdc_info_ex = *new pdc_info_s_type;

namespace {

constexpr unsigned SEND_TIMEOUT_MS = 10000;
constexpr unsigned long WATCHDOG_TIMEOUT_S = 5;

using pdc_lock = std::unique_lock<qtimutex::QtiSharedMutex>;

qmi_idl_service_object_type pdc_service() {
  return pdc_get_service_object_internal_v01(1, 18, 6);
}

constinit tervik_qmi_client g_pdc_client({
    .service_object = pdc_service,
    .open_timeout_ms = 4,
    .attempts = 20,
    .pause_s = 5,
    .after_attempt =
        [](int attempt, qmi_client_error_type err) {
          constexpr const char* func = "pdc_init_ex";
          if (err == QMI_NO_ERR) {
            tervik_log_debug_as(func, "qmi_client_init succeeds for PDC");
            return;
          }
          tervik_log_error_as(func, "qmi_client_init returned failure (%d) for PDC, retry times %d",
                              err, attempt + 1);
        },
    .ind_cb = qmi_pdc_unsol_ind_cb_ex,
});

// The waiters' names, by request type from 1.
constexpr std::array<const char*, PDC_REQ_TYPE_COUNT> WAITER_NAMES = {
    "pdc_list", "pdc_load",   "pdc_info",   "pdc_deact",   "pdc_del",
    "get_sel",  "sel_config", "act_config", "set_feature", "default_info",
};

bool is_req_type(int req_type) {
  return req_type >= 1 && req_type <= PDC_REQ_TYPE_COUNT;
}

pdc_req_waiter& waiter_of(int req_type) {
  return g_pdc_info_ex.waiters[static_cast<size_t>(req_type - 1)];
}

// ---- one request: claim, send, wait, take the result ----

// Claims a kind; returns the number of the claim, or 0 when the kind is busy. Get selected says
// where its id is to go.
uint32_t claim(int req_type, pdc_config_pdc_info* get_sel_holder = nullptr) {
  const pdc_lock lock(g_pdc_info_ex.mutex);
  pdc_req_waiter& waiter = waiter_of(req_type);
  if (waiter.is_handling != 0) {
    return 0;
  }
  if (req_type == PDC_REQ_GET_SEL) {
    g_pdc_info_ex.get_sel_holder = get_sel_holder;
  }
  waiter.is_handling = 1;
  ++waiter.claim_number;
  waiter.claim_number += waiter.claim_number == 0 ? 1 : 0;
  return waiter.claim_number;
}

// True while the waiter is held by this claim: a reset of the state takes claims away. The mutex
// is held, as in the next.
bool holds(const pdc_req_waiter& waiter, uint32_t claim_number) {
  return waiter.is_handling != 0 && waiter.claim_number == claim_number;
}

// The holder of get selected goes with its claim: it lives on the requester's stack.
void clear_claim(pdc_req_waiter& waiter) {
  if (&waiter == &waiter_of(PDC_REQ_GET_SEL)) {
    g_pdc_info_ex.get_sel_holder = nullptr;
  }
  waiter.is_done = 0;
  waiter.is_handling = 0;
  waiter.is_waiting = 0;
}

// Gives a claim back that will not wait, so that the kind can be requested again.
void drop_claim(int req_type, uint32_t claim_number) {
  const pdc_lock lock(g_pdc_info_ex.mutex);
  pdc_req_waiter& waiter = waiter_of(req_type);
  if (holds(waiter, claim_number)) {
    clear_claim(waiter);
  }
}

// Waits for the indication of a sent request or for its watchdog, and takes the result.
[[nodiscard]] int wait_and_take_result(int req_type, uint32_t claim_number) {
  pdc_lock lock(g_pdc_info_ex.mutex);
  pdc_req_waiter& waiter = waiter_of(req_type);
  if (holds(waiter, claim_number) && waiter.is_done == 0) {
    waiter.is_waiting = 1;
    qmi_pdc_request_timer_start(req_type);
    if (waiter.timer_id == 0) {
      // Nothing would end the wait.
      waiter.result = PDC_FAILURE;
      waiter.is_done = 1;
    }
    waiter.condition.wait(lock, [&waiter, claim_number] {
      return waiter.is_done != 0 || !holds(waiter, claim_number);
    });
  }
  if (!holds(waiter, claim_number)) {
    return PDC_FAILURE;
  }
  if (waiter.timer_id != 0) {
    // Another kind's watchdog ended this wait; its own is not needed any more.
    qmi_pdc_request_timer_stop(req_type);
  }
  const int result = waiter.result;
  clear_claim(waiter);
  return result;
}

// What came back for a send.
struct send_outcome {
  qmi_client_error_type transport = QMI_NO_ERR;
  pdc_result_v01 response = {};

  // 0, or the number that the log shows for the failure.
  int error() const {
    if (transport != QMI_NO_ERR) {
      return transport;
    }
    if (response.result == 0) {
      return 0;
    }
    return response.error != 0 ? response.error : response.result;
  }
};

template <typename Request>
send_outcome send_request(uint16_t msg_id, const Request& request) {
  send_outcome outcome;
  outcome.transport = g_pdc_client.send(msg_id, &request, sizeof(request), &outcome.response,
                                        sizeof(outcome.response), SEND_TIMEOUT_MS);
  return outcome;
}

// ---- one indication: look whether it is wanted, evaluate it, complete its kind ----

// An indication of this program's table.
struct pdc_indication {
  uint16_t msg_id;
  const char* handler;
  const char* name;      // in "... is received"; null where the handler logs another line
  int req_type;          // of the waiter; 0 for none
  uint32_t record_size;  // of a completing indication's structure; 0 for the others
  const char* ignored;   // said when nobody waits for it
  // The result of a completing indication; null for the kinds that are never requested. The first
  // form evaluates without the mutex, the second under it.
  int (*evaluate)(const char* func, const uint8_t* decoded);
  int (*evaluate_locked)(const char* func, const uint8_t* decoded);
};

template <typename Indication>
Indication indication_of(const uint8_t* decoded) {
  Indication indication = {};
  memcpy(&indication, decoded, sizeof(indication));
  return indication;
}

[[nodiscard]] int error_as_result(const char* func, uint32_t error) {
  if (error == 0) {
    return PDC_SUCCESS;
  }
  tervik_log_debug_as(func, "QMI error, error code: %d", error);
  return PDC_FAILURE;
}

// Indications that carry nothing but an error.
template <typename Indication>
int evaluate_plain(const char* func, const uint8_t* decoded) {
  return error_as_result(func, indication_of<Indication>(decoded).indication_error);
}

int evaluate_activate(const char* func, const uint8_t* decoded) {
  tervik_log_debug_as(func, "entering %s", func);
  return evaluate_plain<pdc_activate_config_ind_msg_v01>(func, decoded);
}

int evaluate_get_selected(const char* func, const uint8_t* decoded) {
  pdc_config_pdc_info* holder = g_pdc_info_ex.get_sel_holder;
  if (holder == nullptr) {
    tervik_log_debug_as(func, "NULL pointer for get_sel_holder");
    return PDC_FAILURE;
  }
  const auto indication = indication_of<pdc_get_selected_config_ind_msg_v01>(decoded);
  const int result = error_as_result(func, indication.indication_error);
  if (result != PDC_SUCCESS) {
    return result;
  }
  if (indication.active_config_id_valid == 0) {
    if (indication.pending_config_id_valid != 0) {
      tervik_log_debug_as(func, "has pending configuration");
    }
    return PDC_NO_ACTIVE_CONFIG;
  }
  if (indication.active_config_id_len > PDC_CONFIG_ID_MAX) {
    tervik_log_error_as(func, "active_config_id_len(%d) is invalid, max %d",
                        indication.active_config_id_len, PDC_CONFIG_ID_MAX);
    return PDC_FAILURE;
  }
  holder->config_id_len = indication.active_config_id_len;
  memcpy(holder->config_id, indication.active_config_id, holder->config_id_len);
  return PDC_SUCCESS;
}

constexpr std::array<pdc_indication, 11> INDICATIONS = {{
    {QMI_PDC_GET_SELECTED_CONFIG_IND_V01, "qmi_pdc_get_selected_config_ind_hdlr_ex",
     "QMI_PDC_GET_SELECTED_CONFIG_IND_V01", PDC_REQ_GET_SEL,
     sizeof(pdc_get_selected_config_ind_msg_v01),
     "Do nothing, No QMI_PDC_GET_SELECTED_CONFIG_REQ_V01", nullptr, evaluate_get_selected},
    {QMI_PDC_SET_SELECTED_CONFIG_IND_V01, "qmi_pdc_select_config_ind_hdlr_ex",
     "QMI_PDC_SET_SELECTED_CONFIG_IND_V01", PDC_REQ_SEL_CONFIG,
     sizeof(pdc_set_selected_config_ind_msg_v01),
     "Do nothing, No QMI_PDC_SET_SELECTED_CONFIG_REQ_V01",
     evaluate_plain<pdc_set_selected_config_ind_msg_v01>, nullptr},
    {QMI_PDC_LIST_CONFIGS_IND_V01, "qmi_pdc_list_configs_ind_hdlr_ex", nullptr, PDC_REQ_LIST, 0,
     "pdc_list_configs_flag, g_pdc_info_ex.is_pdc_list_handling is not running, do nothing",
     nullptr, nullptr},
    {QMI_PDC_DELETE_CONFIG_IND_V01, "qmi_pdc_delete_config_ind_hdlr_ex",
     "QMI_PDC_DELETE_CONFIG_IND_V01", PDC_REQ_DEL, 0,
     "Do nothing, No QMI_PDC_DELETE_CONFIG_REQ_V01", nullptr, nullptr},
    {QMI_PDC_LOAD_CONFIG_IND_V01, "qmi_pdc_load_config_ind_hdlr_ex", "QMI_PDC_LOAD_CONFIG_IND_V01",
     PDC_REQ_LOAD, 0, "Do nothing, No QMI_PDC_LOAD_CONFIG_REQ_V01", nullptr, nullptr},
    {QMI_PDC_ACTIVATE_CONFIG_IND_V01, "qmi_pdc_activate_config_ind_hdlr_ex",
     "QMI_PDC_ACTIVATE_CONFIG_IND_V01", PDC_REQ_ACT_CONFIG, sizeof(pdc_activate_config_ind_msg_v01),
     "Do nothing, No QMI_PDC_ACTIVATE_CONFIG_REQ_V01", evaluate_activate, nullptr},
    {QMI_PDC_GET_CONFIG_INFO_IND_V01, "qmi_pdc_get_config_info_ind_hdlr_ex",
     "QMI_PDC_GET_CONFIG_INFO_IND_V01", PDC_REQ_INFO, 0,
     "Do nothing, No QMI_PDC_GET_CONFIG_INFO_REQ_V01", nullptr, nullptr},
    {QMI_PDC_GET_DEFAULT_CONFIG_INFO_IND_V01, "tervik_mbn_get_default_config_info_ind_hdlr",
     "QMI_PDC_GET_DEFAULT_CONFIG_INFO_IND_V01", PDC_REQ_DEFAULT_INFO, 0,
     "Do nothing, No QMI_PDC_GET_DEFAULT_CONFIG_INFO_REQ_V01", nullptr, nullptr},
    {QMI_PDC_DEACTIVATE_CONFIG_IND_V01, "qmi_pdc_deactivate_config_ind_hdlr_ex",
     "QMI_PDC_DEACTIVATE_CONFIG_IND_V01", PDC_REQ_DEACT, sizeof(pdc_deactivate_config_ind_msg_v01),
     "Do nothing, No QMI_PDC_DEACTIVATE_CONFIG_REQ_V01",
     evaluate_plain<pdc_deactivate_config_ind_msg_v01>, nullptr},
    {QMI_PDC_VALIDATE_CONFIG_IND_V01, "qcril_qmi_pdc_validate_config_ind_hdlr_ex", nullptr, 0, 0,
     "ignore this indication, no pdc_validate_config_req", nullptr, nullptr},
    {QMI_PDC_SET_FEATURE_IND_V01, "qmi_pdc_set_feature_ind_hdlr_ex", "QMI_PDC_SET_FEATURE_IND_V01",
     PDC_REQ_SET_FEATURE, 0, "Do nothing, No QMI_PDC_SET_FEATURE_REQ_V01", nullptr, nullptr},
}};

// The line with which a handler begins. The mutex is held.
void log_received(const pdc_indication& row, const uint8_t* decoded, uint32_t len) {
  if (row.name != nullptr) {
    tervik_log_debug_as(row.handler, "%s is received", row.name);
  } else if (row.req_type == PDC_REQ_LIST) {
    tervik_log_debug_as(
        row.handler,
        "pdc_list_configs_flag, %s, ind_data_ptr = 0x%x, ind_data_len = %d, is_pdc_list_handling = "
        "%d",
        row.handler, static_cast<unsigned>(reinterpret_cast<uintptr_t>(decoded)), len,
        waiter_of(PDC_REQ_LIST).is_handling);
  } else {
    tervik_log_debug_as(row.handler, "ind_data_len = %d", len);
  }
}

// Stores the result of a claimed kind and wakes its requester. The mutex is held.
void complete(int req_type, int result) {
  pdc_req_waiter& waiter = waiter_of(req_type);
  waiter.result = result;
  if (waiter.is_waiting != 0) {
    qmi_pdc_request_timer_stop(req_type);
    waiter.condition.notify_one();
  }
  waiter.is_done = 1;
}

// What every handler does. A claim can end while its indication is being evaluated, for example
// when the same indication came twice. Such a claim is not completed, because another request may
// have claimed the kind by then.
void handle_indication(const pdc_indication& row, const uint8_t* decoded, uint32_t len) {
  const char* const func = row.handler;
  pdc_lock lock(g_pdc_info_ex.mutex);
  log_received(row, decoded, len);
  const bool completes = row.evaluate != nullptr || row.evaluate_locked != nullptr;
  if (!completes || waiter_of(row.req_type).is_handling == 0) {
    tervik_log_error_as(func, "%s", row.ignored);
    return;
  }
  const uint32_t claim_number = waiter_of(row.req_type).claim_number;
  lock.unlock();
  int result = PDC_FAILURE;
  const bool readable = decoded != nullptr && len >= row.record_size;
  if (decoded == nullptr) {
    tervik_log_error_as(func, "NULL pointer for ind_data_ptr");
  } else if (!readable) {
    tervik_log_error_as(func, "ind_data_len(%d) is too short", len);
  } else if (row.evaluate != nullptr) {
    result = row.evaluate(func, decoded);
  }
  lock.lock();
  const pdc_req_waiter& waiter = waiter_of(row.req_type);
  if (!holds(waiter, claim_number) || waiter.is_done != 0) {
    return;
  }
  if (readable && row.evaluate_locked != nullptr) {
    result = row.evaluate_locked(func, decoded);
  }
  complete(row.req_type, result);
}

// The waiters whose wait a watchdog ends: all of them. The mutex is held.
void release_all_waiting(const char* func) {
  for (int req_type = 1; req_type <= PDC_REQ_TYPE_COUNT; ++req_type) {
    pdc_req_waiter& waiter = waiter_of(req_type);
    // A result that came first counts.
    if (waiter.is_waiting == 0 || waiter.is_done != 0) {
      continue;
    }
    tervik_log_debug_as(func, "%s is waiting, will stop it.",
                        WAITER_NAMES[static_cast<size_t>(req_type - 1)]);
    waiter.result = PDC_FAILURE;
    waiter.condition.notify_one();
    waiter.is_done = 1;
  }
}

// Takes a waiter's claim away and lets a requester that sleeps on it go. The mutex is held.
void reset_waiter(pdc_req_waiter& waiter) {
  if (waiter.timer_id != 0) {
    // It may have expired just now and be stopped already.
    tervik_timer_stop(waiter.timer_id);
    waiter.timer_id = 0;
  }
  clear_claim(waiter);
  waiter.result = 0;
  waiter.condition.notify_all();
}

// The three fields of the self-test as it shows them. The mutex is held.
void log_test_fields(const char* func, int flag) {
  const auto log = [func](const char* name, uint32_t value) {
    tervik_log_debug_as(func, "pdc_test, %s = %d", name, value);
  };
  tervik_log_debug_as(func, "flag = %d", flag);
  log("is_pdc_test_handling", g_pdc_info_ex.is_pdc_test_handling);
  log("is_pdc_test_waiting", g_pdc_info_ex.is_pdc_test_waiting);
  log("is_pdc_test_done", g_pdc_info_ex.is_pdc_test_done);
}

}  // namespace

// ---- state and connection ----

void qmi_pdc_init_pdc_info_ex() {
  {
    const pdc_lock lock(g_pdc_info_ex.mutex);
    for (pdc_req_waiter& waiter : g_pdc_info_ex.waiters) {
      reset_waiter(waiter);
    }
    g_pdc_info_ex.spare_timer_id = 0;
    g_pdc_info_ex.is_pdc_test_handling = 0;
    g_pdc_info_ex.is_pdc_test_waiting = 0;
    g_pdc_info_ex.is_pdc_test_done = 0;
  }
  tervik_log_error("pdc_info init done");
}

int pdc_init_ex() {
  qmi_pdc_init_pdc_info_ex();
  return g_pdc_client.open(TERVIK_LOG_PLACE) == QMI_NO_ERR ? PDC_SUCCESS : PDC_FAILURE;
}

void pdc_clean_ex() {
  if (g_pdc_client.handle() != nullptr) {
    tervik_log_debug("Release client connection to PDC");
    // An unknown handle is gone already.
    static_cast<void>(g_pdc_client.release());
  }
}

// ---- watchdogs ----

void qmi_pdc_request_timer_start(int req_type) {
  uint32_t* cell = qmi_pdc_request_timer_get_ptr_by_req_type(req_type);
  if (*cell != 0) {
    tervik_log_debug(
        "find the timer is running, will stop it af first, timer_id = %u, req_type = %d", *cell,
        req_type);
    tervik_timer_stop(*cell);
  }
  *cell = tervik_timer_start(qmi_pdc_request_timer_timeout_proc, WATCHDOG_TIMEOUT_S);
  tervik_log_debug("req_type = %d, timer_id = %u", req_type, *cell);
}

void qmi_pdc_request_timer_stop(int req_type) {
  uint32_t* cell = qmi_pdc_request_timer_get_ptr_by_req_type(req_type);
  tervik_log_debug("req_type = %d, timer_id = %u", req_type, *cell);
  tervik_timer_stop(*cell);
  *cell = 0;
}

uint32_t* qmi_pdc_request_timer_get_ptr_by_req_type(int req_type) {
  return is_req_type(req_type) ? &waiter_of(req_type).timer_id : &g_pdc_info_ex.spare_timer_id;
}

uint32_t* qmi_pdc_request_timer_get_ptr_by_timer_id(uint32_t timer_id) {
  const auto waiter =
      std::find_if(g_pdc_info_ex.waiters.begin(), g_pdc_info_ex.waiters.end(),
                   [timer_id](const pdc_req_waiter& each) { return each.timer_id == timer_id; });
  return waiter != g_pdc_info_ex.waiters.end() ? &waiter->timer_id : nullptr;
}

int qmi_pdc_request_timer_get_req_type_by_timer_id(uint32_t timer_id) {
  for (int req_type = 1; req_type <= PDC_REQ_TYPE_COUNT; ++req_type) {
    if (waiter_of(req_type).timer_id == timer_id) {
      return req_type;
    }
  }
  return PDC_REQ_LIST;
}

void qmi_pdc_request_timer_timeout_proc(union sigval value) {
  const auto timer_id = static_cast<uint32_t>(value.sival_int);
  tervik_log_debug("timer_id = %u", timer_id);
  tervik_timer_stop(timer_id);
  const pdc_lock lock(g_pdc_info_ex.mutex);
  release_all_waiting(__func__);
  uint32_t* cell = qmi_pdc_request_timer_get_ptr_by_timer_id(timer_id);
  if (cell == nullptr) {
    tervik_log_error("not find this timer_id(%u)", timer_id);
    return;
  }
  const int req_type = qmi_pdc_request_timer_get_req_type_by_timer_id(timer_id);
  *cell = 0;
  tervik_log_debug("reset this timer_id(%u), req_type = %d.", timer_id, req_type);
}

// ---- requests ----

int pdc_deactivate_config_ex(uint32_t sub, uint32_t config_type) {
  const uint32_t claim_number = claim(PDC_REQ_DEACT);
  if (claim_number == 0) {
    return PDC_BUSY;
  }
  pdc_deactivate_config_req_msg_v01 request = {};
  request.config_type = config_type;
  request.subscription_id_valid = 1;
  request.subscription_id = sub;
  const int err = send_request(QMI_PDC_DEACTIVATE_CONFIG_REQ_V01, request).error();
  if (err != 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "qmi send mssage error for deactivate_config, errno: %d",
                     err);
    drop_claim(PDC_REQ_DEACT, claim_number);
    return PDC_FAILURE;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_DEACTIVATE_CONFIG_REQ_V01 is sent");
  const int result = wait_and_take_result(PDC_REQ_DEACT, claim_number);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_DEACTIVATE_CONFIG_REQ_V01 is done");
  return result;
}

int pdc_get_current_config_ex(pdc_config_pdc_info* holder, uint32_t config_type, uint32_t sub) {
  const uint32_t claim_number = claim(PDC_REQ_GET_SEL, holder);
  if (claim_number == 0) {
    return PDC_BUSY;
  }
  pdc_get_selected_config_req_msg_v01 request = {};
  request.config_type = config_type;
  if (config_type <= PDC_CONFIG_TYPE_MODEM_SW_V01) {
    request.subscription_id_valid = 1;
    request.subscription_id = sub;
  }
  const send_outcome outcome = send_request(QMI_PDC_GET_SELECTED_CONFIG_REQ_V01, request);
  const qcril_qmi_response response = {outcome.response.result, outcome.response.error};
  const int ril_result = qcril_qmi_util_convert_qmi_response_codes_to_ril_result(
      outcome.transport, outcome.transport == QMI_NO_ERR ? &response : nullptr);
  // A service that went away has no response to convert.
  if (ril_result != 0 || outcome.transport != QMI_NO_ERR) {
    drop_claim(PDC_REQ_GET_SEL, claim_number);
    tervik_log_print(LOG_CLASS_DEBUG, sub,
                     "qmi send message error for get_sel_configs, errno: %d %d", outcome.transport,
                     ril_result);
    return PDC_FAILURE;
  }
  return wait_and_take_result(PDC_REQ_GET_SEL, claim_number);
}

int pdc_select_config_ex(const pdc_config_pdc_info* holder, uint32_t config_type, uint32_t sub) {
  const uint32_t claim_number = claim(PDC_REQ_SEL_CONFIG);
  if (claim_number == 0) {
    return PDC_BUSY;
  }
  if (holder->config_id_len > PDC_CONFIG_ID_MAX) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "config_id_len(%d) is invalid, max %d",
                     holder->config_id_len, PDC_CONFIG_ID_MAX);
    drop_claim(PDC_REQ_SEL_CONFIG, claim_number);
    return PDC_ID_TOO_LONG;
  }
  pdc_set_selected_config_req_msg_v01 request = {};
  request.new_config_info.config_type = config_type;
  request.new_config_info.config_id_len = holder->config_id_len;
  memcpy(request.new_config_info.config_id, holder->config_id, holder->config_id_len);
  if (config_type == PDC_CONFIG_TYPE_MODEM_SW_V01) {
    request.subscription_id_valid = 1;
    request.subscription_id = sub;
  }
  const int err = send_request(QMI_PDC_SET_SELECTED_CONFIG_REQ_V01, request).error();
  if (err != 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub,
                     "qmi send message error for set_selected_config, errno: %d", err);
    drop_claim(PDC_REQ_SEL_CONFIG, claim_number);
    return PDC_FAILURE;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_SET_SELECTED_CONFIG_REQ_V01 is sent");
  const int result = wait_and_take_result(PDC_REQ_SEL_CONFIG, claim_number);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_SET_SELECTED_CONFIG_REQ_V01 is done");
  return result;
}

int pdc_activate_config_ex(uint32_t config_type, uint32_t activation_type, uint32_t sub,
                           uint32_t slot) {
  tervik_log_print(LOG_CLASS_DEBUG, sub,
                   "QMI_PDC_ACTIVATE_CONFIG_REQ_V01 begin, config_type: %d, activation_type: %d, "
                   "sub_id: %d, slot_id: %d",
                   config_type, activation_type, sub, slot);
  const uint32_t claim_number = claim(PDC_REQ_ACT_CONFIG);
  if (claim_number == 0) {
    return PDC_BUSY;
  }
  pdc_activate_config_req_msg_v01 request = {};
  request.config_type = config_type;
  request.activation_type_valid = 1;
  request.activation_type = activation_type;
  if (config_type == PDC_CONFIG_TYPE_MODEM_SW_V01) {
    request.subscription_id_valid = 1;
    request.subscription_id = sub;
    request.slot_id_valid = 1;
    request.slot_id = slot;
  }
  const int err = send_request(QMI_PDC_ACTIVATE_CONFIG_REQ_V01, request).error();
  if (err != 0) {
    drop_claim(PDC_REQ_ACT_CONFIG, claim_number);
    tervik_log_print(LOG_CLASS_DEBUG, sub, "qmi send message error for activate_config, errno: %d",
                     err);
    return PDC_FAILURE;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub,
                   "QMI_PDC_ACTIVATE_CONFIG_REQ_V01 end, config_type: %d, sub_id: %d", config_type,
                   sub);
  if (config_type <= PDC_CONFIG_TYPE_MODEM_SW_V01) {
    drop_claim(PDC_REQ_ACT_CONFIG, claim_number);
    tervik_log_print(LOG_CLASS_DEBUG, sub,
                     "There is not the response to PDC_CONFIG_TYPE_MODEM_PLATFORM_V01");
    return PDC_SUCCESS;
  }
  const int result = wait_and_take_result(PDC_REQ_ACT_CONFIG, claim_number);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_ACTIVATE_CONFIG_REQ_V01 is done");
  return result;
}

int pdc_activate_config_ex2(uint32_t config_type, uint32_t sub) {
  return pdc_activate_config_ex(config_type, PDC_ACTIVATION_REGULAR_V01, sub, sub);
}

// ---- indications ----

void qmi_pdc_unsol_ind_cb_ex(qmi_client_type user_handle, unsigned int msg_id, void* ind_buf,
                             unsigned int ind_buf_len, void* ind_cb_data) {
  const auto low = [](const void* pointer) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
  };
  tervik_log_debug("msg_id: 0x%02x, ind_buf = 0x%x, ind_buf_len: %d, ind_cb_data = 0x%x", msg_id,
                   low(ind_buf), ind_buf_len, low(ind_cb_data));
  if (!tervik_mbn_debug_all_pdc_no_rsp_count_check()) {
    tervik_log_error("tervik_mbn_debug_all_pdc_no_rsp_count_check fail");
    return;
  }
  const tervik_qmi_indication indication =
      tervik_qmi_decode_indication(pdc_service(), user_handle, msg_id, ind_buf, ind_buf_len);
  if (indication.len == 0) {
    tervik_log_error("failed to get message c_struct len");
    return;
  }
  if (indication.c_struct == nullptr) {
    tervik_log_debug("failed to allocate memory for payload");
    return;
  }
  if (indication.err != QMI_NO_ERR) {
    tervik_log_debug("failed to decode qmi message, msg_id: 0x%02x", msg_id);
    return;
  }
  const auto row =
      std::find_if(INDICATIONS.begin(), INDICATIONS.end(),
                   [msg_id](const pdc_indication& each) { return each.msg_id == msg_id; });
  if (row != INDICATIONS.end()) {
    handle_indication(*row, indication.c_struct.get(), indication.len);
  }
}

// ---- self-test ----

void tervik_pdc_test_wait_notify(int flag) {
  tervik_qcril_start_pdc_test_thread(flag);
}

void tervik_qcril_start_pdc_test_thread(int flag) {
  constexpr int NOTIFY_AFTER_S = 10;
  constexpr int END_AFTER_S = 1000;
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_log_debug("flag = %d", flag);
  auto params = qcril_make<int32_t>(__func__, __LINE__);
  if (params == nullptr) {
    tervik_log_error("No memory for params_ptr");
  } else {
    *params = flag;
    if (tervik_create_pthread("PDC_TEST", tervik_qcril_pdc_test_thread_proc, params.get()) != 0) {
      static_cast<void>(params.release());  // the worker's now
    }
    tervik_modem_wait_s(NOTIFY_AFTER_S);
    if (flag == 1) {
      tervik_pdc_test_rsp(flag);
    }
  }
  tervik_modem_wait_s(END_AFTER_S);
}

void* tervik_qcril_pdc_test_thread_proc(void* params) {
  constexpr int LINGER_S = 3;
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  {
    const qcril_ptr<int32_t> owned(static_cast<int32_t*>(params));
    if (owned == nullptr) {
      tervik_log_error("params_ptr is NULL");
    } else {
      const int flag = *owned;
      tervik_log_debug("flag = %d", flag);
      if (flag == 1) {
        tervik_pdc_test_rsp(flag);
        tervik_pdc_test_req(flag);
      } else {
        tervik_log_error("flag is invalid, do nothing");
      }
    }
  }
  tervik_modem_wait_s(LINGER_S);
  return nullptr;
}

// Waits for one notification and looks at no flag: that a notification before the wait is lost is
// what the test shows.
void tervik_pdc_test_req(int flag) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  pdc_lock lock(g_pdc_info_ex.mutex);
  log_test_fields(__func__, flag);
  tervik_log_debug("pdc_test, wait ...");
  g_pdc_info_ex.test_condition.wait(lock);
  tervik_log_debug("pdc_test, wait end");
}

void tervik_pdc_test_rsp(int flag) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  const pdc_lock lock(g_pdc_info_ex.mutex);
  log_test_fields(__func__, flag);
  tervik_log_debug("pdc_test, notify_one");
  g_pdc_info_ex.test_condition.notify_one();
}
