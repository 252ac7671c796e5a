#include "pdc_utils.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "qcril_malloc.h"
#include "qcril_qmi_util.h"
#include "tervik_qmi_client.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_cust.h"
#include "tervik_utils_outcome.h"
#include "tervik_utils_timer.h"

// ---- state and connection ----

pdc_info_s_type& g_pdc_info_ex = *new pdc_info_s_type;

namespace {

using pdc_lock = std::unique_lock<qtimutex::QtiSharedMutex>;

qmi_idl_service_object_type pdc_service() {
  return pdc_get_service_object_internal_v01(1, 18, 6);
}

std::atomic<bool (*)()> g_may_process{[] { return true; }};

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

pdc_req_waiter& waiter_of(int req_type) {
  return g_pdc_info_ex.waiters[static_cast<size_t>(req_type - 1)];
}

// Frees a kind. The holder of get selected goes with the claim: it lives on the requester's stack.
// The mutex is held.
void clear_claim(pdc_req_waiter& waiter) {
  waiter.get_sel_holder = nullptr;
  waiter.is_done = 0;
  waiter.is_handling = 0;
  waiter.is_waiting = 0;
}

}  // namespace

void qmi_pdc_init_pdc_info_ex() {
  {
    const pdc_lock lock(g_pdc_info_ex.mutex);
    for (pdc_req_waiter& waiter : g_pdc_info_ex.waiters) {
      if (waiter.timer_id != 0) {
        // It may have expired just now and be stopped already.
        tervik_timer_stop(waiter.timer_id);
        waiter.timer_id = 0;
      }
      clear_claim(waiter);
      waiter.result = 0;
      waiter.condition.notify_all();
    }
    g_pdc_info_ex.spare_timer_id = 0;
    g_pdc_info_ex.is_pdc_test_handling = 0;
    g_pdc_info_ex.is_pdc_test_waiting = 0;
    g_pdc_info_ex.is_pdc_test_done = 0;
  }
  tervik_log_error("pdc_info init done");
}

int pdc_init_ex(bool (*may_process)()) {
  qmi_pdc_init_pdc_info_ex();
  g_may_process = may_process;
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
  constexpr unsigned long TIMEOUT_S = 5;
  uint32_t* cell = qmi_pdc_request_timer_get_ptr_by_req_type(req_type);
  if (*cell != 0) {
    tervik_log_debug(
        "find the timer is running, will stop it af first, timer_id = %u, req_type = %d", *cell,
        req_type);
    tervik_timer_stop(*cell);
  }
  *cell = tervik_timer_start(qmi_pdc_request_timer_timeout_proc, TIMEOUT_S);
  tervik_log_debug("req_type = %d, timer_id = %u", req_type, *cell);
}

void qmi_pdc_request_timer_stop(int req_type) {
  uint32_t* cell = qmi_pdc_request_timer_get_ptr_by_req_type(req_type);
  tervik_log_debug("req_type = %d, timer_id = %u", req_type, *cell);
  tervik_timer_stop(*cell);
  *cell = 0;
}

uint32_t* qmi_pdc_request_timer_get_ptr_by_req_type(int req_type) {
  const bool has_waiter = req_type >= 1 && req_type <= PDC_REQ_TYPE_COUNT;
  return has_waiter ? &waiter_of(req_type).timer_id : &g_pdc_info_ex.spare_timer_id;
}

uint32_t* qmi_pdc_request_timer_get_ptr_by_timer_id(uint32_t timer_id) {
  auto* const waiter = find_row(g_pdc_info_ex.waiters, &pdc_req_waiter::timer_id, timer_id);
  return waiter != nullptr ? &waiter->timer_id : nullptr;
}

int qmi_pdc_request_timer_get_req_type_by_timer_id(uint32_t timer_id) {
  const auto* const waiter = find_row(g_pdc_info_ex.waiters, &pdc_req_waiter::timer_id, timer_id);
  return waiter != nullptr ? static_cast<int>(waiter - g_pdc_info_ex.waiters.data()) + 1
                           : PDC_REQ_LIST;
}

void qmi_pdc_request_timer_timeout_proc(union sigval value) {
  const auto timer_id = static_cast<uint32_t>(value.sival_int);
  tervik_log_debug("timer_id = %u", timer_id);
  tervik_timer_stop(timer_id);
  const pdc_lock lock(g_pdc_info_ex.mutex);
  for (pdc_req_waiter& waiter : g_pdc_info_ex.waiters) {
    // A result that came first counts.
    if (waiter.is_waiting != 0 && waiter.is_done == 0) {
      tervik_log_debug("%s is waiting, will stop it.", waiter.name);
      waiter.result = PDC_FAILURE;
      waiter.condition.notify_one();
      waiter.is_done = 1;
    }
  }
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

namespace {

// The claim of a kind: it begins with a request and ends with it, however that ends.
class pdc_claim {
 public:
  // Get selected says where its id is to go.
  explicit pdc_claim(int req_type, pdc_config_pdc_info* get_sel_holder = nullptr)
      : req_type_(req_type), waiter_(waiter_of(req_type)) {
    const pdc_lock lock(g_pdc_info_ex.mutex);
    if (waiter_.is_handling == 0) {
      waiter_.get_sel_holder = get_sel_holder;
      waiter_.is_handling = 1;
      number_ = ++waiter_.claim_number;
    }
  }
  ~pdc_claim() {
    const pdc_lock lock(g_pdc_info_ex.mutex);
    if (is_held()) {
      clear_claim(waiter_);
    }
  }
  pdc_claim(const pdc_claim&) = delete;
  pdc_claim& operator=(const pdc_claim&) = delete;

  // True when another request of the kind is in progress.
  [[nodiscard]] bool busy() const { return number_ == 0; }
  // Waits for the indication of the sent request or for its watchdog; the request's result.
  [[nodiscard]] int wait();

 private:
  // A reset of the state takes claims away. The mutex is held.
  bool is_held() const { return waiter_.is_handling != 0 && waiter_.claim_number == number_; }

  const int req_type_;
  pdc_req_waiter& waiter_;
  uint64_t number_ = 0;
};

int pdc_claim::wait() {
  pdc_lock lock(g_pdc_info_ex.mutex);
  if (is_held() && waiter_.is_done == 0) {
    waiter_.is_waiting = 1;
    qmi_pdc_request_timer_start(req_type_);
    if (waiter_.timer_id == 0) {
      // Nothing would end the wait.
      waiter_.result = PDC_FAILURE;
      waiter_.is_done = 1;
    }
    waiter_.condition.wait(lock, [this] { return waiter_.is_done != 0 || !is_held(); });
  }
  if (!is_held()) {
    return PDC_FAILURE;
  }
  if (waiter_.timer_id != 0) {
    // Another kind's watchdog ended this wait; its own is not needed any more.
    qmi_pdc_request_timer_stop(req_type_);
  }
  clear_claim(waiter_);
  return waiter_.result;
}

// Sends a request; the transport's error. The response stays as it is when none comes.
template <typename Message>
[[nodiscard]] qmi_client_error_type send_request(uint16_t msg_id, const Message& message,
                                                 pdc_result_v01& response) {
  constexpr unsigned TIMEOUT_MS = 10000;
  return g_pdc_client.send(msg_id, &message, sizeof(message), &response, sizeof(response),
                           TIMEOUT_MS);
}

// Sends a request; 0 when the modem accepted it, else the number that the log shows.
template <typename Message>
[[nodiscard]] int send_request(uint16_t msg_id, const Message& message) {
  pdc_result_v01 response = {};
  const qmi_client_error_type err = send_request(msg_id, message, response);
  if (err != QMI_NO_ERR || response.result == 0) {
    return err;
  }
  return response.error != 0 ? response.error : response.result;
}

}  // namespace

int pdc_deactivate_config_ex(uint32_t sub, uint32_t config_type) {
  pdc_claim claim(PDC_REQ_DEACT);
  if (claim.busy()) {
    return PDC_BUSY;
  }
  pdc_deactivate_config_req_msg_v01 message = {};
  message.config_type = config_type;
  message.subscription_id_valid = 1;
  message.subscription_id = sub;
  const int err = send_request(QMI_PDC_DEACTIVATE_CONFIG_REQ_V01, message);
  if (err != 0) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "qmi send mssage error for deactivate_config, errno: %d",
                     err);
    return PDC_FAILURE;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_DEACTIVATE_CONFIG_REQ_V01 is sent");
  const int result = claim.wait();
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_DEACTIVATE_CONFIG_REQ_V01 is done");
  return result;
}

int pdc_get_current_config_ex(pdc_config_pdc_info* holder, uint32_t config_type, uint32_t sub) {
  pdc_claim claim(PDC_REQ_GET_SEL, holder);
  if (claim.busy()) {
    return PDC_BUSY;
  }
  pdc_get_selected_config_req_msg_v01 message = {};
  message.config_type = config_type;
  if (config_type <= PDC_CONFIG_TYPE_MODEM_SW_V01) {
    message.subscription_id_valid = 1;
    message.subscription_id = sub;
  }
  pdc_result_v01 response = {};
  const qmi_client_error_type err =
      send_request(QMI_PDC_GET_SELECTED_CONFIG_REQ_V01, message, response);
  const int ril_result = qcril_qmi_util_convert_qmi_response_codes_to_ril_result(err, &response);
  // The RIL takes a service that went away for a success.
  if (err != QMI_NO_ERR || ril_result != 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub,
                     "qmi send message error for get_sel_configs, errno: %d %d", err, ril_result);
    return PDC_FAILURE;
  }
  return claim.wait();
}

int pdc_select_config_ex(const pdc_config_pdc_info* holder, uint32_t config_type, uint32_t sub) {
  pdc_claim claim(PDC_REQ_SEL_CONFIG);
  if (claim.busy()) {
    return PDC_BUSY;
  }
  if (holder->config_id_len > PDC_CONFIG_ID_MAX) {
    tervik_log_print(LOG_CLASS_ERROR, sub, "config_id_len(%d) is invalid, max %d",
                     holder->config_id_len, PDC_CONFIG_ID_MAX);
    return PDC_ID_TOO_LONG;
  }
  pdc_set_selected_config_req_msg_v01 message = {};
  message.new_config_info.config_type = config_type;
  message.new_config_info.config_id_len = holder->config_id_len;
  memcpy(message.new_config_info.config_id, holder->config_id, holder->config_id_len);
  if (config_type == PDC_CONFIG_TYPE_MODEM_SW_V01) {
    message.subscription_id_valid = 1;
    message.subscription_id = sub;
  }
  const int err = send_request(QMI_PDC_SET_SELECTED_CONFIG_REQ_V01, message);
  if (err != 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub,
                     "qmi send message error for set_selected_config, errno: %d", err);
    return PDC_FAILURE;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_SET_SELECTED_CONFIG_REQ_V01 is sent");
  const int result = claim.wait();
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_SET_SELECTED_CONFIG_REQ_V01 is done");
  return result;
}

int pdc_activate_config_ex(uint32_t config_type, uint32_t activation_type, uint32_t sub,
                           uint32_t slot) {
  tervik_log_print(LOG_CLASS_DEBUG, sub,
                   "QMI_PDC_ACTIVATE_CONFIG_REQ_V01 begin, config_type: %d, activation_type: %d, "
                   "sub_id: %d, slot_id: %d",
                   config_type, activation_type, sub, slot);
  pdc_claim claim(PDC_REQ_ACT_CONFIG);
  if (claim.busy()) {
    return PDC_BUSY;
  }
  pdc_activate_config_req_msg_v01 message = {};
  message.config_type = config_type;
  message.activation_type_valid = 1;
  message.activation_type = activation_type;
  if (config_type == PDC_CONFIG_TYPE_MODEM_SW_V01) {
    message.subscription_id_valid = 1;
    message.subscription_id = sub;
    message.slot_id_valid = 1;
    message.slot_id = slot;
  }
  const int err = send_request(QMI_PDC_ACTIVATE_CONFIG_REQ_V01, message);
  if (err != 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "qmi send message error for activate_config, errno: %d",
                     err);
    return PDC_FAILURE;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub,
                   "QMI_PDC_ACTIVATE_CONFIG_REQ_V01 end, config_type: %d, sub_id: %d", config_type,
                   sub);
  if (config_type <= PDC_CONFIG_TYPE_MODEM_SW_V01) {
    tervik_log_print(LOG_CLASS_DEBUG, sub,
                     "There is not the response to PDC_CONFIG_TYPE_MODEM_PLATFORM_V01");
    return PDC_SUCCESS;
  }
  const int result = claim.wait();
  tervik_log_print(LOG_CLASS_DEBUG, sub, "QMI_PDC_ACTIVATE_CONFIG_REQ_V01 is done");
  return result;
}

int pdc_activate_config_ex2(uint32_t config_type, uint32_t sub) {
  return pdc_activate_config_ex(config_type, PDC_ACTIVATION_REGULAR_V01, sub, sub);
}

// ---- indications ----

namespace {

// An indication of this program's table.
struct pdc_indication {
  uint32_t msg_id = 0;
  const char* handler = nullptr;  // in the log
  const char* name = nullptr;     // in "... is received"; null where the handler logs another line
  const char* ignored = nullptr;  // logged when no request waits for the indication
  // Of the kinds that are requested: the waiter, the structure's size as far as it is read, and the
  // result that it tells. The mutex is held.
  int req_type = 0;
  uint32_t record_size = sizeof(pdc_outcome_ind_msg_v01);
  int (*evaluate)(const char* func, const uint8_t* decoded) = nullptr;
};

// The error with which every indication begins.
int evaluate_outcome(const char* func, const uint8_t* decoded) {
  const auto outcome = tervik_qmi_record<pdc_outcome_ind_msg_v01>(decoded);
  if (outcome.indication_error == 0) {
    return PDC_SUCCESS;
  }
  tervik_log_debug_as(func, "QMI error, error code: %d", outcome.indication_error);
  return PDC_FAILURE;
}

int evaluate_activate(const char* func, const uint8_t* decoded) {
  tervik_log_debug_as(func, "entering %s", func);
  return evaluate_outcome(func, decoded);
}

int evaluate_get_selected(const char* func, const uint8_t* decoded) {
  pdc_config_pdc_info* holder = waiter_of(PDC_REQ_GET_SEL).get_sel_holder;
  if (holder == nullptr) {
    tervik_log_debug_as(func, "NULL pointer for get_sel_holder");
    return PDC_FAILURE;
  }
  const int result = evaluate_outcome(func, decoded);
  if (result != PDC_SUCCESS) {
    return result;
  }
  const auto indication = tervik_qmi_record<pdc_get_selected_config_ind_msg_v01>(decoded);
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

constexpr pdc_indication INDICATIONS[] = {
    {.msg_id = QMI_PDC_GET_SELECTED_CONFIG_IND_V01,
     .handler = "qmi_pdc_get_selected_config_ind_hdlr_ex",
     .name = "QMI_PDC_GET_SELECTED_CONFIG_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_GET_SELECTED_CONFIG_REQ_V01",
     .req_type = PDC_REQ_GET_SEL,
     .record_size = sizeof(pdc_get_selected_config_ind_msg_v01),
     .evaluate = evaluate_get_selected},
    {.msg_id = QMI_PDC_SET_SELECTED_CONFIG_IND_V01,
     .handler = "qmi_pdc_select_config_ind_hdlr_ex",
     .name = "QMI_PDC_SET_SELECTED_CONFIG_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_SET_SELECTED_CONFIG_REQ_V01",
     .req_type = PDC_REQ_SEL_CONFIG,
     .evaluate = evaluate_outcome},
    {.msg_id = QMI_PDC_LIST_CONFIGS_IND_V01,
     .handler = "qmi_pdc_list_configs_ind_hdlr_ex",
     .ignored =
         "pdc_list_configs_flag, g_pdc_info_ex.is_pdc_list_handling is not running, do nothing"},
    {.msg_id = QMI_PDC_DELETE_CONFIG_IND_V01,
     .handler = "qmi_pdc_delete_config_ind_hdlr_ex",
     .name = "QMI_PDC_DELETE_CONFIG_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_DELETE_CONFIG_REQ_V01"},
    {.msg_id = QMI_PDC_LOAD_CONFIG_IND_V01,
     .handler = "qmi_pdc_load_config_ind_hdlr_ex",
     .name = "QMI_PDC_LOAD_CONFIG_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_LOAD_CONFIG_REQ_V01"},
    {.msg_id = QMI_PDC_ACTIVATE_CONFIG_IND_V01,
     .handler = "qmi_pdc_activate_config_ind_hdlr_ex",
     .name = "QMI_PDC_ACTIVATE_CONFIG_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_ACTIVATE_CONFIG_REQ_V01",
     .req_type = PDC_REQ_ACT_CONFIG,
     .evaluate = evaluate_activate},
    {.msg_id = QMI_PDC_GET_CONFIG_INFO_IND_V01,
     .handler = "qmi_pdc_get_config_info_ind_hdlr_ex",
     .name = "QMI_PDC_GET_CONFIG_INFO_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_GET_CONFIG_INFO_REQ_V01"},
    {.msg_id = QMI_PDC_GET_DEFAULT_CONFIG_INFO_IND_V01,
     .handler = "tervik_mbn_get_default_config_info_ind_hdlr",
     .name = "QMI_PDC_GET_DEFAULT_CONFIG_INFO_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_GET_DEFAULT_CONFIG_INFO_REQ_V01"},
    {.msg_id = QMI_PDC_DEACTIVATE_CONFIG_IND_V01,
     .handler = "qmi_pdc_deactivate_config_ind_hdlr_ex",
     .name = "QMI_PDC_DEACTIVATE_CONFIG_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_DEACTIVATE_CONFIG_REQ_V01",
     .req_type = PDC_REQ_DEACT,
     .evaluate = evaluate_outcome},
    {.msg_id = QMI_PDC_VALIDATE_CONFIG_IND_V01,
     .handler = "qcril_qmi_pdc_validate_config_ind_hdlr_ex",
     .ignored = "ignore this indication, no pdc_validate_config_req"},
    {.msg_id = QMI_PDC_SET_FEATURE_IND_V01,
     .handler = "qmi_pdc_set_feature_ind_hdlr_ex",
     .name = "QMI_PDC_SET_FEATURE_IND_V01",
     .ignored = "Do nothing, No QMI_PDC_SET_FEATURE_REQ_V01"},
};

unsigned low_32(const void* pointer) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

// The line with which a handler begins. The mutex is held.
void log_received(const pdc_indication& row, const uint8_t* decoded, uint32_t len) {
  if (row.name != nullptr) {
    tervik_log_debug_as(row.handler, "%s is received", row.name);
  } else if (row.msg_id == QMI_PDC_LIST_CONFIGS_IND_V01) {
    tervik_log_debug_as(
        row.handler,
        "pdc_list_configs_flag, %s, ind_data_ptr = 0x%x, ind_data_len = %d, is_pdc_list_handling = "
        "%d",
        row.handler, low_32(decoded), len, waiter_of(PDC_REQ_LIST).is_handling);
  } else {
    tervik_log_debug_as(row.handler, "ind_data_len = %d", len);
  }
}

// What every handler does: stores the result of a claimed kind and wakes its requester.
void handle_indication(const pdc_indication& row, const uint8_t* decoded, uint32_t len) {
  const pdc_lock lock(g_pdc_info_ex.mutex);
  log_received(row, decoded, len);
  if (row.evaluate == nullptr || waiter_of(row.req_type).is_handling == 0) {
    tervik_log_error_as(row.handler, "%s", row.ignored);
    return;
  }
  pdc_req_waiter& waiter = waiter_of(row.req_type);
  if (waiter.is_done != 0) {
    return;  // the result that came first counts
  }
  waiter.result = PDC_FAILURE;
  if (decoded == nullptr) {
    tervik_log_error_as(row.handler, "NULL pointer for ind_data_ptr");
  } else if (len < row.record_size) {
    tervik_log_error_as(row.handler, "ind_data_len(%d) is too short", len);
  } else {
    waiter.result = row.evaluate(row.handler, decoded);
  }
  if (waiter.is_waiting != 0) {
    qmi_pdc_request_timer_stop(row.req_type);
    waiter.condition.notify_one();
  }
  waiter.is_done = 1;
}

}  // namespace

void qmi_pdc_unsol_ind_cb_ex(qmi_client_type user_handle, unsigned int msg_id, void* ind_buf,
                             unsigned int ind_buf_len, void* ind_cb_data) {
  tervik_log_debug("msg_id: 0x%02x, ind_buf = 0x%x, ind_buf_len: %d, ind_cb_data = 0x%x", msg_id,
                   low_32(ind_buf), ind_buf_len, low_32(ind_cb_data));
  if (!g_may_process.load()()) {
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
  if (const auto* row = find_row(INDICATIONS, &pdc_indication::msg_id, msg_id)) {
    handle_indication(*row, indication.c_struct.get(), indication.len);
  }
}

// ---- self-test ----

namespace {

// The flag and the three fields of the self-test. The mutex is held.
void log_test_fields(const char* func, int flag) {
  const pdc_info_s_type& info = g_pdc_info_ex;
  tervik_log_debug_as(func, "flag = %d", flag);
  tervik_log_debug_as(func, "pdc_test, is_pdc_test_handling = %d", info.is_pdc_test_handling);
  tervik_log_debug_as(func, "pdc_test, is_pdc_test_waiting = %d", info.is_pdc_test_waiting);
  tervik_log_debug_as(func, "pdc_test, is_pdc_test_done = %d", info.is_pdc_test_done);
}

}  // namespace

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
  qcril_ptr<int32_t> flag(static_cast<int32_t*>(params));
  if (flag == nullptr) {
    tervik_log_error("params_ptr is NULL");
  } else {
    tervik_log_debug("flag = %d", *flag);
    if (*flag == 1) {
      tervik_pdc_test_rsp(*flag);
      tervik_pdc_test_req(*flag);
    } else {
      tervik_log_error("flag is invalid, do nothing");
      tervik_tell_outcome(-1);
    }
  }
  flag.reset();
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
