#include "platform/modem/modem.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/modem/extension_service.h"
#include "platform/modem/modem_conf.h"
#include "platform/modem/nas_service.h"
#include "platform/modem/pdc_service.h"
#include "platform/modem/sar_service.h"
#include "platform/modem/uim_service.h"
#include "platform/modem/vs_service.h"
#include "platform/qmi/service_bus.h"

namespace kiv::platform {
namespace {

struct ModemService {
  std::string_view name;  // in modem.conf; its fault is `fault.<name>`
  uint32_t service_id = 0;
  Service (*make)(const ModemConf& conf) = nullptr;
  // With the fault `silent` this service still answers requests and leaves out its indications.
  bool answers_in_silence = false;
};

constexpr std::array<ModemService, 6> kModemServices{{
    {"extension", kExtensionServiceId, make_extension_service},
    {"sar", kSarServiceId, make_sar_service},
    {"uim", kUimServiceId, make_uim_service},
    {"nas", kNasServiceId, make_nas_service},
    {"pdc", kPdcServiceId, make_pdc_service, true},
    {"vs", kVsServiceId, make_vs_service},
}};

// What the bus shows of a service that is up: itself, or nothing but its fault.
Service with_fault(const ServiceFault& fault, const ModemService& row, Service service) {
  switch (fault.kind) {
    case ServiceFault::Kind::kSilent:
      if (row.answers_in_silence) {
        break;
      }
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

// The configuration that the modem came up with: a restart keeps it. Written before the services
// are up that read it; never destroyed, because a restart may come from any thread.
ModemConf& current_conf() {
  static ModemConf& conf = *new ModemConf;
  return conf;
}

void publish_all(const ModemConf& conf) {
  for (const ModemService& row : kModemServices) {
    const ServiceFault fault = conf.fault_of(row.service_id);
    if (fault.kind != ServiceFault::Kind::kDown) {
      publish_service(row.service_id, with_fault(fault, row, row.make(conf)));
    }
  }
}

}  // namespace

std::optional<uint32_t> service_id_of(std::string_view name) {
  const auto row = std::find_if(kModemServices.begin(), kModemServices.end(),
                                [name](const ModemService& entry) { return entry.name == name; });
  return row != kModemServices.end() ? std::optional(row->service_id) : std::nullopt;
}

void publish_modem_services() {
  current_conf() = load_modem_conf();
  publish_all(current_conf());
}

void restart_modem() {
  for (const ModemService& row : kModemServices) {
    withdraw_service(row.service_id);
  }
  publish_all(current_conf());
}

}  // namespace kiv::platform
