#include "platform/modem/modem.h"

#include <array>
#include <span>

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
  uint32_t id = 0;
  Service (*make)(const ModemConf& conf) = nullptr;
  // With the fault `silent` this service still answers requests and leaves out its indications.
  bool answers_in_silence = false;
};

constexpr std::array<ModemService, 6> kModemServices{{
    {kExtensionServiceId, make_extension_service},
    {kSarServiceId, make_sar_service},
    {kUimServiceId, make_uim_service},
    {kNasServiceId, make_nas_service},
    {kPdcServiceId, make_pdc_service, true},
    {kVsServiceId, make_vs_service},
}};

// The configuration that the modem came up with: a restart keeps it. Written before the services
// are up that read it; never destroyed, because a restart may come from any thread.
ModemConf& current_conf() {
  static ModemConf& conf = *new ModemConf;
  return conf;
}

// The bus shows a service that is up: itself, or nothing but its fault.
void publish_all(const ModemConf& conf) {
  for (const ModemService& row : kModemServices) {
    const ServiceFault fault = conf.fault_of(row.id);
    if (fault.kind == ServiceFault::Kind::kError) {
      publish_service(row.id, [code = fault.code](uint16_t, std::span<const uint8_t>) {
        return ServiceReply::transport_error(code);
      });
    } else if (fault.kind == ServiceFault::Kind::kSilent && !row.answers_in_silence) {
      publish_service(row.id,
                      [](uint16_t, std::span<const uint8_t>) { return ServiceReply::silence(); });
    } else if (fault.kind != ServiceFault::Kind::kDown) {
      publish_service(row.id, row.make(conf));
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
    withdraw_service(row.id);
  }
  publish_all(current_conf());
}

}  // namespace kiv::platform
