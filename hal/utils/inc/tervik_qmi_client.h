// The clients of the modem's QMI services: how each is opened, used, lost and released. A service's
// row says in what it differs from the others; some differences are odd, and all are wanted. The
// client of the extension service is in tervik_extend_api: it alone finds its service by a notifier
// and a service list. Any thread; the bytes of indications are untrusted.
#pragma once

#include <atomic>
#include <cstring>
#include <memory>

#include "qmi_client.h"
#include "tervik_utils_cmn.h"

// The row of a service.
struct tervik_qmi_service {
  // The description of the service, in its version; null fails every attempt to open.
  qmi_idl_service_object_type (*service_object)() = nullptr;
  uint32_t open_timeout_ms = 0;  // of one attempt
  int attempts = 1;
  unsigned pause_s = 0;  // between two attempts
  // What the service's own source does around an attempt, counted from 0.
  void (*before_attempt)(int attempt) = [](int) {};
  void (*after_attempt)(int attempt, qmi_client_error_type err) = [](int, int) {};
  qmi_client_ind_cb ind_cb = nullptr;
  qmi_client_error_cb error_cb = nullptr;  // told when the service goes down; null: nobody is
  // How the lines about opening begin; null: its source writes its own.
  const char* open_failed = nullptr;
  const char* opened = nullptr;
  bool forgotten_when_unwatched = false;  // when `error_cb` could not be registered
};

// One client of a service; closed at first. The framework alone writes the os parameters.
class tervik_qmi_client {
 public:
  explicit constexpr tervik_qmi_client(const tervik_qmi_service& service) : service_(service) {}

  // The open client, or null.
  [[nodiscard]] qmi_client_type handle() const { return handle_; }
  // Opens the client, with lines that show `place`. 0, the error of the last attempt, or
  // QMI_INTERNAL_ERR when the error callback could not be registered and the row says to forget the
  // client then.
  [[nodiscard]] qmi_client_error_type open(const tervik_log_place& place);
  // Sends one request and waits for its response, at most `timeout_ms`. The framework's error code.
  [[nodiscard]] qmi_client_error_type send(unsigned msg_id, const void* req, unsigned req_len,
                                           void* rsp, unsigned rsp_len, unsigned timeout_ms);
  // Releases the client, if there is one. False when the framework did not know it.
  bool release();
  // Closes the client without a release: it stays open in the framework until the process ends.
  void forget() { handle_ = nullptr; }

 private:
  const tervik_qmi_service service_;
  std::atomic<qmi_client_type> handle_{nullptr};
  qmi_client_os_params os_params_;
};

// An indication's C structure, as far as decoding came: no length when the service has no such
// indication, no bytes when there is no memory, an error when the bytes do not decode.
struct tervik_qmi_indication {
  uint32_t len = 0;
  std::unique_ptr<uint8_t[]> c_struct;
  qmi_client_error_type err = QMI_NO_ERR;
};

// Decodes what an indication callback was given. Framework thread.
[[nodiscard]] tervik_qmi_indication tervik_qmi_decode_indication(
    qmi_idl_service_object_type service, qmi_client_type client, unsigned int msg_id,
    const void* buffer, unsigned int buffer_len);

// The record that a decoded indication begins with, copied out of its bytes.
template <typename Record>
Record tervik_qmi_record(const uint8_t* c_struct) {
  Record record = {};
  memcpy(&record, c_struct, sizeof(record));
  return record;
}
