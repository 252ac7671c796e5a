#include "platform/modem/nas_service.h"

#include <algorithm>
#include <array>

#include "nas_idl.h"
#include "platform/modem/struct_message.h"
#include "qmi_client.h"

namespace kiv::platform {
namespace {

template <class Request, class Response>
ServiceReply answer_scan(const nas_result_v01& result, std::span<const uint8_t> encoded) {
  Request request{};
  if (!read_struct(encoded, request)) {
    return ServiceReply::transport_error(QMI_INTERNAL_ERR);
  }
  Response response{};
  response.resp = result;
  return reply_with(response);
}

struct ScanRow {
  uint16_t msg_id;
  ServiceReply (*answer)(const nas_result_v01& result, std::span<const uint8_t> encoded);
};

constexpr std::array<ScanRow, 2> kScans{{
    {QMI_NAS_PERFORM_NETWORK_SCAN_REQ_MSG_V01,
     answer_scan<nas_perform_network_scan_req_msg_v01, nas_perform_network_scan_resp_msg_v01>},
    {QMI_NAS_PERFORM_INCREMENTAL_NETWORK_SCAN_REQ_MSG_V01,
     answer_scan<nas_perform_incremental_network_scan_req_msg_v01,
                 nas_perform_incremental_network_scan_resp_msg_v01>},
}};

constexpr std::array<qmi_idl_message, 2> kRequests{{
    struct_message<nas_perform_network_scan_req_msg_v01>(QMI_NAS_PERFORM_NETWORK_SCAN_REQ_MSG_V01),
    struct_message<nas_perform_incremental_network_scan_req_msg_v01>(
        QMI_NAS_PERFORM_INCREMENTAL_NETWORK_SCAN_REQ_MSG_V01),
}};
constexpr std::array<qmi_idl_message, 2> kResponses{{
    struct_message<nas_perform_network_scan_resp_msg_v01>(QMI_NAS_PERFORM_NETWORK_SCAN_REQ_MSG_V01),
    struct_message<nas_perform_incremental_network_scan_resp_msg_v01>(
        QMI_NAS_PERFORM_INCREMENTAL_NETWORK_SCAN_REQ_MSG_V01),
}};
constexpr qmi_idl_service_object kServiceObject{
    .library_version = 6,
    .idl_version = 1,
    .service_id = kNasServiceId,
    .idl_minor_version = 0x199,
    .max_message_len = sizeof(nas_perform_network_scan_resp_msg_v01),
    .requests = kRequests,
    .responses = kResponses,
    .indications = {},
};

}  // namespace

Service make_nas_service(const ModemConf& conf) {
  const nas_result_v01 result{.result = conf.fault_of(kNasServiceId).code, .error = 0};
  return [result](uint16_t msg_id, std::span<const uint8_t> request) {
    const auto row = std::find_if(kScans.begin(), kScans.end(),
                                  [msg_id](const ScanRow& scan) { return scan.msg_id == msg_id; });
    return row != kScans.end() ? row->answer(result, request)
                               : ServiceReply::transport_error(QMI_INTERNAL_ERR);
  };
}

}  // namespace kiv::platform

qmi_idl_service_object_type nas_get_service_object_internal_v01(uint32_t idl_major_version,
                                                                uint32_t idl_minor_version,
                                                                uint32_t library_version) {
  return kiv::platform::object_of_version(kiv::platform::kServiceObject, idl_major_version,
                                          idl_minor_version, library_version);
}
