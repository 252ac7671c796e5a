#include "platform/diag/diag_library.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace {

using kiv::platform::DiagAnswer;
using kiv::platform::DiagFaults;
using kiv::platform::DiagModem;
using kiv::platform::DiagProcessor;
using Clock = std::chrono::steady_clock;

constexpr int kPrimaryProcessor = 0;
constexpr int kPrimaryChannel = 0;
constexpr int kFailure = -1;
constexpr int kNoClient = 0;  // client ids start at 1

struct Receiver {
  diag_response_callback callback = nullptr;
  void* context = nullptr;
};

// Where the response of a DCI command goes. The buffer belongs to the caller.
struct DciReceiver {
  diag_dci_response_callback callback = nullptr;
  void* context = nullptr;
  std::span<unsigned char> buffer;
};

// One call that the callback thread has to make.
struct Delivery {
  std::vector<uint8_t> bytes;
  DiagAnswer::Stream stream = DiagAnswer::Stream::kResponse;
  int processor = kPrimaryProcessor;
  int client_id = kNoClient;  // none: in callback mode
  DciReceiver dci;
};

// The library from the first open to the last close. What comes later is another connection.
struct Connection {
  int uses = 1;
  bool open = true;
  pthread_t thread{};
  int mode = DIAG_USB_MODE;
  std::map<int, Receiver> receivers;  // by processor
  std::multimap<Clock::time_point, Delivery> deliveries;
};

struct DciClient {
  std::shared_ptr<Connection> connection;
  diag_dci_stream_callback log = nullptr;
  diag_dci_stream_callback event = nullptr;
};

// Never destroyed, because the callback thread may still use it while the process exits.
struct DiagState {
  std::mutex mutex;                 // guards everything here and in the connections
  std::condition_variable changed;  // any change below
  std::optional<DiagModem> modem;
  std::shared_ptr<Connection> connection;
  std::map<int, DciClient> clients;
  int last_client_id = kNoClient;

  // The callback that is running, for a client or for none.
  bool in_callback = false;
  int called_client = kNoClient;
  std::thread::id calling_thread;
};

DiagState& diag_state() {
  static DiagState& state = *new DiagState;
  return state;
}

int fail(int error, int result = kFailure) {
  errno = error;
  return result;
}

// The call that the delivery stands for, none when its receiver is gone. With the mutex held.
std::function<void()> call_of(const DiagState& diag, const Connection& connection,
                              Delivery& delivery) {
  std::vector<uint8_t>& bytes = delivery.bytes;
  const int length = static_cast<int>(bytes.size());
  if (delivery.client_id == kNoClient) {
    const auto entry = connection.receivers.find(delivery.processor);
    if (entry == connection.receivers.end() || entry->second.callback == nullptr) {
      return nullptr;
    }
    return [receiver = entry->second, &bytes, length] {
      receiver.callback(bytes.data(), length, receiver.context);
    };
  }
  const auto entry = diag.clients.find(delivery.client_id);
  if (entry == diag.clients.end()) {
    return nullptr;
  }
  if (delivery.stream == DiagAnswer::Stream::kResponse) {
    return [&dci = delivery.dci, &bytes, length] {
      std::copy(bytes.begin(), bytes.end(), dci.buffer.begin());
      dci.callback(dci.buffer.data(), length, dci.context);
    };
  }
  const diag_dci_stream_callback callback =
      delivery.stream == DiagAnswer::Stream::kDciLog ? entry->second.log : entry->second.event;
  if (callback == nullptr) {
    return nullptr;
  }
  return [callback, &bytes, length] { callback(bytes.data(), length); };
}

void deliver_next(DiagState& diag, Connection& connection, std::unique_lock<std::mutex>& lock) {
  const auto next = connection.deliveries.begin();
  Delivery delivery = std::move(next->second);
  connection.deliveries.erase(next);
  const auto call = call_of(diag, connection, delivery);
  if (call == nullptr) {
    return;
  }
  diag.in_callback = true;
  diag.called_client = delivery.client_id;
  diag.calling_thread = std::this_thread::get_id();
  lock.unlock();
  call();
  lock.lock();
  diag.in_callback = false;
  diag.calling_thread = {};
  diag.changed.notify_all();
}

// A connection that was closed from within its own callback may still be at that callback when the
// next one is open already: callbacks run one at a time all the same.
void deliver_until_closed(DiagState& diag, Connection& connection) {
  std::unique_lock lock(diag.mutex);
  while (connection.open) {
    if (connection.deliveries.empty() || diag.in_callback) {
      diag.changed.wait(lock);
    } else if (const auto due = connection.deliveries.begin()->first; due > Clock::now()) {
      diag.changed.wait_until(lock, due);
    } else {
      deliver_next(diag, connection, lock);
    }
  }
}

void* run_callback_thread(void* argument) {
  const std::unique_ptr<std::shared_ptr<Connection>> connection(
      static_cast<std::shared_ptr<Connection>*>(argument));
  deliver_until_closed(diag_state(), **connection);
  return nullptr;
}

// A connection with its callback thread, null when the thread cannot start. With the mutex held.
std::shared_ptr<Connection> open_connection() {
  auto connection = std::make_shared<Connection>();
  auto of_thread = std::make_unique<std::shared_ptr<Connection>>(connection);
  if (pthread_create(&connection->thread, nullptr, run_callback_thread, of_thread.get()) != 0) {
    return nullptr;
  }
  (void)of_thread.release();  // the thread's own now
  return connection;
}

// Ends the connection, if one is open, and its thread with it. Receivers and deliveries go with it.
void close_connection(DiagState& diag, std::unique_lock<std::mutex>& lock) {
  const auto closed = std::exchange(diag.connection, nullptr);
  if (closed == nullptr) {
    return;
  }
  closed->open = false;
  diag.changed.notify_all();
  lock.unlock();
  if (pthread_equal(pthread_self(), closed->thread) != 0) {
    pthread_detach(closed->thread);
  } else {
    pthread_join(closed->thread, nullptr);
  }
  lock.lock();
}

// What makes this call fail: no connection (`result` -1, ENOTCONN) or the modem (EIO). 0 for
// nothing. With the mutex held.
int failure_of(const DiagState& diag, int DiagFaults::*fault) {
  if (diag.connection == nullptr) {
    return fail(ENOTCONN);
  }
  const int result = diag.modem ? diag.modem->faults.*fault : 0;
  return result != 0 ? fail(EIO, result) : 0;
}

// Null unless the client's connection is open.
DciClient* find_client(DiagState& diag, int client_id) {
  const auto entry = diag.clients.find(client_id);
  const bool found = entry != diag.clients.end() && entry->second.connection->open;
  return found ? &entry->second : nullptr;
}

void queue_answer(Connection& connection, DiagAnswer&& answer, const Delivery& receiver) {
  const Clock::time_point due = Clock::now() + answer.delay;
  Delivery delivery = receiver;
  delivery.stream = answer.stream;
  delivery.processor = answer.processor;
  if (receiver.client_id == kNoClient || answer.stream != DiagAnswer::Stream::kResponse) {
    delivery.bytes = std::move(answer.bytes);
    connection.deliveries.emplace(due, std::move(delivery));
    return;
  }
  const size_t piece_max = std::min<size_t>(DIAG_DCI_PIECE_MAX, receiver.dci.buffer.size());
  std::span<const uint8_t> rest(answer.bytes);
  do {
    const auto piece = rest.first(std::min(rest.size(), piece_max));
    delivery.bytes.assign(piece.begin(), piece.end());
    connection.deliveries.emplace(due, delivery);
    rest = rest.subspan(piece.size());
  } while (!rest.empty());
}

// Has the modem answer the command, to the receiver that the prototype names; drops the mutex.
void run_command(DiagState& diag, std::unique_lock<std::mutex>& lock,
                 std::span<const uint8_t> command, const Delivery& receiver) {
  const std::shared_ptr<Connection> connection = diag.connection;
  const DiagProcessor processor = diag.modem ? diag.modem->processor : nullptr;
  if (processor == nullptr) {
    return;
  }
  lock.unlock();
  std::vector<DiagAnswer> answers = processor(command);
  lock.lock();
  if (!connection->open) {
    return;
  }
  for (DiagAnswer& answer : answers) {
    queue_answer(*connection, std::move(answer), receiver);
  }
  diag.changed.notify_all();
}

void register_receiver(int processor, Receiver receiver) {
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  if (diag.connection != nullptr) {
    diag.connection->receivers[processor] = receiver;
  }
}

// The modem behind the connection; made outside the mutex, because it reads a file.
void ensure_modem(DiagState& diag, std::unique_lock<std::mutex>& lock) {
  if (diag.modem) {
    return;
  }
  lock.unlock();
  DiagModem modem = kiv::platform::make_diag_modem();
  lock.lock();
  if (!diag.modem) {
    diag.modem = std::move(modem);
  }
}

}  // namespace

void kiv::platform::set_diag_modem(DiagModem modem) {
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  diag.modem = std::move(modem);
}

void kiv::platform::reset_diag_library() {
  DiagState& diag = diag_state();
  std::unique_lock lock(diag.mutex);
  close_connection(diag, lock);
  diag.clients.clear();
  diag.modem.reset();
}

bool Diag_LSM_Init(unsigned char*) {
  DiagState& diag = diag_state();
  std::unique_lock lock(diag.mutex);
  ensure_modem(diag, lock);
  if (diag.modem->faults.init) {
    errno = EIO;
    return false;
  }
  if (diag.connection != nullptr) {
    ++diag.connection->uses;
  } else {
    diag.connection = open_connection();
  }
  return diag.connection != nullptr;
}

bool Diag_LSM_DeInit() {
  DiagState& diag = diag_state();
  std::unique_lock lock(diag.mutex);
  if (diag.connection == nullptr) {
    return false;
  }
  if (--diag.connection->uses == 0) {
    close_connection(diag, lock);
  }
  return true;
}

void diag_switch_logging(int mode, char*) {
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  if (diag.connection != nullptr) {
    diag.connection->mode = mode;
  }
}

void diag_register_callback(diag_response_callback callback, void* context) {
  register_receiver(kPrimaryProcessor, {.callback = callback, .context = context});
}

int diag_has_remote_device(uint16_t* remote_mask) {
  if (remote_mask == nullptr) {
    return fail(EINVAL, 0);
  }
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  *remote_mask = diag.connection != nullptr && diag.modem ? diag.modem->remote_mask : uint16_t{0};
  return *remote_mask != 0 ? 1 : 0;
}

void diag_register_remote_callback(diag_response_callback callback, int processor, void* context) {
  if (processor > kPrimaryProcessor) {
    register_receiver(processor, {.callback = callback, .context = context});
  }
}

int diag_callback_send_data(int processor, unsigned char* data, int len) {
  if (processor != kPrimaryProcessor || data == nullptr || len < 1) {
    return fail(EINVAL);
  }
  DiagState& diag = diag_state();
  std::unique_lock lock(diag.mutex);
  const int failure = failure_of(diag, &DiagFaults::callback_send);
  if (failure != 0) {
    return failure;
  }
  // In any other mode the answer goes elsewhere.
  if (diag.connection->mode == DIAG_CALLBACK_MODE) {
    run_command(diag, lock, {data, static_cast<size_t>(len)}, Delivery{});
  }
  return 0;
}

// NOLINTNEXTLINE(readability-non-const-parameter): a library may store what it granted
int diag_register_dci_client(int* client_id, uint16_t* list, int channel, void* signal_type) {
  if (client_id == nullptr || list == nullptr || channel != kPrimaryChannel ||
      signal_type == nullptr) {
    return fail(EINVAL);
  }
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  const int failure = failure_of(diag, &DiagFaults::register_dci_client);
  if (failure != 0) {
    return failure;
  }
  *client_id = ++diag.last_client_id;
  diag.clients[*client_id].connection = diag.connection;
  return DIAG_DCI_NO_ERROR;
}

// The signal is never raised: nobody waits for it, and its default action ends the process.
int diag_register_dci_signal_data(int client_id, int signal) {
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  if (find_client(diag, client_id) == nullptr || signal < 1) {
    return fail(EINVAL);
  }
  const int failure = failure_of(diag, &DiagFaults::register_dci_signal);
  return failure != 0 ? failure : DIAG_DCI_NO_ERROR;
}

int diag_get_dci_support_list_proc(int channel, uint16_t* list) {
  if (channel != kPrimaryChannel || list == nullptr) {
    return fail(EINVAL);
  }
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  const int failure = failure_of(diag, &DiagFaults::dci_support_list);
  if (failure != 0) {
    return failure;
  }
  *list = diag.modem ? diag.modem->dci_support : uint16_t{0};
  return DIAG_DCI_NO_ERROR;
}

int diag_register_dci_stream_proc(int client_id, diag_dci_stream_callback log,
                                  diag_dci_stream_callback event) {
  DiagState& diag = diag_state();
  const std::lock_guard lock(diag.mutex);
  DciClient* const client = find_client(diag, client_id);
  if (client == nullptr || log == nullptr || event == nullptr) {
    return fail(EINVAL);
  }
  const int failure = failure_of(diag, &DiagFaults::register_dci_stream);
  if (failure != 0) {
    return failure;
  }
  client->log = log;
  client->event = event;
  return DIAG_DCI_NO_ERROR;
}

int diag_send_dci_async_req(int client_id, unsigned char* command, int len, unsigned char* response,
                            int response_size, diag_dci_response_callback callback, void* context) {
  if (command == nullptr || len < 1 || response == nullptr || response_size < 1 ||
      callback == nullptr) {
    return fail(EINVAL);
  }
  DiagState& diag = diag_state();
  std::unique_lock lock(diag.mutex);
  if (find_client(diag, client_id) == nullptr) {
    return fail(EINVAL);
  }
  const int failure = failure_of(diag, &DiagFaults::dci_send);
  if (failure != 0) {
    return failure;
  }
  Delivery receiver;
  receiver.client_id = client_id;
  receiver.dci = {.callback = callback,
                  .context = context,
                  .buffer = {response, static_cast<size_t>(response_size)}};
  run_command(diag, lock, {command, static_cast<size_t>(len)}, receiver);
  return DIAG_DCI_NO_ERROR;
}

int diag_release_dci_client(int* client_id) {
  if (client_id == nullptr) {
    return fail(EINVAL);
  }
  DiagState& diag = diag_state();
  std::unique_lock lock(diag.mutex);
  // A client outlives its connection until it is released.
  if (diag.clients.erase(*client_id) == 0) {
    return fail(EINVAL);
  }
  if (diag.connection != nullptr) {
    std::erase_if(diag.connection->deliveries,
                  [client_id](const auto& entry) { return entry.second.client_id == *client_id; });
  }
  diag.changed.wait(lock, [&diag, client = *client_id] {
    return !diag.in_callback || diag.called_client != client ||
           diag.calling_thread == std::this_thread::get_id();
  });
  const int result = diag.modem ? diag.modem->faults.release_dci_client : 0;
  return result != 0 ? fail(EIO, result) : DIAG_DCI_NO_ERROR;
}
