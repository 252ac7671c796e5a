// The simulated modem's own table of services. The bus calls in here once, before the first client
// looks for a service; nothing of the modem exists before.
#include <array>
#include <utility>

#include "platform/modem/extension_service.h"
#include "platform/modem/modem_conf.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {
namespace {

struct ModemService {
  uint32_t service_id;
  ServiceFault ModemConf::*fault;
  Service (*make)(const ModemConf& conf);
};

constexpr std::array<ModemService, 1> kModemServices{{
    {kExtensionServiceId, &ModemConf::extension_fault, make_extension_service},
}};

// What the bus shows of a service that is up: itself, or nothing but its fault.
Service with_fault(const ServiceFault& fault, Service service) {
  switch (fault.kind) {
    case ServiceFault::Kind::kSilent:
      return [](uint16_t, std::span<const uint8_t>) { return ServiceReply::silence(); };
    case ServiceFault::Kind::kError:
      return [code = fault.code](uint16_t, std::span<const uint8_t>) {
        return ServiceReply::transport_error(code);
      };
    case ServiceFault::Kind::kNone:
    case ServiceFault::Kind::kDown:
    case ServiceFault::Kind::kResult:
      break;
  }
  return service;
}

}  // namespace

void publish_modem_services() {
  const ModemConf conf = load_modem_conf();
  for (const ModemService& row : kModemServices) {
    const ServiceFault& fault = conf.*row.fault;
    if (fault.kind != ServiceFault::Kind::kDown) {
      publish_service(row.service_id, with_fault(fault, row.make(conf)));
    }
  }
}

}  // namespace kiv::platform
