#include "platform/modem/modem.h"

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
  uint32_t service_id = 0;
  ServiceFault ModemConf::*fault = nullptr;
  Service (*make)(const ModemConf& conf) = nullptr;
  // With the fault `silent` this service still answers requests and leaves out its indications.
  bool answers_in_silence = false;
};

constexpr std::array<ModemService, 6> kModemServices{{
    {kExtensionServiceId, &ModemConf::extension_fault, make_extension_service},
    {kSarServiceId, &ModemConf::sar_fault, make_sar_service},
    {kUimServiceId, &ModemConf::uim_fault, make_uim_service},
    {kNasServiceId, &ModemConf::nas_fault, make_nas_service},
    {kPdcServiceId, &ModemConf::pdc_fault, make_pdc_service, true},
    {kVsServiceId, &ModemConf::vs_fault, make_vs_service},
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
    const ServiceFault& fault = conf.*row.fault;
    if (fault.kind != ServiceFault::Kind::kDown) {
      publish_service(row.service_id, with_fault(fault, row, row.make(conf)));
    }
  }
}

}  // namespace

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
