#include "platform/modem/sar_service.h"

#include <tuple>

#include "platform/modem/service_messages.h"
#include "sar_idl.h"

namespace kiv::platform {
namespace {

constexpr const char* kDsiFile = "sar/dsi";

sar_result_v01 set_state(ServiceState&, const sar_rf_set_state_req_msg_v01& request,
                         sar_rf_set_state_resp_msg_v01&) {
  return {.result = write_stored_number(kDsiFile, request.sar_rf_state), .error = 0};
}

sar_result_v01 get_state(ServiceState& service, const NoBody&,
                         sar_rf_get_state_resp_msg_v01& response) {
  response.sar_rf_state_valid = 1;
  response.sar_rf_state = read_stored_number(kDsiFile, static_cast<uint32_t>(service.conf.sar_dsi));
  return kDone;
}

constexpr std::tuple kMessages{
    Message{QMI_SAR_RF_SET_STATE_REQ_V01, set_state},
    Message{QMI_SAR_RF_GET_STATE_REQ_V01, get_state},
};
constexpr qmi_idl_service_object kServiceObject = service_object<kMessages>(kSarServiceId, 0x0F);

}  // namespace

Service make_sar_service(const ModemConf& conf) {
  return make_service<kMessages>(kSarServiceId, conf);
}

}  // namespace kiv::platform

qmi_idl_service_object_type sar_get_service_object_internal_v01(uint32_t idl_major_version,
                                                                uint32_t idl_minor_version,
                                                                uint32_t library_version) {
  return kiv::platform::object_of_version(kiv::platform::kServiceObject, idl_major_version,
                                          idl_minor_version, library_version);
}
