// The bus of the simulated modem: services are published here, and the QMI client framework
// (qmi_client.cpp) finds them here. A service is called on the sender's own thread, with no lock
// of the bus held, so it may call back into the bus; requests of several threads may reach it at
// once. Request bytes come from the product and are untrusted by a service; responses and
// indications are untrusted by the framework's codec.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace kiv::platform {

// What a service gives back: an encoded response, a transport error, or nothing at all.
struct ServiceReply {
  enum class Kind : uint8_t { kResponse, kError, kSilence };
  Kind kind = Kind::kResponse;
  int error = 0;
  std::vector<uint8_t> bytes;

  static ServiceReply response(std::vector<uint8_t> bytes);
  static ServiceReply transport_error(int error);
  static ServiceReply silence();
};

using Service = std::function<ServiceReply(uint16_t msg_id, std::span<const uint8_t> request)>;

// Makes `service` the (only) instance of `service_id`. An instance that was up before goes down
// first, as by withdraw_service. The modem's own services are published before `service`, so that
// `service` takes the place of the modem's own one even when no client has come yet.
void publish_service(uint32_t service_id, Service service);

// Takes the service down: requests that it left in silence end with QMI_SERVICE_ERR, every client's
// error callback gets QMI_SERVICE_ERR, and the clients that were open stay dead even when it is
// published again. A response that the service still gives reaches its sender, so that a service
// may take itself down while it answers.
void withdraw_service(uint32_t service_id);

// Queues an encoded indication to every client of the service; it is delivered on the framework's
// callback thread, which starts with the first delivery.
void send_indication(uint32_t service_id, uint16_t msg_id, const std::vector<uint8_t>& bytes);

// The number of open client and notifier handles.
size_t open_handle_count();

// Withdraws everything and lets the next client publish the modem's services anew. Deliveries that
// are queued are dropped, error callbacks included; one that is running has ended on return. The
// handles that are open stay open, their clients dead.
void reset_service_bus();

// Publishes the services of the modem. Called once, before the first client looks for a service or
// anyone else publishes or withdraws one; defined by whoever supplies the modem (platform/modem).
void publish_modem_services();

}  // namespace kiv::platform
