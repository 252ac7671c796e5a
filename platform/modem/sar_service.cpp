#include "platform/modem/sar_service.h"

#include <array>

#include "platform/modem/struct_message.h"
#include "qmi_client.h"
#include "sar_idl.h"

namespace kiv::platform {
namespace {

constexpr const char* kDsiFile = "sar/dsi";

ServiceReply set_state(const sar_result_v01& failure, std::span<const uint8_t> request) {
  sar_rf_set_state_req_msg_v01 asked{};
  if (!read_struct(request, asked)) {
    return ServiceReply::transport_error(QMI_INTERNAL_ERR);
  }
  sar_rf_set_state_resp_msg_v01 answer{.resp = failure};
  if (answer.resp.result == 0) {
    answer.resp.result = write_stored_number(kDsiFile, asked.sar_rf_state);
  }
  return reply_with(answer);
}

ServiceReply get_state(const sar_result_v01& failure, uint32_t initial) {
  sar_rf_get_state_resp_msg_v01 answer{};
  answer.resp = failure;
  if (failure.result == 0) {
    answer.sar_rf_state_valid = 1;
    answer.sar_rf_state = read_stored_number(kDsiFile, initial);
  }
  return reply_with(answer);
}

constexpr std::array<qmi_idl_message, 2> kRequests{{
    struct_message<sar_rf_set_state_req_msg_v01>(QMI_SAR_RF_SET_STATE_REQ_V01),
    {QMI_SAR_RF_GET_STATE_REQ_V01, 0, 0},
}};
constexpr std::array<qmi_idl_message, 2> kResponses{{
    struct_message<sar_rf_set_state_resp_msg_v01>(QMI_SAR_RF_SET_STATE_REQ_V01),
    struct_message<sar_rf_get_state_resp_msg_v01>(QMI_SAR_RF_GET_STATE_REQ_V01),
}};
constexpr qmi_idl_service_object kServiceObject{
    .library_version = 6,
    .idl_version = 1,
    .service_id = kSarServiceId,
    .idl_minor_version = 0x0F,
    .max_message_len = sizeof(sar_rf_get_state_resp_msg_v01),
    .requests = kRequests,
    .responses = kResponses,
    .indications = {},
};

}  // namespace

Service make_sar_service(const ModemConf& conf) {
  const sar_result_v01 failure{.result = conf.fault_of(kSarServiceId).code, .error = 0};
  return [failure, initial = static_cast<uint32_t>(conf.sar_dsi)](
             uint16_t msg_id, std::span<const uint8_t> request) {
    switch (msg_id) {
      case QMI_SAR_RF_SET_STATE_REQ_V01:
        return set_state(failure, request);
      case QMI_SAR_RF_GET_STATE_REQ_V01:
        return get_state(failure, initial);
      default:
        return ServiceReply::transport_error(QMI_INTERNAL_ERR);
    }
  };
}

}  // namespace kiv::platform

qmi_idl_service_object_type sar_get_service_object_internal_v01(uint32_t idl_major_version,
                                                                uint32_t idl_minor_version,
                                                                uint32_t library_version) {
  return kiv::platform::object_of_version(kiv::platform::kServiceObject, idl_major_version,
                                          idl_minor_version, library_version);
}
