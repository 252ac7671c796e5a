#include "qmi_client.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/qmi/bus_state.h"
#include "platform/qmi/qmi_idl_codec.h"

namespace {

using kiv::platform::bus_state;
using kiv::platform::BusState;
using kiv::platform::Client;
using kiv::platform::kServiceInstance;
using kiv::platform::Publication;
using kiv::platform::ServiceReply;

using Deadline = std::chrono::steady_clock::time_point;

Deadline deadline_in(unsigned int timeout_ms) {
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
}

uintptr_t handle_key(qmi_client_type handle) {
  return reinterpret_cast<uintptr_t>(handle);
}

qmi_client_type add_handle(BusState& bus, Client client) {
  const uintptr_t key = ++bus.last_handle;
  client.handle = reinterpret_cast<qmi_client_type>(key);
  bus.handles.emplace(key, std::make_shared<Client>(std::move(client)));
  return reinterpret_cast<qmi_client_type>(key);
}

// A client that is being released stays known to its own callback, until that has returned.
bool is_known(const BusState& bus, const Client& client) {
  return !client.released ||
         (bus.in_callback == &client && bus.callback_thread == std::this_thread::get_id());
}

// The open client of the handle; null for a stale one and for a notifier.
std::shared_ptr<Client> find_client(const BusState& bus, qmi_client_type handle) {
  const auto entry = bus.handles.find(handle_key(handle));
  if (entry == bus.handles.end() || entry->second->publication == nullptr ||
      !is_known(bus, *entry->second)) {
    return nullptr;
  }
  return entry->second;
}

std::shared_ptr<Publication> find_publication(const BusState& bus, uint32_t service_id) {
  const auto entry = bus.services.find(service_id);
  return entry == bus.services.end() ? nullptr : entry->second;
}

qmi_client_type open_client(BusState& bus, qmi_idl_service_object_type service,
                            std::shared_ptr<Publication> publication, qmi_client_ind_cb ind_cb,
                            void* ind_cb_data, qmi_client_os_params* os_params) {
  if (os_params != nullptr) {
    os_params->seen_arrivals = bus.arrivals;
  }
  Client client;
  client.idl = service;
  client.publication = std::move(publication);
  client.ind_cb = ind_cb;
  client.ind_cb_data = ind_cb_data;
  return add_handle(bus, std::move(client));
}

// The message whose C structure the caller's buffer is, or null when it cannot be.
const qmi_idl_message* message_of_buffer(const Client& client, qmi_idl_message_type type,
                                         unsigned int msg_id, const void* c_struct,
                                         unsigned int c_struct_len) {
  if (msg_id > UINT16_MAX || (c_struct == nullptr && c_struct_len != 0)) {
    return nullptr;
  }
  const qmi_idl_message* const message =
      kiv::platform::find_message(*client.idl, type, static_cast<uint16_t>(msg_id));
  return message != nullptr && message->c_struct_len == c_struct_len ? message : nullptr;
}

std::span<const uint8_t> bytes_of(const void* data, size_t length) {
  return {static_cast<const uint8_t*>(data), length};
}

std::span<uint8_t> bytes_of(void* data, size_t length) {
  return {static_cast<uint8_t*>(data), length};
}

// How long a request that nobody answers stays out beyond its timeout: a watchdog of the sender
// that is as long as the timeout comes first, every time.
constexpr std::chrono::milliseconds kLateness(50);

// No response will come: the request ends with its timeout, its service or its client.
qmi_client_error_type wait_in_silence(const Client& client, Deadline deadline) {
  BusState& bus = bus_state();
  std::unique_lock lock(bus.mutex);
  const bool lost = bus.changed.wait_until(
      lock, deadline + kLateness, [&client] { return client.released || !client.publication->up; });
  return lost ? QMI_SERVICE_ERR : QMI_TIMEOUT_ERR;
}

}  // namespace

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service,
                                               qmi_client_os_params* os_params,
                                               qmi_client_type* notifier) {
  if (service == nullptr || os_params == nullptr || notifier == nullptr) {
    return QMI_CLIENT_PARAM_ERR;
  }
  kiv::platform::ensure_modem_published();
  BusState& bus = bus_state();
  const std::lock_guard lock(bus.mutex);
  *notifier = open_client(bus, service, nullptr, nullptr, nullptr, os_params);
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_get_service_list(qmi_idl_service_object_type service,
                                                  qmi_service_info* services,
                                                  unsigned int* num_entries,
                                                  unsigned int* num_services) {
  if (service == nullptr || num_services == nullptr ||
      (services != nullptr && num_entries == nullptr)) {
    return QMI_CLIENT_PARAM_ERR;
  }
  kiv::platform::ensure_modem_published();
  BusState& bus = bus_state();
  const std::lock_guard lock(bus.mutex);
  *num_services = find_publication(bus, service->service_id) != nullptr ? 1 : 0;
  if (services != nullptr) {
    *num_entries = std::min(*num_entries, *num_services);
    if (*num_entries != 0) {
      *services = {.service_id = service->service_id, .instance_id = kServiceInstance};
    }
  }
  return *num_services != 0 ? QMI_NO_ERR : QMI_SERVICE_ERR;
}

void qmi_cci_os_signal_wait(qmi_cci_os_signal_type* signal, unsigned int timeout_ms) {
  if (signal == nullptr) {
    return;
  }
  BusState& bus = bus_state();
  const Deadline deadline = deadline_in(timeout_ms);
  std::unique_lock lock(bus.mutex);
  bus.changed.wait_until(lock, deadline,
                         [&bus, signal] { return bus.arrivals != signal->seen_arrivals; });
  signal->seen_arrivals = bus.arrivals;
}

qmi_client_error_type qmi_client_init(const qmi_service_info* info,
                                      qmi_idl_service_object_type service, qmi_client_ind_cb ind_cb,
                                      void* ind_cb_data, qmi_client_os_params* os_params,
                                      qmi_client_type* client) {
  if (info == nullptr || service == nullptr || client == nullptr) {
    return QMI_CLIENT_PARAM_ERR;
  }
  kiv::platform::ensure_modem_published();
  BusState& bus = bus_state();
  const std::lock_guard lock(bus.mutex);
  auto publication = find_publication(bus, service->service_id);
  if (publication == nullptr || info->service_id != service->service_id ||
      info->instance_id != kServiceInstance) {
    return QMI_SERVICE_ERR;
  }
  *client = open_client(bus, service, std::move(publication), ind_cb, ind_cb_data, os_params);
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service,
                                               uint32_t instance_id, qmi_client_ind_cb ind_cb,
                                               void* ind_cb_data, qmi_client_os_params* os_params,
                                               uint32_t timeout_ms, qmi_client_type* client) {
  if (service == nullptr || client == nullptr) {
    return QMI_CLIENT_PARAM_ERR;
  }
  kiv::platform::ensure_modem_published();
  BusState& bus = bus_state();
  const Deadline deadline = deadline_in(timeout_ms);
  std::shared_ptr<Publication> publication;
  std::unique_lock lock(bus.mutex);
  const bool found = bus.changed.wait_until(lock, deadline, [&] {
    publication = find_publication(bus, service->service_id);
    return publication != nullptr &&
           (instance_id == QMI_CLIENT_INSTANCE_ANY || instance_id == kServiceInstance);
  });
  if (!found) {
    return QMI_TIMEOUT_ERR;
  }
  *client = open_client(bus, service, std::move(publication), ind_cb, ind_cb_data, os_params);
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type client,
                                                   qmi_client_error_cb error_cb,
                                                   void* error_cb_data) {
  BusState& bus = bus_state();
  const std::lock_guard lock(bus.mutex);
  const auto entry = find_client(bus, client);
  if (entry == nullptr) {
    return QMI_CLIENT_PARAM_ERR;
  }
  entry->error_cb = error_cb;
  entry->error_cb_data = error_cb_data;
  kiv::platform::queue_service_loss(bus, entry);
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type client, unsigned int msg_id,
                                               const void* request, unsigned int request_len,
                                               void* response, unsigned int response_len,
                                               unsigned int timeout_ms) {
  const Deadline deadline = deadline_in(timeout_ms);
  BusState& bus = bus_state();
  std::unique_lock lock(bus.mutex);
  const auto entry = find_client(bus, client);
  const bool up = entry != nullptr && entry->publication->up;
  lock.unlock();
  if (entry == nullptr) {
    return QMI_CLIENT_PARAM_ERR;
  }
  const qmi_idl_message* const request_message =
      message_of_buffer(*entry, QMI_IDL_REQUEST, msg_id, request, request_len);
  const qmi_idl_message* const response_message =
      message_of_buffer(*entry, QMI_IDL_RESPONSE, msg_id, response, response_len);
  if (request_message == nullptr || response_message == nullptr) {
    return QMI_CLIENT_PARAM_ERR;
  }
  if (!up) {
    return QMI_SERVICE_ERR;
  }
  const auto encoded =
      kiv::platform::encode_message(*request_message, bytes_of(request, request_len));
  if (!encoded) {
    return QMI_INTERNAL_ERR;
  }
  const ServiceReply reply = entry->publication->service(request_message->id, *encoded);
  switch (reply.kind) {
    case ServiceReply::Kind::kSilence:
      return wait_in_silence(*entry, deadline);
    case ServiceReply::Kind::kError:
      return reply.error != QMI_NO_ERR ? reply.error : QMI_INTERNAL_ERR;
    case ServiceReply::Kind::kResponse:
      break;
  }
  return kiv::platform::decode_message(*response_message, reply.bytes,
                                       bytes_of(response, response_len))
             ? QMI_NO_ERR
             : QMI_INTERNAL_ERR;
}

qmi_client_error_type qmi_client_message_decode(qmi_client_type client, qmi_idl_message_type type,
                                                unsigned int msg_id, const void* buf,
                                                unsigned int buf_len, void* c_struct,
                                                unsigned int c_struct_len) {
  BusState& bus = bus_state();
  std::unique_lock lock(bus.mutex);
  const auto entry = find_client(bus, client);
  lock.unlock();
  if (entry == nullptr || (buf == nullptr && buf_len != 0)) {
    return QMI_CLIENT_PARAM_ERR;
  }
  const qmi_idl_message* const message =
      message_of_buffer(*entry, type, msg_id, c_struct, c_struct_len);
  if (message == nullptr) {
    return QMI_CLIENT_PARAM_ERR;
  }
  return kiv::platform::decode_message(*message, bytes_of(buf, buf_len),
                                       bytes_of(c_struct, c_struct_len))
             ? QMI_NO_ERR
             : QMI_INTERNAL_ERR;
}

qmi_client_error_type qmi_client_release(qmi_client_type client) {
  BusState& bus = bus_state();
  std::unique_lock lock(bus.mutex);
  const auto entry = bus.handles.find(handle_key(client));
  if (entry == bus.handles.end() || entry->second->released) {
    return QMI_CLIENT_PARAM_ERR;
  }
  const std::shared_ptr<Client> released = entry->second;
  released->released = true;
  bus.changed.notify_all();
  kiv::platform::wait_for_callback(bus, lock, released.get());
  // A callback that releases its own client is followed by the framework's thread, which does this.
  if (!is_known(bus, *released)) {
    bus.handles.erase(handle_key(client));
  }
  return QMI_NO_ERR;
}
