// What the service bus and the QMI client framework share: the published services, the open
// handles and the queue of the framework's callback thread. Private to platform/qmi. Everything
// here is guarded by BusState::mutex unless it is marked constant; the state is never destroyed,
// because the callback thread may still use it while the process exits.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/qmi/service_bus.h"
#include "qmi_client.h"

namespace kiv::platform {

// The only instance that a service has on the bus.
inline constexpr uint32_t kServiceInstance = 1;

// One stay of a service on the bus. A service that comes back is a new publication, so that the
// clients of the earlier one stay dead.
struct Publication {
  const Service service;
  bool up = true;
};

// What a handle stands for: a client, or a notifier when there is no publication.
struct Client {
  qmi_client_type handle = nullptr;           // constant once it is in the table
  qmi_idl_service_object_type idl = nullptr;  // constant
  std::shared_ptr<Publication> publication;   // constant
  qmi_client_ind_cb ind_cb = nullptr;         // constant
  void* ind_cb_data = nullptr;                // constant
  qmi_client_error_cb error_cb = nullptr;
  void* error_cb_data = nullptr;
  bool loss_reported = false;
  bool released = false;
};

// One call that the callback thread has to make: an indication or the loss of the service.
struct Delivery {
  enum class Kind : uint8_t { kIndication, kServiceLoss };
  std::shared_ptr<Client> client;
  Kind kind = Kind::kIndication;
  uint16_t msg_id = 0;
  std::vector<uint8_t> bytes;
};

struct BusState {
  enum class Modem : uint8_t { kUnpublished, kPublishing, kPublished };

  std::mutex mutex;
  std::condition_variable changed;  // any change below

  std::map<uint32_t, std::shared_ptr<Publication>> services;
  uint64_t arrivals = 0;  // publications so far
  Modem modem = Modem::kUnpublished;
  std::thread::id modem_publisher;

  std::map<uintptr_t, std::shared_ptr<Client>> handles;
  uintptr_t last_handle = 0;  // never reused, so that a stale handle stays unknown

  std::deque<Delivery> deliveries;
  bool callback_thread_started = false;
  std::thread::id callback_thread;
  const Client* in_callback = nullptr;
};

BusState& bus_state();

// Has the modem publish its services unless it has done so. Takes and drops the bus mutex.
void ensure_modem_published();

// Queues the error callback of a client whose service is down, once. Call with the mutex held.
void queue_service_loss(BusState& bus, const std::shared_ptr<Client>& client);

// Waits until no callback of `client` (null: of any client) is running; a callback does not wait
// for itself.
void wait_for_callback(BusState& bus, std::unique_lock<std::mutex>& lock, const Client* client);

}  // namespace kiv::platform
