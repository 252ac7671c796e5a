#include "platform/modem/modem.h"

#include <array>
#include <atomic>
#include <memory>
#include <span>

#include "platform/modem/extension_service.h"
#include "platform/modem/modem_conf.h"
#include "platform/modem/nas_service.h"
#include "platform/modem/pdc_service.h"
#include "platform/modem/sar_service.h"
#include "platform/modem/uim_service.h"
#include "platform/modem/vs_service.h"
#include "platform/qmi/service_bus.h"
#include "qmi_client.h"

namespace kiv::platform {
namespace {

struct ModemService {
  uint32_t id = 0;
  const char* name = nullptr;  // in modem.conf
  Service (*make)(const ModemConf& conf) = nullptr;
  // With the fault `silent` this service still answers requests and leaves out its indications.
  bool answers_in_silence = false;
};

constexpr std::array<ModemService, 6> kModemServices{{
    {kExtensionServiceId, "extension", make_extension_service},
    {kSarServiceId, "sar", make_sar_service},
    {kUimServiceId, "uim", make_uim_service},
    {kNasServiceId, "nas", make_nas_service},
    {kPdcServiceId, "pdc", make_pdc_service, true},
    {kVsServiceId, "vs", make_vs_service},
}};

// The configuration that the modem came up with: a restart keeps it. Written before the services
// are up that read it; never destroyed, because a restart may come from any thread.
ModemConf& current_conf() {
  static ModemConf& conf = *new ModemConf;
  return conf;
}

// A service with a fault from its first request on.
Service faulty_service(const ModemService& row, const ModemConf& conf) {
  const ServiceFault fault = conf.fault_of(row.id);
  switch (fault.kind) {
    case ServiceFault::Kind::kError:
      return [code = fault.code](uint16_t, std::span<const uint8_t>) {
        return ServiceReply::transport_error(code);
      };
    case ServiceFault::Kind::kDown:
      return [id = row.id](uint16_t, std::span<const uint8_t>) {
        withdraw_service(id);
        return ServiceReply::transport_error(QMI_SERVICE_ERR);
      };
    case ServiceFault::Kind::kSilent:
      if (!row.answers_in_silence) {
        return [](uint16_t, std::span<const uint8_t>) { return ServiceReply::silence(); };
      }
      [[fallthrough]];
    default:
      return row.make(conf);
  }
}

// A healthy service until the request that the fault begins with.
Service service_that_fails_later(const ModemService& row, const ModemConf& conf) {
  ModemConf healthy = conf;
  healthy.faults.erase(row.id);
  return
      [before = row.make(healthy), after = faulty_service(row, conf),
       requests = std::make_shared<std::atomic<int32_t>>(0),
       first = conf.fault_of(row.id).first_request](uint16_t id, std::span<const uint8_t> encoded) {
        return requests->fetch_add(1) + 1 < first ? before(id, encoded) : after(id, encoded);
      };
}

// The bus shows a service that is up: itself, or nothing but its fault.
void publish_all(const ModemConf& conf) {
  for (const ModemService& row : kModemServices) {
    const ServiceFault fault = conf.fault_of(row.id);
    if (fault.first_request > 1) {
      publish_service(row.id, service_that_fails_later(row, conf));
    } else if (fault.kind != ServiceFault::Kind::kDown) {
      publish_service(row.id, faulty_service(row, conf));
    }
  }
}

}  // namespace

void publish_modem_services() {
  ModemConf conf = load_modem_conf();
  for (const ModemService& row : kModemServices) {
    conf.faults[row.id] = fault_of_this_run(row.name, conf.fault_of(row.id));
  }
  current_conf() = conf;
  publish_all(current_conf());
}

void restart_modem() {
  for (const ModemService& row : kModemServices) {
    withdraw_service(row.id);
  }
  publish_all(current_conf());
}

}  // namespace kiv::platform
