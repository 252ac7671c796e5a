#include "vs_client.h"

#include <algorithm>
#include <atomic>

#include "tervik_qmi_client.h"
#include "tervik_utils_cmn.h"

namespace {

constexpr unsigned SEND_TIMEOUT_MS = 30000;

// Getters on several threads and the framework's thread read it while the client is released.
struct vs_client_record {
  std::atomic<qmi_idl_service_object_type> service_object{nullptr};
  std::atomic<vs_event_cb> event_cb{nullptr};
  std::atomic<vs_operational_status_cb> operational_status_cb{nullptr};
  // Parts of the record that nothing reads: no request is asynchronous, and a client that is not
  // connected shows by its handle.
  std::atomic<decltype(&vs_client_command_cb)> command_cb{nullptr};
  std::atomic<uint32_t> inited{0};

  void clear() {
    service_object = nullptr;
    event_cb = nullptr;
    operational_status_cb = nullptr;
    command_cb = nullptr;
    inited = 0;
  }
};

vs_client_record vs_client_info;
// Outside the record: a response may come after a release.
std::atomic<vs_response_cb> g_response_cb{nullptr};

// Any instance of the service will do.
uint32_t vs_client_get_master_port() {
  return QMI_CLIENT_INSTANCE_ANY;
}

constinit tervik_qmi_client g_vs_client({
    .service_object = [] { return vs_client_info.service_object.load(); },
    .open_timeout_ms = 4,
    .attempts = 10,
    .pause_s = 1,
    .before_attempt =
        [](int attempt) {
          tervik_log_debug_as("vs_client_init_client_handles",
                              "Trying qmi_client_init_instance() try # %d port[%d]", attempt,
                              vs_client_get_master_port());
        },
    .ind_cb = vs_client_unsol_ind_cb,
    .error_cb = vs_client_service_down_event,
});

void report_status(vs_operational_status status) {
  const vs_operational_status_cb status_cb = vs_client_info.operational_status_cb;
  if (status_cb != nullptr) {
    status_cb(VS_CLIENT_TYPE, status);
  }
}

uint32_t vs_client_init_client_handles() {
  tervik_log_debug("using port %d", vs_client_get_master_port());
  const qmi_client_error_type err = g_vs_client.open(TERVIK_LOG_PLACE);
  tervik_log_debug("qmi_client_init_instance returned (%d)", err);
  if (err != QMI_NO_ERR) {
    tervik_log_error("qmi_client_init_instance returned failure(%d)", err);
  }
  return err == QMI_NO_ERR ? 1 : 0;
}

// ---- indications as events ----

// Converts at most as many entries as there is room for; returns how many.
template <uint32_t room>
uint32_t convert_entries(const vs_stats_entry (&from)[room], uint32_t count,
                         vs_event_entry (&to)[room]) {
  const uint32_t converted = std::min(count, room);
  for (uint32_t i = 0; i < converted; ++i) {
    to[i].id = from[i].id;
    to[i].value_len = std::min(from[i].value_len, VS_STATS_VALUE_MAX);
    memcpy(to[i].value, from[i].value, sizeof(to[i].value));
    to[i].sub = from[i].sub;
    to[i].second_half_word = from[i].second_half_word;
  }
  return converted;
}

void send_feature_status(vs_event_cb event_cb, const uint8_t* decoded) {
  auto event = tervik_qmi_record<vs_feature_status_ind>(decoded);
  event.first_flag = event.first_flag != 0 ? 1 : 0;
  event.second_flag = event.second_flag != 0 ? 1 : 0;
  event_cb(VS_EVENT_FEATURE_STATUS, &event, sizeof(event));
}

void send_stats_parameter(vs_event_cb event_cb, const uint8_t* decoded) {
  const auto indication = tervik_qmi_record<vs_stats_parameter_ind>(decoded);
  vs_event_stats_parameter event = {};
  event.value = indication.value;
  event.entries_len = convert_entries(indication.entries, indication.entries_len, event.entries);
  if (indication.more_entries_valid != 0) {
    event.more_entries_len =
        convert_entries(indication.more_entries, indication.more_entries_len, event.more_entries);
  }
  event.last_value = indication.last_value_valid != 0 ? indication.last_value : UINT32_MAX;
  event_cb(VS_EVENT_STATS_PARAMETER, &event, sizeof(event));
}

void send_stats_event(vs_event_cb event_cb, const uint8_t* decoded) {
  const auto indication = tervik_qmi_record<vs_stats_event_ind>(decoded);
  vs_event_stats_event event = {};
  event.value = indication.value;
  event.values_len = std::min(indication.bytes_len, VS_EVENT_BYTES_MAX);
  std::copy_n(indication.bytes, event.values_len, event.values);
  event.third_value = indication.third_value;
  event.fourth_value = indication.fourth_value;
  event_cb(VS_EVENT_STATS_EVENT, &event, sizeof(event));
}

void send_state(vs_event_cb event_cb, const uint8_t* decoded) {
  const auto event = tervik_qmi_record<vs_state_ind>(decoded);
  event_cb(VS_EVENT_STATE, &event, sizeof(event));
}

struct vs_indication_row {
  uint16_t msg_id;
  void (*send)(vs_event_cb event_cb, const uint8_t* decoded);
};

constexpr vs_indication_row INDICATIONS[] = {
    {VS_FEATURE_STATUS_IND, send_feature_status},
    {VS_STATS_PARAMETER_IND, send_stats_parameter},
    {VS_STATS_EVENT_IND, send_stats_event},
    {VS_STATE_IND, send_state},
};

void vs_client_ind_hdlr(unsigned int msg_id, const uint8_t* decoded) {
  const vs_event_cb event_cb = vs_client_info.event_cb;
  if (event_cb == nullptr) {
    tervik_log_error("vvs_client_info.event_cb is null, do nothing");
    return;
  }
  tervik_log_debug("Handling indication msg 0x%x", msg_id);
  const vs_indication_row* const row = find_row(INDICATIONS, &vs_indication_row::msg_id, msg_id);
  if (row == nullptr) {
    tervik_log_error("Unknown indication msg %0x", msg_id);
    return;
  }
  row->send(event_cb, decoded);
}

}  // namespace

void vs_init(vs_response_cb response_cb) {
  g_response_cb = response_cb;
  vs_client_info.clear();
  vs_client_info.command_cb = vs_client_command_cb;
  vs_client_info.service_object = vs_get_service_object_internal_v01(1, 2, 6);
}

uint32_t vs_client_init(vs_event_cb event_cb) {
  vs_client_info.event_cb = event_cb;
  tervik_log_debug("Client connecting to QMI FW");
  report_status(VS_CONNECTING);
  const uint32_t res = vs_client_init_client_handles();
  vs_client_info.inited = res;
  report_status(res == 1 ? VS_CONNECTED : VS_CONNECT_FAILED);
  tervik_log_debug("function exit, res = %d", res);
  return res;
}

uint32_t vs_client_release() {
  report_status(VS_RELEASED);
  // An unknown handle is gone already.
  static_cast<void>(g_vs_client.release());
  vs_client_info.clear();
  return 1;
}

void vs_client_set_operational_status_callback(vs_operational_status_cb cb) {
  vs_client_info.operational_status_cb = cb;
}

qmi_client_error_type vs_client_send_msg_sync(uint16_t msg_id, const void* req, uint32_t req_len,
                                              void* resp, uint32_t resp_len) {
  return g_vs_client.send(msg_id, req, req_len, resp, resp_len, SEND_TIMEOUT_MS);
}

void vs_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* ind_buf,
                            unsigned int ind_len, void* /*cb_data*/) {
  if (vs_client_info.event_cb == nullptr) {
    tervik_log_error("vs_client_info.event_cb is null, do nothing");
    return;
  }
  const tervik_qmi_indication indication =
      tervik_qmi_decode_indication(vs_client_info.service_object, handle, msg_id, ind_buf, ind_len);
  if (indication.len == 0) {
    tervik_log_error("decoded_payload_len(%d) can not <= 0", indication.len);
  } else if (indication.c_struct == nullptr) {
    tervik_log_error("decoded_payload is NULL");
  } else if (indication.err != QMI_NO_ERR) {
    tervik_log_error("Indication decode failed for msg 0x%x with error %d", msg_id, indication.err);
  } else {
    vs_client_ind_hdlr(msg_id, indication.c_struct.get());
  }
}

void vs_client_service_down_event(qmi_client_type /*handle*/, qmi_client_error_type error,
                                  void* /*cb_data*/) {
  tervik_log_error("service down with error %d", error);
}

void vs_client_command_cb(qmi_client_type /*handle*/, unsigned int msg_id, void* resp,
                          unsigned int resp_len, void* cb_data,
                          qmi_client_error_type transport_error) {
  const vs_response_cb response_cb = g_response_cb;
  if (response_cb != nullptr) {
    response_cb(msg_id, resp, resp_len, cb_data, transport_error);
  }
}
