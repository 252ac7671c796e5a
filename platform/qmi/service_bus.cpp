#include "platform/qmi/service_bus.h"

#include <pthread.h>

#include <utility>

#include "platform/qmi/bus_state.h"

namespace kiv::platform {
namespace {

void deliver_next(BusState& bus) {
  Delivery delivery;  // before the lock: what it holds is destroyed with the mutex free
  std::unique_lock lock(bus.mutex);
  bus.callback_thread = std::this_thread::get_id();
  bus.changed.wait(lock, [&bus] { return !bus.deliveries.empty(); });
  delivery = std::move(bus.deliveries.front());
  bus.deliveries.pop_front();
  const Client& client = *delivery.client;
  if (client.released) {
    return;
  }
  bus.in_callback = &client;
  const qmi_client_error_cb error_cb = client.error_cb;
  void* const error_cb_data = client.error_cb_data;
  lock.unlock();
  if (delivery.kind == Delivery::Kind::kIndication) {
    client.ind_cb(client.handle, delivery.msg_id, delivery.bytes.data(),
                  static_cast<unsigned int>(delivery.bytes.size()), client.ind_cb_data);
  } else if (error_cb != nullptr) {
    error_cb(client.handle, QMI_SERVICE_ERR, error_cb_data);
  }
  lock.lock();
  bus.in_callback = nullptr;
  if (client.released) {
    bus.handles.erase(reinterpret_cast<uintptr_t>(client.handle));
  }
  bus.changed.notify_all();
}

void* run_callback_thread(void*) {
  for (;;) {
    deliver_next(bus_state());
  }
}

// A failed start is tried again with the next delivery; what is queued waits for it.
void start_callback_thread(BusState& bus) {
  pthread_t thread{};
  if (pthread_create(&thread, nullptr, run_callback_thread, nullptr) == 0) {
    bus.callback_thread_started = true;
    pthread_detach(thread);
  }
}

void queue_delivery(BusState& bus, Delivery delivery) {
  bus.deliveries.push_back(std::move(delivery));
  if (!bus.callback_thread_started) {
    start_callback_thread(bus);
  }
  bus.changed.notify_all();
}

// Takes the service off the bus and returns its publication, which the caller drops after it has
// released the mutex: a service's destructor is free to use the bus.
std::shared_ptr<Publication> take_down(BusState& bus, uint32_t service_id) {
  const auto entry = bus.services.find(service_id);
  if (entry == bus.services.end()) {
    return nullptr;
  }
  std::shared_ptr<Publication> publication = std::move(entry->second);
  bus.services.erase(entry);
  publication->up = false;
  for (const auto& [handle, client] : bus.handles) {
    if (client->publication == publication) {
      queue_service_loss(bus, client);
    }
  }
  bus.changed.notify_all();
  return publication;
}

}  // namespace

ServiceReply ServiceReply::response(std::vector<uint8_t> bytes) {
  return {.kind = Kind::kResponse, .error = 0, .bytes = std::move(bytes)};
}

ServiceReply ServiceReply::transport_error(int error) {
  return {.kind = Kind::kError, .error = error, .bytes = {}};
}

ServiceReply ServiceReply::silence() {
  return {.kind = Kind::kSilence, .error = 0, .bytes = {}};
}

BusState& bus_state() {
  static BusState& state = *new BusState;
  return state;
}

void ensure_modem_published() {
  BusState& bus = bus_state();
  std::unique_lock lock(bus.mutex);
  if (bus.modem == BusState::Modem::kPublishing &&
      bus.modem_publisher == std::this_thread::get_id()) {
    return;
  }
  bus.changed.wait(lock, [&bus] { return bus.modem != BusState::Modem::kPublishing; });
  if (bus.modem == BusState::Modem::kPublished) {
    return;
  }
  bus.modem = BusState::Modem::kPublishing;
  bus.modem_publisher = std::this_thread::get_id();
  lock.unlock();
  publish_modem_services();
  lock.lock();
  bus.modem = BusState::Modem::kPublished;
  bus.changed.notify_all();
}

void queue_service_loss(BusState& bus, const std::shared_ptr<Client>& client) {
  if (client->error_cb == nullptr || client->loss_reported || client->publication->up) {
    return;
  }
  client->loss_reported = true;
  queue_delivery(
      bus, {.client = client, .kind = Delivery::Kind::kServiceLoss, .msg_id = 0, .bytes = {}});
}

void wait_for_callback(BusState& bus, std::unique_lock<std::mutex>& lock, const Client* client) {
  if (bus.callback_thread == std::this_thread::get_id()) {
    return;
  }
  bus.changed.wait(lock, [&bus, client] {
    return bus.in_callback == nullptr || (client != nullptr && bus.in_callback != client);
  });
}

void publish_service(uint32_t service_id, Service service) {
  // The modem publishes its services when the first client comes. Were that after this call, the
  // modem's service would replace the caller's.
  ensure_modem_published();
  BusState& bus = bus_state();
  auto publication = std::make_shared<Publication>(Publication{.service = std::move(service)});
  std::shared_ptr<Publication> earlier;
  const std::lock_guard lock(bus.mutex);
  earlier = take_down(bus, service_id);
  bus.services[service_id] = std::move(publication);
  ++bus.arrivals;
  bus.changed.notify_all();
}

void withdraw_service(uint32_t service_id) {
  ensure_modem_published();
  BusState& bus = bus_state();
  std::shared_ptr<Publication> withdrawn;
  const std::lock_guard lock(bus.mutex);
  withdrawn = take_down(bus, service_id);
}

void send_indication(uint32_t service_id, uint16_t msg_id, const std::vector<uint8_t>& bytes) {
  BusState& bus = bus_state();
  const std::lock_guard lock(bus.mutex);
  const auto entry = bus.services.find(service_id);
  if (entry == bus.services.end()) {
    return;
  }
  for (const auto& [handle, client] : bus.handles) {
    if (client->publication == entry->second && client->ind_cb != nullptr) {
      queue_delivery(bus, {.client = client,
                           .kind = Delivery::Kind::kIndication,
                           .msg_id = msg_id,
                           .bytes = bytes});
    }
  }
}

size_t open_handle_count() {
  BusState& bus = bus_state();
  const std::lock_guard lock(bus.mutex);
  return bus.handles.size();
}

void reset_service_bus() {
  BusState& bus = bus_state();
  std::map<uint32_t, std::shared_ptr<Publication>> withdrawn;
  std::deque<Delivery> dropped;
  std::unique_lock lock(bus.mutex);
  bus.changed.wait(lock, [&bus] { return bus.modem != BusState::Modem::kPublishing; });
  withdrawn.swap(bus.services);
  for (const auto& [service_id, publication] : withdrawn) {
    publication->up = false;
  }
  for (const auto& [handle, client] : bus.handles) {
    client->loss_reported = true;
  }
  dropped.swap(bus.deliveries);
  bus.modem = BusState::Modem::kUnpublished;
  bus.changed.notify_all();
  wait_for_callback(bus, lock, nullptr);
}

}  // namespace kiv::platform
