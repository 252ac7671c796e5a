#include "platform/modem/vs_service.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <tuple>
#include <vector>

#include "platform/modem/service_messages.h"
#include "platform/modem/stats_parameters.h"

namespace kiv::platform {
namespace {

constexpr uint16_t kSetFeatureMessage = 0x0003;
constexpr uint16_t kGetParametersMessage = 0x0207;
constexpr uint32_t kStatisticsFeature = 2;
constexpr size_t kEntriesMax = 10;

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
  qmi_result resp;
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
  qmi_result resp;
  uint8_t entries_valid;
  uint32_t entry_count;
  std::array<Entry, kEntriesMax> entries;
};
static_assert(sizeof(GetParametersResponse) == 7136);

constexpr qmi_idl_field single(uint8_t tlv, uint8_t width, size_t offset) {
  return {.tlv = tlv, .wire_width = width, .memory_width = width, .offset = offset};
}

constexpr qmi_idl_field result_field(size_t offset) {
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
    result_field(offsetof(SetFeatureResponse, resp)),
}};
constexpr std::array<qmi_idl_field, 3> kGetParametersRequestFields{{
    single(0x01, 2, offsetof(GetParametersRequest, sub)),
    single(0x02, 2, offsetof(GetParametersRequest, slot)),
    entries_field(0x03, offsetof(GetParametersRequest, entries),
                  offsetof(GetParametersRequest, entry_count), QMI_IDL_MANDATORY),
}};
constexpr std::array<qmi_idl_field, 2> kGetParametersResponseFields{{
    result_field(offsetof(GetParametersResponse, resp)),
    entries_field(0x10, offsetof(GetParametersResponse, entries),
                  offsetof(GetParametersResponse, entry_count),
                  offsetof(GetParametersResponse, entries_valid)),
}};

qmi_result set_feature(ServiceState& service, const SetFeatureRequest& request,
                       SetFeatureResponse&) {
  if (request.feature == kStatisticsFeature && request.status != 0) {
    for (const Indication& indication : service.conf.vs_indications) {
      send_indication(kVsServiceId, indication.msg_id, indication.bytes);
    }
  }
  return kDone;
}

// A parameter that the modem does not have is left out of the list.
qmi_result get_parameters(ServiceState& service, const GetParametersRequest& request,
                          GetParametersResponse& response) {
  if (request.sub >= service.conf.rats.size()) {
    return kInvalidArgument;
  }
  response.entries_valid = 1;
  for (const Entry& asked : std::span(request.entries).first(request.entry_count)) {
    const std::vector<uint8_t> value = read_stats_parameter(service.conf, request.sub, asked.id);
    if (!value.empty()) {
      Entry& entry = response.entries[response.entry_count++];
      entry.sub = request.sub;
      entry.second_half_word = asked.second_half_word;
      entry.id = asked.id;
      entry.value_len = static_cast<uint32_t>(value.size());
      std::copy(value.begin(), value.end(), entry.value.begin());
    }
  }
  return kDone;
}

constexpr std::tuple kMessages{
    Message{kSetFeatureMessage, set_feature, kSetFeatureRequestFields, kSetFeatureResponseFields},
    Message{kGetParametersMessage, get_parameters, kGetParametersRequestFields,
            kGetParametersResponseFields},
};

}  // namespace

Service make_vs_service(const ModemConf& conf) {
  return make_service<kMessages>(kVsServiceId, conf);
}

}  // namespace kiv::platform
