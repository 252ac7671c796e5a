#include "platform/modem/nas_service.h"

#include <tuple>

#include "nas_idl.h"
#include "platform/modem/service_messages.h"

namespace kiv::platform {
namespace {

template <class Request, class Response>
nas_result_v01 find_nothing(ServiceState&, const Request&, Response&) {
  return kDone;
}

constexpr std::tuple kMessages{
    Message{
        QMI_NAS_PERFORM_NETWORK_SCAN_REQ_MSG_V01,
        find_nothing<nas_perform_network_scan_req_msg_v01, nas_perform_network_scan_resp_msg_v01>},
    Message{QMI_NAS_PERFORM_INCREMENTAL_NETWORK_SCAN_REQ_MSG_V01,
            find_nothing<nas_perform_incremental_network_scan_req_msg_v01,
                         nas_perform_incremental_network_scan_resp_msg_v01>},
};
constexpr qmi_idl_service_object kServiceObject = service_object<kMessages>(kNasServiceId, 0x199);

}  // namespace

Service make_nas_service(const ModemConf& conf) {
  return make_service<kMessages>(kNasServiceId, conf);
}

}  // namespace kiv::platform

qmi_idl_service_object_type nas_get_service_object_internal_v01(uint32_t idl_major_version,
                                                                uint32_t idl_minor_version,
                                                                uint32_t library_version) {
  return kiv::platform::object_of_version(kiv::platform::kServiceObject, idl_major_version,
                                          idl_minor_version, library_version);
}
