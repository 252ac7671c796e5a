#include "tervik_qmi_client.h"

#include <unistd.h>

#include <new>

qmi_client_error_type tervik_qmi_client::open(const tervik_log_place& place) {
  qmi_client_error_type err = QMI_INTERNAL_ERR;
  for (int attempt = 0; err != QMI_NO_ERR && attempt < service_.attempts; ++attempt) {
    if (attempt > 0) {
      sleep(service_.pause_s);
    }
    service_.before_attempt(attempt);
    qmi_client_type client = nullptr;
    err = qmi_client_init_instance(service_.service_object(), QMI_CLIENT_INSTANCE_ANY,
                                   service_.ind_cb, nullptr, &os_params_, service_.open_timeout_ms,
                                   &client);
    handle_ = err == QMI_NO_ERR ? client : nullptr;
    service_.after_attempt(attempt, err);
  }
  if (err != QMI_NO_ERR) {
    if (service_.open_failed != nullptr) {
      tervik_log_write(place, LOG_CLASS_DEBUG, TERVIK_NO_SUB, "%s, qmi_client_error = %d",
                       service_.open_failed, err);
    }
    return err;
  }
  if (service_.opened != nullptr) {
    tervik_log_write(place, LOG_CLASS_DEBUG, TERVIK_NO_SUB, "%s %p", service_.opened,
                     handle_.load());
  }
  if (service_.error_cb != nullptr &&
      qmi_client_register_error_cb(handle_, service_.error_cb, nullptr) != QMI_NO_ERR) {
    if (service_.opened != nullptr) {
      tervik_log_write(place, LOG_CLASS_DEBUG, TERVIK_NO_SUB,
                       "qmi_client_register_error_cb failed");
    }
    if (service_.forgotten_when_unwatched) {
      forget();
      return QMI_INTERNAL_ERR;
    }
  }
  return QMI_NO_ERR;
}

qmi_client_error_type tervik_qmi_client::send(unsigned msg_id, const void* req, unsigned req_len,
                                              void* rsp, unsigned rsp_len, unsigned timeout_ms) {
  return qmi_client_send_msg_sync(handle_, msg_id, req, req_len, rsp, rsp_len, timeout_ms);
}

bool tervik_qmi_client::release() {
  auto* const client = handle_.exchange(nullptr);
  return client == nullptr || qmi_client_release(client) == QMI_NO_ERR;
}

tervik_qmi_indication tervik_qmi_decode_indication(qmi_idl_service_object_type service,
                                                   qmi_client_type client, unsigned int msg_id,
                                                   const void* buffer, unsigned int buffer_len) {
  tervik_qmi_indication indication;
  if (qmi_idl_get_message_c_struct_len(service, QMI_IDL_INDICATION, static_cast<uint16_t>(msg_id),
                                       &indication.len) != 0) {
    return indication;
  }
  indication.c_struct.reset(new (std::nothrow) uint8_t[indication.len]());
  if (indication.c_struct != nullptr) {
    indication.err =
        qmi_client_message_decode(client, QMI_IDL_INDICATION, msg_id, buffer, buffer_len,
                                  indication.c_struct.get(), indication.len);
  }
  return indication;
}
