// The QMI client framework as kiv uses it: find a service, open a client, send a request and wait
// for its response, receive indications, close. All functions may be called from any thread.
// Indication and error callbacks run on the framework's own thread; after qmi_client_release
// returned, none runs for that client any more.
#pragma once

#include <cstdint>

#include "qmi_idl.h"

// A client or notifier handle; null is no handle. The value is small enough for "%d".
using qmi_client_type = void*;
using qmi_client_error_type = int;

inline constexpr qmi_client_error_type QMI_NO_ERR = 0;
inline constexpr qmi_client_error_type QMI_INTERNAL_ERR = -1;  // encoding or decoding failed
inline constexpr qmi_client_error_type QMI_SERVICE_ERR = -2;   // no such service, or it went down
inline constexpr qmi_client_error_type QMI_TIMEOUT_ERR = -3;   // no response in time
inline constexpr qmi_client_error_type QMI_CLIENT_PARAM_ERR = -4;  // unknown handle, bad argument

// Accepts any instance of a service in qmi_client_init_instance.
inline constexpr uint32_t QMI_CLIENT_INSTANCE_ANY = 0xFFFF;

// The framework's per-client operating-system object: raised when a service comes up.
struct qmi_cci_os_signal_type {
  uint64_t seen_arrivals = 0;  // the framework's own count, no meaning to the client
};
using qmi_client_os_params = qmi_cci_os_signal_type;

// Addresses one instance of one service.
struct qmi_service_info {
  uint32_t service_id = 0;
  uint32_t instance_id = 0;
};

using qmi_client_ind_cb = void (*)(qmi_client_type client, unsigned int msg_id, void* ind_buf,
                                   unsigned int ind_buf_len, void* ind_cb_data);
using qmi_client_error_cb = void (*)(qmi_client_type client, qmi_client_error_type error,
                                     void* error_cb_data);

extern "C" {

// Registers interest in the service: `os_params` is raised when an instance comes up.
[[nodiscard]] qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service,
                                                             qmi_client_os_params* os_params,
                                                             qmi_client_type* notifier);

// Stores in `*num_services` how many instances of the service are up, and with a non-null
// `services` at most `*num_entries` of them, then their number in `*num_entries`.
// Returns 0, or QMI_SERVICE_ERR when none is up.
[[nodiscard]] qmi_client_error_type qmi_client_get_service_list(qmi_idl_service_object_type service,
                                                                qmi_service_info* services,
                                                                unsigned int* num_entries,
                                                                unsigned int* num_services);

// Waits until a service came up since the last call with this signal, at most `timeout_ms`.
void qmi_cci_os_signal_wait(qmi_cci_os_signal_type* signal, unsigned int timeout_ms);

// Opens a client of the instance that `info` names. 0, QMI_SERVICE_ERR, QMI_CLIENT_PARAM_ERR.
[[nodiscard]] qmi_client_error_type qmi_client_init(const qmi_service_info* info,
                                                    qmi_idl_service_object_type service,
                                                    qmi_client_ind_cb ind_cb, void* ind_cb_data,
                                                    qmi_client_os_params* os_params,
                                                    qmi_client_type* client);

// Waits for an instance of the service, at most `timeout_ms`, and opens a client of it.
// 0, QMI_TIMEOUT_ERR, QMI_CLIENT_PARAM_ERR.
[[nodiscard]] qmi_client_error_type qmi_client_init_instance(
    qmi_idl_service_object_type service, uint32_t instance_id, qmi_client_ind_cb ind_cb,
    void* ind_cb_data, qmi_client_os_params* os_params, uint32_t timeout_ms,
    qmi_client_type* client);

// `error_cb` is called once, with QMI_SERVICE_ERR, when the client's service goes down.
[[nodiscard]] qmi_client_error_type qmi_client_register_error_cb(qmi_client_type client,
                                                                 qmi_client_error_cb error_cb,
                                                                 void* error_cb_data);

// Encodes `request`, sends it and decodes the response into `response`. The lengths are those of
// the message's C structures. Waits at most `timeout_ms`.
// 0, QMI_TIMEOUT_ERR, QMI_SERVICE_ERR (service gone, also while waiting), QMI_INTERNAL_ERR
// (response does not decode), QMI_CLIENT_PARAM_ERR, or the transport's own code.
[[nodiscard]] qmi_client_error_type qmi_client_send_msg_sync(
    qmi_client_type client, unsigned int msg_id, const void* request, unsigned int request_len,
    void* response, unsigned int response_len, unsigned int timeout_ms);

// Decodes the `buf_len` bytes of a received message into its zeroed C structure.
// 0, QMI_INTERNAL_ERR, or QMI_CLIENT_PARAM_ERR (unknown handle or message, wrong length).
[[nodiscard]] qmi_client_error_type qmi_client_message_decode(qmi_client_type client,
                                                              qmi_idl_message_type type,
                                                              unsigned int msg_id, const void* buf,
                                                              unsigned int buf_len, void* c_struct,
                                                              unsigned int c_struct_len);

// Closes a client or a notifier; waits for a callback of it that is running on another thread.
// 0, or QMI_CLIENT_PARAM_ERR for an unknown handle.
[[nodiscard]] qmi_client_error_type qmi_client_release(qmi_client_type client);

}  // extern "C"
