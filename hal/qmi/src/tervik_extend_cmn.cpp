#include "tervik_extend_cmn.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "nas_idl.h"
#include "qcril_malloc.h"
#include "sar_idl.h"
#include "tervik_extend_api.h"
#include "tervik_extend_nvefs.h"
#include "tervik_qmi_client.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_cust.h"
#include "tervik_utils_outcome.h"
#include "uim_idl.h"

// ---- common messages and requests: class 4 of the extension service ----

namespace {

// Body of a common request. Little-endian.
struct common_req_body {
  uint32_t type;
  uint32_t unused_4;
  uint8_t data[504];
};
static_assert(sizeof(common_req_body) == sizeof(tervik_common_request));
static_assert(offsetof(common_req_body, data) == 8);

// Sends `body` with `len` bytes of data behind its own fields, unless the arguments are wrong.
template <typename Body>
[[nodiscard]] int send_with_data(const char* func, Body body, unsigned max_len, unsigned len,
                                 const void* data, void* rsp, int* rsp_len) {
  if (rsp == nullptr || len > max_len || (len != 0 && data == nullptr)) {
    tervik_log_debug_as(func, "%s",
                        rsp == nullptr  ? "rsp is NULL"
                        : len > max_len ? "l is out of range"
                                        : "v is null");
    return TERVIK_ERR_INVALID_INPUT;
  }
  if (len != 0) {
    memcpy(body.data, data, len);
  }
  return tervik_send_class_4(func, &body, rsp, rsp_len);
}

}  // namespace

int tervik_send_class_4(const char* func, const void* body, void* rsp, int* rsp_len, int rsp_min) {
  memset(rsp, 0, sizeof(tervik_common_response));
  int received = sizeof(tervik_common_response);
  int result = tervik_extend_qmi_send_sync(REQUEST_ID_COMMON, static_cast<const uint8_t*>(body),
                                           sizeof(tervik_common_request),
                                           static_cast<uint8_t*>(rsp), &received);
  if (result == TERVIK_EXTEND_SUCCESS && received < rsp_min) {
    tervik_log_error_as(func, "qmi response of %d bytes is too short", received);
    memset(rsp, 0, sizeof(tervik_common_response));
    result = TERVIK_EXTEND_SEND_FAILED;
  }
  if (rsp_len != nullptr) {
    *rsp_len = result == TERVIK_EXTEND_SUCCESS ? received : 0;
  }
  return result;
}

int tervik_send_common_qmi_msg(int type, unsigned len, const void* data, void* rsp, int* rsp_len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_log_debug("t %d", type);
  if (rsp != nullptr) {
    tervik_log_debug("l %d", len);
  }
  tervik_common_request request = {};
  request.always_2 = 2;
  request.type = static_cast<uint32_t>(type);
  request.data_len = len;
  return send_with_data(__func__, request, TERVIK_COMMON_DATA_MAX, len, data, rsp, rsp_len);
}

int tervik_common_qmi_req(int type, unsigned len, const void* data, void* rsp, int* rsp_len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  common_req_body request = {};
  request.type = static_cast<uint32_t>(type);
  return send_with_data(__func__, request, TERVIK_COMMON_REQ_DATA_MAX, len, data, rsp, rsp_len);
}

// ---- restart, crash, NV synchronisation ----

namespace {

constexpr uint32_t NON_MASK_FLAG = 0x80000000;

// The restart types that a mask can name and that are counted: bits 0 to 8 and 16 to 19.
constexpr uint32_t COUNTED_SSR_TYPES = 0x000F01FF;

// Counts a restart and sends its message; logs and returns both results, the modem's in `rsp`.
[[nodiscard]] int send_restart(const char* func, int type, int flag, tervik_common_response* rsp) {
  tervik_save_modem_ssr_count(flag);
  const int result =
      tervik_qmi_result_map(tervik_send_common_qmi_msg(type, sizeof(flag), &flag, rsp));
  tervik_log_debug_as(func, "result = %d, rsp.result = %d", result, rsp->result);
  tervik_tell_outcome(result != 0 ? result : rsp->result);
  return result;
}

// Waits around a crash whose restart type was changed. False when the operator's property says to
// stop.
[[nodiscard]] bool wait_unless_stopped(const char* func, const char* reason) {
  tervik_log_debug_as(func, "ssr type is changed, need to wait %s", reason);
  const bool stopped = tervik_modem_ssr_wait_s(-1) < 0;
  if (stopped) {
    tervik_log_error_as(func, "wait_s < 0, ssr is stoped");
    tervik_tell_outcome(-1);
  }
  return !stopped;
}

int sync_nv(const char* func) {
  tervik_common_response rsp = {};
  const int ret_sync = tervik_send_common_qmi_msg(TERVIK_COMMON_NV_SYNC, 0, nullptr, &rsp);
  tervik_log_debug_as(func, "tervik_send_common_qmi_msg, ret_sync: %d, rsp.result: %d", ret_sync,
                      rsp.result);
  tervik_tell_outcome(ret_sync != 0 ? ret_sync : rsp.result);
  return ret_sync | rsp.result;
}

}  // namespace

void tervik_save_modem_ssr_count(int flag) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  const auto bits = static_cast<uint32_t>(flag);
  tervik_log_debug("flag = 0x%08X", bits);
  if ((bits & NON_MASK_FLAG) != 0) {
    tervik_log_debug("non-mask ssr type, flag = 0x%08X", bits);
    tervik_update_modem_ssr_count(flag);
    return;
  }
  for (uint32_t type = 1; type < NON_MASK_FLAG; type <<= 1) {
    if ((bits & COUNTED_SSR_TYPES & type) != 0) {
      tervik_update_modem_ssr_count(static_cast<int>(type));
    }
  }
}

void tervik_update_modem_ssr_count(int type) {
  char name[TERVIK_TEXT_SIZE];
  snprintf(name, sizeof(name), "persist.radio.ssr_count_0x%08x", static_cast<unsigned>(type));
  int count = 0;
  tervik_get_property_value_from_int(name, &count, 0);
  tervik_log_debug("ssr_type = 0x%08X, ssr_count_old = %d", static_cast<unsigned>(type), count);
  // A counter that cannot be written shows in the property trace; the restart goes on. The sum
  // wraps, whatever text the property held.
  static_cast<void>(
      tervik_set_property_value_to_int(name, static_cast<int>(static_cast<unsigned>(count) + 1)));
}

void tervik_modem_ssr(int flag) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_log_debug("flag = 0x%08X", static_cast<unsigned>(flag));
  tervik_common_response rsp = {};
  // Both results are in the log, which is all that the operator is told.
  static_cast<void>(send_restart(__func__, TERVIK_COMMON_MODEM_SSR, flag, &rsp));
}

void tervik_modem_crash_without_orange_screen(int flag) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_log_debug("flag = 0x%08X", static_cast<unsigned>(flag));
  const int old_type = tervik_get_modem_ssr_type();
  tervik_log_debug("before ssr, type: %d", old_type);
  const bool changed = tervik_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_SSR) != 0;
  if (!changed) {
    tervik_log_debug("ssr type is not changed, wont wait before ssr");
  } else if (!wait_unless_stopped(__func__, "before ssr")) {
    return;
  }
  tervik_common_response rsp = {};
  if (send_restart(__func__, TERVIK_COMMON_MODEM_CRASH, flag, &rsp) != 0) {
    tervik_log_debug("tervik_extend_qmi_send_sync fail, REQUEST_ID_COMMON");
  }
  if (rsp.result != 0) {
    tervik_log_debug("qmi response fail");
  }
  if (!changed) {
    tervik_log_debug("ssr type is not changed, wont wait after ssr");
  } else if (wait_unless_stopped(__func__, "after ssr")) {
    // Whether the level really changed back is of no interest here.
    static_cast<void>(tervik_set_modem_ssr_type(static_cast<uint32_t>(old_type)));
  }
}

void tervik_modem_crash_with_orange_screen(int flag) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_log_debug("flag = 0x%08X", static_cast<unsigned>(flag));
  if (tervik_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DUMP) != 0 &&
      !wait_unless_stopped(__func__, "before dump")) {
    return;
  }
  tervik_common_response rsp = {};
  // Both results are in the log; the modem is expected to go down.
  static_cast<void>(send_restart(__func__, TERVIK_COMMON_MODEM_CRASH, flag, &rsp));
}

void tervik_modem_nv_sync() {
  sync_nv(__func__);
}

int tervik_nvefs_sync() {
  return sync_nv(__func__);
}

// ---- the clients of three services, in what they differ ----

namespace {

std::atomic<uint8_t> SSR_Detected{0};  // set on the framework's thread
uint8_t uim_qmi_error_count = 0;

constinit tervik_qmi_client g_sar_qmi_client({
    .service_object = [] { return sar_get_service_object_internal_v01(1, 0x0F, 6); },
    .open_timeout_ms = 4,  // of the others it is seconds
    .ind_cb = tervik_qmi_client_common_empty_unsol_ind_cb,
    .open_failed = "qmi_client_init_instance failed",
});

constinit tervik_qmi_client uim_qmi_client({
    .service_object = [] { return uim_get_service_object_internal_v01(1, 0x71, 6); },
    .open_timeout_ms = 4000,
    .after_attempt =
        [](int, qmi_client_error_type err) {
          // Before the registration: the service may go down as soon as the callback can see it.
          if (err == QMI_NO_ERR) {
            SSR_Detected = 0;
            uim_qmi_error_count = 0;
          }
        },
    .ind_cb = tervik_qmi_client_common_empty_unsol_ind_cb,
    .error_cb = error_cb,
    .open_failed = "qmi_client_init UIM instance failed",
    .opened = "init_uim_qmi_client",
});

// Open during a request alone.
constinit tervik_qmi_client g_nas_qmi_client({
    .service_object = [] { return nas_get_service_object_internal_v01(1, 0x199, 6); },
    .open_timeout_ms = 5000,
    .ind_cb = tervik_qmi_client_unsol_ind_cb,
    .error_cb = tervik_qmi_client_error_cb,
    .open_failed = "tervik_qmi_client_init instance failed",
    .opened = "qmi_svc_client",
    .forgotten_when_unwatched = true,
});

}  // namespace

void tervik_qmi_client_common_empty_unsol_ind_cb(qmi_client_type /*client*/, unsigned int msg_id,
                                                 void* /*ind_buf*/, unsigned int /*ind_buf_len*/,
                                                 void* /*ind_cb_data*/) {
  tervik_log_debug("msg_id %d", msg_id);
}

void tervik_qmi_client_unsol_ind_cb(qmi_client_type /*client*/, unsigned int msg_id,
                                    void* /*ind_buf*/, unsigned int /*ind_buf_len*/,
                                    void* /*ind_cb_data*/) {
  tervik_log_debug("msg_id %d", msg_id);
}

void tervik_qmi_client_error_cb(qmi_client_type /*client*/, qmi_client_error_type error,
                                void* /*data*/) {
  tervik_log_debug("QMI error callback %d", error);
}

// ---- NAS ----

int tervik_send_nas_qmi_req_msg(int msg_id, const void* req, unsigned req_len, void* rsp,
                                unsigned rsp_len, unsigned time_out_ms) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  tervik_qmi_client& client = g_nas_qmi_client;
  tervik_log_debug(
      "tervik_send_nas_qmi_req_msg, msg_id = %d, time_out_ms = %d, qmi_client_ptr = 0x%08x", msg_id,
      time_out_ms, static_cast<unsigned>(reinterpret_cast<uintptr_t>(client.handle())));
  int result = -1;
  if (req == nullptr || rsp == nullptr) {
    tervik_log_debug("%s", req == nullptr ? "qmi_request is NULL" : "qmi_response is NULL");
  } else {
    tervik_log_debug("init qmi_client");
    if (client.open(TERVIK_LOG_PLACE) != QMI_NO_ERR) {
      tervik_log_debug("qmi_client_ptr is NULL");
    } else {
      result = client.send(static_cast<unsigned>(msg_id), req, req_len, rsp, rsp_len, time_out_ms);
      if (result != QMI_NO_ERR) {
        tervik_log_debug("qmi_client_send_msg_sync fail, qmi_client_error = %d", result);
      }
    }
  }
  tervik_log_debug("tervik_qmi_client_recovery, qmi_client_ptr %p", client.handle());
  if (client.handle() == nullptr) {
    tervik_log_debug("qmi_client_ptr is NULL");
  } else if (!client.release()) {
    tervik_log_debug("qmi_client_release failed");
  }
  return result;
}

// ---- SAR ----

namespace {

constexpr unsigned SAR_SEND_TIMEOUT_MS = 30000;
constexpr int SAR_DSI_MIN = 1;
constexpr int SAR_DSI_MAX = 20;
constexpr int SAR_FAILURE = -1;

[[nodiscard]] bool have_sar_client(const char* func) {
  const bool have = tervik_check_and_init_qmi_client_rf_sar();
  if (!have) {
    tervik_log_debug_as(func, "tervik_check_and_init_qmi_client_rf_sar FAIL");
  }
  return have;
}

[[nodiscard]] qmi_client_error_type send_sar_request(const char* func, unsigned int msg_id,
                                                     const void* request, unsigned request_len,
                                                     void* response, unsigned response_len) {
  const qmi_client_error_type err = g_sar_qmi_client.send(msg_id, request, request_len, response,
                                                          response_len, SAR_SEND_TIMEOUT_MS);
  if (err != QMI_NO_ERR) {
    tervik_log_debug_as(func, "qmi_client_send_msg_sync failed, qmi_client_error = %d", err);
    g_sar_qmi_client.forget();
  }
  return err;
}

}  // namespace

void tervik_init_qmi_client_rf_sar() {
  tervik_log_debug("function entry ------------->");
  // Whether there is a client is asked next.
  static_cast<void>(g_sar_qmi_client.open(TERVIK_LOG_PLACE));
}

bool tervik_check_and_init_qmi_client_rf_sar() {
  if (g_sar_qmi_client.handle() == nullptr) {
    tervik_init_qmi_client_rf_sar();
    if (g_sar_qmi_client.handle() == nullptr) {
      tervik_log_debug("qmi_client_error is NULL");
      return false;
    }
  }
  return true;
}

int tervik_get_sar_dsi() {
  sar_rf_get_state_resp_msg_v01 response = {};
  if (!have_sar_client(__func__) ||
      send_sar_request(__func__, QMI_SAR_RF_GET_STATE_REQ_V01, nullptr, 0, &response,
                       sizeof(response)) != QMI_NO_ERR) {
    return SAR_FAILURE;
  }
  const int dsi = static_cast<int>(response.sar_rf_state);
  tervik_log_debug("dsi vailid = %d , dsi value = %d", response.sar_rf_state_valid, dsi);
  tervik_tell_answer(response.resp, "the modem refuses to tell the DSI");
  return dsi;
}

int tervik_set_sar_dsi(int dsi) {
  if (!have_sar_client(__func__)) {
    return SAR_FAILURE;
  }
  sar_rf_set_state_req_msg_v01 request = {};
  if (dsi >= SAR_DSI_MIN && dsi <= SAR_DSI_MAX) {
    request.sar_rf_state = static_cast<uint32_t>(dsi);
  }
  sar_rf_set_state_resp_msg_v01 response = {};
  const qmi_client_error_type qmi_client_error =
      send_sar_request(__func__, QMI_SAR_RF_SET_STATE_REQ_V01, &request, sizeof(request), &response,
                       sizeof(response));
  tervik_log_debug("function exit, qmi_client_error = %d <-------------", qmi_client_error);
  tervik_tell_answer(response.resp, "the modem refuses the DSI");
  return qmi_client_error;
}

// ---- SIM cards ----

bool init_uim_qmi_client() {
  return uim_qmi_client.open(TERVIK_LOG_PLACE) == QMI_NO_ERR;
}

void uim_qmi_client_recovery() {
  tervik_log_debug("uim_qmi_client_recovery qmi_client_release %p", uim_qmi_client.handle());
  if (!uim_qmi_client.release()) {
    tervik_log_debug("qmi_client_release failed");
  }
  tervik_log_debug("function exit <-------------");
}

void error_cb(qmi_client_type /*client*/, int error, void* /*data*/) {
  tervik_log_debug("QMI error callback %d", error);
  if (error == QMI_SERVICE_ERR) {
    tervik_log_debug("SSR Detected, set SSR_Detected 1");
    SSR_Detected = 1;
  }
}

namespace {

constexpr unsigned UIM_SEND_TIMEOUT_MS = 3000;
constexpr int UIM_ERROR_COUNT_LIMIT = 3;
constexpr int UIM_FAILURE = -1;
constexpr int UIM_BAD_INPUT = -2;
constexpr size_t UIM_CARDS_KEPT = 2;
constexpr uint8_t UIM_CARD_STATE_UNKNOWN = 3;

// The ISD-R application of an eUICC (GSMA SGP.22).
constexpr uint8_t ISD_R_AID[] = {0xA0, 0x00, 0x00, 0x05, 0x59, 0x10, 0x10, 0xFF,
                                 0xFF, 0xFF, 0xFF, 0x89, 0x00, 0x00, 0x01, 0x00};

void recover_after_ssr(const char* func) {
  if (SSR_Detected != 0) {
    tervik_log_debug_as(func, "SSR_Detected, try recovery");
    uim_qmi_client_recovery();
  }
}

// Whether there is a client, created when there was none. The line about it begins with
// `operation`; there is no line when that is null.
[[nodiscard]] bool have_uim_client(const char* func, const char* operation) {
  const bool existed = uim_qmi_client.handle() != nullptr;
  if (!existed && !init_uim_qmi_client()) {
    tervik_log_debug_as(func, "init_uim_qmi_client failed");
    return false;
  }
  if (operation != nullptr) {
    tervik_log_debug_as(func, "%s %suim_qmi_client %p", operation, existed ? "" : "try init_",
                        uim_qmi_client.handle());
  }
  return true;
}

template <typename Request, typename Response>
[[nodiscard]] qmi_client_error_type send_uim(const char* func, unsigned msg_id,
                                             const Request& request, Response& response) {
  const qmi_client_error_type err = uim_qmi_client.send(
      msg_id, &request, sizeof(request), &response, sizeof(response), UIM_SEND_TIMEOUT_MS);
  if (err != QMI_NO_ERR) {
    tervik_log_debug_as(func, "send msg sync client error = %d", err);
  }
  return err;
}

// What differs between the operations that share the frame below.
struct uim_operation {
  const char* func = nullptr;
  unsigned int msg_id = 0;
  bool recovers_after_ssr = true;
  bool logs_client = true;
};

// The frame of five of the operations: client, buffers, exchange, recovery. `fill` fills the
// zeroed request, `take` reads the response of a good send and gives the result.
template <typename Request, typename Response, typename Fill, typename Take>
[[nodiscard]] int run_uim_operation(const uim_operation& operation, Fill fill, Take take) {
  const char* const func = operation.func;
  tervik_log_debug_as(func, "function entry ------------->");
  if (operation.recovers_after_ssr) {
    recover_after_ssr(func);
  }
  int result = UIM_FAILURE;
  if (have_uim_client(func, operation.logs_client ? func : nullptr)) {
    const auto request = qcril_make<Request>(func, __LINE__);
    const auto response = qcril_make<Response>(func, __LINE__);
    if (request == nullptr || response == nullptr) {
      return UIM_FAILURE;
    }
    fill(*request);
    result = send_uim(func, operation.msg_id, *request, *response);
    if (result == QMI_NO_ERR) {
      result = take(*response);
    } else {
      ++uim_qmi_error_count;
    }
  }
  if (result == QMI_SERVICE_ERR || uim_qmi_error_count >= UIM_ERROR_COUNT_LIMIT) {
    tervik_log_debug_as(func, "QMI error, try recovery");
    uim_qmi_client_recovery();
  }
  tervik_log_debug_as(func, "function exit <-------------");
  return result;
}

}  // namespace

// Shares no frame: it takes its memory before it looks for a client, and counts no failed send.
int tervik_setSimType(const uint32_t* data) {
  tervik_log_debug("function entry ------------->");
  recover_after_ssr(__func__);
  if (data == nullptr) {
    tervik_log_debug("tervik_set_sim_type data error");
    return UIM_BAD_INPUT;
  }
  const auto response = qcril_make<uim_set_sim_type_resp_msg_v01>(__func__, __LINE__);
  if (response == nullptr) {
    tervik_log_debug("error allocating memory for get_sim_type_resp_ptr");
    return UIM_BAD_INPUT;
  }
  int result = UIM_FAILURE;
  if (have_uim_client(__func__, "tervik_set_sim_type")) {
    uim_set_sim_type_req_msg_v01 request = {};
    request.sim_type_len = std::min<uint32_t>(data[0], std::size(request.sim_type));
    for (uint32_t i = 0; i < request.sim_type_len; ++i) {
      request.sim_type[i] = data[1 + i];
      tervik_log_debug("Set_sim_type value is %d", request.sim_type[i]);
    }
    result = send_uim(__func__, QMI_UIM_SET_SIM_TYPE_REQ_V01, request, *response);
  }
  tervik_log_debug("tervik_set_sim_type res = %d ", result);
  return result;
}

int tervik_uim_request_eid(const uint8_t* slot, uint8_t* eid_out) {
  return run_uim_operation<uim_get_eid_req_msg_v01, uim_get_eid_resp_msg_v01>(
      {__func__, QMI_UIM_GET_EID_REQ_V01}, [slot](auto& request) { request.slot = *slot; },
      [eid_out](const auto& response) {
        if (response.resp.result == 0 && response.eid_value_valid != 0) {
          memcpy(eid_out, response.eid_value, UIM_EID_SIZE);
        }
        return 0;
      });
}

int tervik_uim_get_card_status(uint16_t* states_out) {
  const char* const func = __func__;
  return run_uim_operation<uim_get_card_status_req_msg_v01, uim_get_card_status_resp_msg_v01>(
      {.func = func, .msg_id = QMI_UIM_GET_CARD_STATUS_REQ_V01, .recovers_after_ssr = false},
      [](auto& request) {
        request.extended_card_status_valid = 1;
        request.extended_card_status = 1;
      },
      [func, states_out](const auto& response) {
        uint8_t states[UIM_CARDS_KEPT] = {UIM_CARD_STATE_UNKNOWN, UIM_CARD_STATE_UNKNOWN};
        size_t cards = 0;
        if (response.resp.result == 0) {
          tervik_log_debug_as(func, "tervik_uim_get_card_status check response");
          cards = response.card_list_valid == 1 ? response.card_list_len : 0;
        }
        for (size_t i = 0; i < std::min(cards, UIM_CARDS_MAX_V01); ++i) {
          const auto state = static_cast<uint8_t>(response.card_list[i].card_state);
          tervik_log_debug_as(func, "SIM[%d] State = %d", static_cast<int>(i), state);
          if (i < UIM_CARDS_KEPT) {
            states[i] = state;
          }
        }
        static_assert(sizeof(*states_out) == sizeof(states));
        memcpy(states_out, states, sizeof(states));
        return 0;
      });
}

int tervik_uim_open_channel(const uint8_t* in, uint8_t* channel_id_out) {
  const char* const func = __func__;
  return run_uim_operation<uim_open_logical_channel_req_msg_v01,
                           uim_open_logical_channel_resp_msg_v01>(
      {func, QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01},
      [in](auto& request) {
        request.slot = in[0];
        request.aid_valid = 1;
        request.aid_len = sizeof(ISD_R_AID);
        memcpy(request.aid, ISD_R_AID, sizeof(ISD_R_AID));
        request.file_control_information_valid = 1;
        request.file_control_information = in[1];
      },
      [func, channel_id_out](const auto& response) {
        if (response.resp.result != 0) {
          tervik_log_debug_as(func, "tervik_uim_open_channel failed");
          return UIM_FAILURE;
        }
        tervik_log_debug_as(func, "tervik_uim_open_channel successfully");
        if (response.channel_id_valid != 0) {
          *channel_id_out = response.channel_id;
        }
        return 0;
      });
}

int tervik_uim_close_channel(const uint8_t* in) {
  const char* const func = __func__;
  return run_uim_operation<uim_logical_channel_req_msg_v01, uim_logical_channel_resp_msg_v01>(
      {func, QMI_UIM_LOGICAL_CHANNEL_REQ_V01},
      [in](auto& request) {
        request.slot = in[0];
        request.channel_id_valid = 1;
        request.channel_id = in[1];
        request.terminate_application_valid = 1;
      },
      [func](const auto& response) {
        if (response.resp.result == 0) {
          tervik_log_debug_as(func, "tervik_uim_close_channel successfully");
        }
        return 0;
      });
}

int tervik_uim_send_apdu(const uint8_t* apdu_in, uint8_t* rsp_out) {
  const char* const func = __func__;
  return run_uim_operation<uim_send_apdu_req_msg_v01, uim_send_apdu_resp_msg_v01>(
      {.func = func, .msg_id = QMI_UIM_SEND_APDU_REQ_V01, .logs_client = false},
      [func, apdu_in](auto& request) {
        request.slot = apdu_in[0];
        request.apdu_len = apdu_in[2];
        memcpy(request.apdu, apdu_in + 3, request.apdu_len);
        request.channel_id_valid = 1;
        request.channel_id = apdu_in[1];
        request.procedure_bytes_valid = 1;
        request.procedure_bytes = 1;
        tervik_log_debug_as(func, "tervik_uim_send_apdu apdu_len = %d", request.apdu_len);
      },
      [func, rsp_out](const auto& response) {
        if (response.resp.result != 0) {
          tervik_log_debug_as(func, "tervik_uim_send_apdu failed");
          return UIM_FAILURE;
        }
        tervik_log_debug_as(func, "tervik_uim_send_apdu successfully");
        rsp_out[0] = static_cast<uint8_t>(response.apdu_len);
        memcpy(rsp_out + 1, response.apdu,
               std::min<size_t>(response.apdu_len, UIM_APDU_OUTPUT_SIZE - 1));
        return 0;
      });
}
