#include "platform/modem/vs_service.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "platform/modem/stats_parameters.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "qmi_client.h"

namespace kiv::platform {
namespace {

constexpr uint16_t kSetFeatureMessage = 0x0003;
constexpr uint16_t kGetParametersMessage = 0x0207;
constexpr uint32_t kStatisticsFeature = 2;
constexpr size_t kEntriesMax = 10;

// Standard outcome of a response: both 0 on success.
struct Outcome {
  uint32_t result;
  uint32_t error;
};
constexpr Outcome kDone{0, 0};
constexpr Outcome kInvalidArgument{1, 48};

struct Entry {
  uint16_t sub;
  uint16_t second_half_word;
  uint32_t id;
  uint32_t value_len;
  std::array<uint8_t, kStatsValueMax> value;
};
static_assert(sizeof(Entry) == 712 && offsetof(Entry, value) == 12);

struct SetFeatureRequest {
  uint32_t feature;
  uint8_t status;
  uint8_t second_flag_valid;
  uint8_t second_flag;
};
static_assert(sizeof(SetFeatureRequest) == 8);

struct SetFeatureResponse {
  Outcome outcome;
};
static_assert(sizeof(SetFeatureResponse) == 8);

struct GetParametersRequest {
  uint16_t sub;
  uint16_t slot;
  uint32_t entry_count;
  std::array<Entry, kEntriesMax> entries;
};
static_assert(sizeof(GetParametersRequest) == 7128);

struct GetParametersResponse {
  Outcome outcome;
  uint8_t entries_valid;
  uint32_t entry_count;
  std::array<Entry, kEntriesMax> entries;
};
static_assert(sizeof(GetParametersResponse) == 7136);

constexpr qmi_idl_field single(uint8_t tlv, uint8_t width, size_t offset) {
  return {.tlv = tlv, .wire_width = width, .memory_width = width, .offset = offset};
}

constexpr qmi_idl_field outcome_field(size_t offset) {
  return {.tlv = 0x02,
          .wire_width = 4,
          .memory_width = 4,
          .shape = QMI_IDL_FIXED,
          .offset = offset,
          .max_count = 2};
}

constexpr std::array<qmi_idl_field, 4> kEntryFields{{
    single(0, 2, offsetof(Entry, sub)),
    single(0, 2, offsetof(Entry, second_half_word)),
    single(0, 4, offsetof(Entry, id)),
    {.wire_width = 1,
     .memory_width = 1,
     .shape = QMI_IDL_COUNTED,
     .offset = offsetof(Entry, value),
     .max_count = kStatsValueMax,
     .count_offset = offsetof(Entry, value_len),
     .count_wire_width = 2},
}};

constexpr qmi_idl_field entries_field(uint8_t tlv, size_t offset, size_t count_offset,
                                      size_t presence_offset) {
  return {.tlv = tlv,
          .shape = QMI_IDL_COUNTED,
          .offset = offset,
          .presence_offset = presence_offset,
          .max_count = kEntriesMax,
          .count_offset = count_offset,
          .count_wire_width = 1,
          .record = kEntryFields,
          .record_size = sizeof(Entry)};
}

constexpr std::array<qmi_idl_field, 3> kSetFeatureRequestFields{{
    single(0x01, 4, offsetof(SetFeatureRequest, feature)),
    single(0x02, 1, offsetof(SetFeatureRequest, status)),
    {.tlv = 0x10,
     .wire_width = 1,
     .memory_width = 1,
     .offset = offsetof(SetFeatureRequest, second_flag),
     .presence_offset = offsetof(SetFeatureRequest, second_flag_valid)},
}};
constexpr std::array<qmi_idl_field, 1> kSetFeatureResponseFields{{
    outcome_field(offsetof(SetFeatureResponse, outcome)),
}};
constexpr std::array<qmi_idl_field, 3> kGetParametersRequestFields{{
    single(0x01, 2, offsetof(GetParametersRequest, sub)),
    single(0x02, 2, offsetof(GetParametersRequest, slot)),
    entries_field(0x03, offsetof(GetParametersRequest, entries),
                  offsetof(GetParametersRequest, entry_count), QMI_IDL_MANDATORY),
}};
constexpr std::array<qmi_idl_field, 2> kGetParametersResponseFields{{
    outcome_field(offsetof(GetParametersResponse, outcome)),
    entries_field(0x10, offsetof(GetParametersResponse, entries),
                  offsetof(GetParametersResponse, entry_count),
                  offsetof(GetParametersResponse, entries_valid)),
}};

template <class Body>
constexpr qmi_idl_message message(uint16_t id, std::span<const qmi_idl_field> fields) {
  return {
      .id = id, .c_struct_len = sizeof(Body), .max_encoded_len = sizeof(Body), .fields = fields};
}

constexpr qmi_idl_message kSetFeatureRequest =
    message<SetFeatureRequest>(kSetFeatureMessage, kSetFeatureRequestFields);
constexpr qmi_idl_message kSetFeatureResponse =
    message<SetFeatureResponse>(kSetFeatureMessage, kSetFeatureResponseFields);
constexpr qmi_idl_message kGetParametersRequest =
    message<GetParametersRequest>(kGetParametersMessage, kGetParametersRequestFields);
constexpr qmi_idl_message kGetParametersResponse =
    message<GetParametersResponse>(kGetParametersMessage, kGetParametersResponseFields);

template <class Body>
bool decode_body(const qmi_idl_message& description, std::span<const uint8_t> encoded, Body& body) {
  return decode_message(description, encoded, {reinterpret_cast<uint8_t*>(&body), sizeof body});
}

template <class Body>
ServiceReply encode_body(const qmi_idl_message& description, const Body& body) {
  auto encoded =
      encode_message(description, {reinterpret_cast<const uint8_t*>(&body), sizeof body});
  return encoded ? ServiceReply::response(std::move(*encoded))
                 : ServiceReply::transport_error(QMI_INTERNAL_ERR);
}

Outcome configured_outcome(const ModemConf& conf) {
  return conf.fault_of(kVsServiceId).kind == ServiceFault::Kind::kResult
             ? Outcome{1, static_cast<uint32_t>(conf.fault_of(kVsServiceId).code)}
             : kDone;
}

ServiceReply set_feature(const ModemConf& conf, std::span<const uint8_t> encoded) {
  SetFeatureRequest request{};
  if (!decode_body(kSetFeatureRequest, encoded, request)) {
    return ServiceReply::transport_error(QMI_INTERNAL_ERR);
  }
  const SetFeatureResponse response{.outcome = configured_outcome(conf)};
  if (response.outcome.result == 0 && request.feature == kStatisticsFeature &&
      request.status != 0) {
    for (const VsIndication& indication : conf.vs_indications) {
      send_indication(kVsServiceId, indication.msg_id, indication.bytes);
    }
  }
  return encode_body(kSetFeatureResponse, response);
}

// A parameter that the modem does not have is left out of the list.
void answer_entries(const ModemConf& conf, const GetParametersRequest& request,
                    GetParametersResponse& response) {
  response.entries_valid = 1;
  for (const Entry& asked : std::span(request.entries).first(request.entry_count)) {
    const std::vector<uint8_t> value = read_stats_parameter(conf, request.sub, asked.id);
    if (!value.empty()) {
      Entry& entry = response.entries[response.entry_count++];
      entry.sub = request.sub;
      entry.second_half_word = asked.second_half_word;
      entry.id = asked.id;
      entry.value_len = static_cast<uint32_t>(value.size());
      std::copy(value.begin(), value.end(), entry.value.begin());
    }
  }
}

ServiceReply get_parameters(const ModemConf& conf, std::span<const uint8_t> encoded) {
  GetParametersRequest request{};
  if (!decode_body(kGetParametersRequest, encoded, request)) {
    return ServiceReply::transport_error(QMI_INTERNAL_ERR);
  }
  GetParametersResponse response{};
  response.outcome = configured_outcome(conf);
  if (response.outcome.result == 0 && request.sub >= conf.rats.size()) {
    response.outcome = kInvalidArgument;
  }
  if (response.outcome.result == 0) {
    answer_entries(conf, request, response);
  }
  return encode_body(kGetParametersResponse, response);
}

struct RequestRow {
  uint16_t msg_id;
  ServiceReply (*answer)(const ModemConf& conf, std::span<const uint8_t> encoded);
};

constexpr std::array<RequestRow, 2> kRequestRows{{
    {kSetFeatureMessage, set_feature},
    {kGetParametersMessage, get_parameters},
}};

}  // namespace

Service make_vs_service(const ModemConf& conf) {
  return [shared = std::make_shared<const ModemConf>(conf)](uint16_t msg_id,
                                                            std::span<const uint8_t> request) {
    const auto row =
        std::find_if(kRequestRows.begin(), kRequestRows.end(),
                     [msg_id](const RequestRow& entry) { return entry.msg_id == msg_id; });
    return row != kRequestRows.end() ? row->answer(*shared, request)
                                     : ServiceReply::transport_error(QMI_INTERNAL_ERR);
  };
}

}  // namespace kiv::platform
