#include "vs_idl.h"

#include <algorithm>
#include <array>
#include <bit>

static_assert(std::endian::native == std::endian::little, "wire records are little-endian");

namespace {

constexpr qmi_idl_field integer(uint8_t tlv, uint8_t width, size_t offset,
                                size_t presence_offset = QMI_IDL_MANDATORY) {
  return {.tlv = tlv,
          .wire_width = width,
          .memory_width = width,
          .offset = offset,
          .presence_offset = presence_offset};
}

// At most `max_count` of `element`, behind their count.
constexpr qmi_idl_field list(qmi_idl_field element, size_t max_count, size_t count_offset,
                             uint8_t count_wire_width) {
  element.shape = QMI_IDL_COUNTED;
  element.max_count = max_count;
  element.count_offset = count_offset;
  element.count_wire_width = count_wire_width;
  element.drops_excess = true;
  return element;
}

constexpr std::array ENTRY_FIELDS = {
    integer(0, 2, offsetof(vs_stats_entry, sub)),
    integer(0, 2, offsetof(vs_stats_entry, second_half_word)),
    integer(0, 4, offsetof(vs_stats_entry, id)),
    list(integer(0, 1, offsetof(vs_stats_entry, value)), VS_STATS_VALUE_MAX,
         offsetof(vs_stats_entry, value_len), 2)};

constexpr qmi_idl_field entries(uint8_t tlv, size_t offset, size_t max_count, size_t count_offset,
                                size_t presence_offset = QMI_IDL_MANDATORY) {
  const qmi_idl_field entry = {.tlv = tlv,
                               .offset = offset,
                               .presence_offset = presence_offset,
                               .record = ENTRY_FIELDS,
                               .record_size = sizeof(vs_stats_entry)};
  return list(entry, max_count, count_offset, 1);
}

constexpr std::array RESULT_FIELDS = {integer(0, 4, offsetof(qmi_result, result)),
                                      integer(0, 4, offsetof(qmi_result, error))};

// Every response begins with it.
constexpr qmi_idl_field RESULT = {
    .tlv = 0x02, .record = RESULT_FIELDS, .record_size = sizeof(qmi_result)};
static_assert(offsetof(vs_get_stats_parameter_resp, resp) == 0);

constexpr std::array SET_FEATURE_STATUS_REQ_FIELDS = {
    integer(0x01, 4, offsetof(vs_set_feature_status_req, feature)),
    integer(0x02, 1, offsetof(vs_set_feature_status_req, status)),
    integer(0x10, 1, offsetof(vs_set_feature_status_req, second_flag),
            offsetof(vs_set_feature_status_req, second_flag_valid))};

constexpr std::array SET_FEATURE_STATUS_RESP_FIELDS = {RESULT};

constexpr std::array GET_STATS_PARAMETER_REQ_FIELDS = {
    integer(0x01, 2, offsetof(vs_get_stats_parameter_req, sub)),
    integer(0x02, 2, offsetof(vs_get_stats_parameter_req, slot)),
    entries(0x03, offsetof(vs_get_stats_parameter_req, entries), VS_STATS_ENTRIES_MAX,
            offsetof(vs_get_stats_parameter_req, entries_len))};

constexpr std::array GET_STATS_PARAMETER_RESP_FIELDS = {
    RESULT, entries(0x10, offsetof(vs_get_stats_parameter_resp, entries), VS_STATS_ENTRIES_MAX,
                    offsetof(vs_get_stats_parameter_resp, entries_len),
                    offsetof(vs_get_stats_parameter_resp, entries_valid))};

constexpr std::array FEATURE_STATUS_IND_FIELDS = {
    integer(0x01, 4, offsetof(vs_feature_status_ind, value)),
    integer(0x02, 1, offsetof(vs_feature_status_ind, first_flag)),
    integer(0x03, 1, offsetof(vs_feature_status_ind, second_flag))};

constexpr std::array STATS_PARAMETER_IND_FIELDS = {
    integer(0x01, 4, offsetof(vs_stats_parameter_ind, value)),
    entries(0x02, offsetof(vs_stats_parameter_ind, entries), VS_STATS_ENTRIES_MAX,
            offsetof(vs_stats_parameter_ind, entries_len)),
    entries(0x10, offsetof(vs_stats_parameter_ind, more_entries), VS_STATS_MORE_ENTRIES_MAX,
            offsetof(vs_stats_parameter_ind, more_entries_len),
            offsetof(vs_stats_parameter_ind, more_entries_valid)),
    integer(0x11, 4, offsetof(vs_stats_parameter_ind, last_value),
            offsetof(vs_stats_parameter_ind, last_value_valid))};

constexpr std::array STATS_EVENT_IND_FIELDS = {
    integer(0x01, 4, offsetof(vs_stats_event_ind, value)),
    list(integer(0x02, 1, offsetof(vs_stats_event_ind, bytes)), VS_EVENT_BYTES_MAX,
         offsetof(vs_stats_event_ind, bytes_len), 1),
    integer(0x03, 2, offsetof(vs_stats_event_ind, third_value)),
    integer(0x04, 2, offsetof(vs_stats_event_ind, fourth_value))};

constexpr std::array STATE_IND_FIELDS = {integer(0x01, 1, offsetof(vs_state_ind, value))};

// A message that kiv neither builds nor interprets, and its longest encoded forms.
struct opaque_message {
  uint16_t id;
  size_t request_len;
  size_t response_len;
};

constexpr std::array<opaque_message, 22> OPAQUE_MESSAGES = {
    {{0x0000, 517, 528}, {0x0001, 8, 11},    {0x0002, 7, 19},   {0x0100, 16, 272},
     {0x0101, 277, 11},  {0x0102, 16, 11},   {0x0103, 12, 272}, {0x0104, 273, 11},
     {0x0105, 12, 11},   {0x0106, 112, 272}, {0x0107, 373, 11}, {0x0108, 112, 11},
     {0x0109, 7, 272},   {0x010A, 268, 11},  {0x010B, 7, 11},   {0x010C, 16, 11},
     {0x0200, 11, 18},   {0x0201, 4321, 11}, {0x0202, 421, 11}, {0x0208, 54, 11},
     {0x0400, 0, 11},    {0x0401, 0, 11}}};

// The messages of one direction: those that kiv knows and the opaque ones.
template <size_t known_count>
constexpr auto with_opaque_messages(const qmi_idl_message (&known)[known_count],
                                    size_t opaque_message::*opaque_len) {
  std::array<qmi_idl_message, known_count + OPAQUE_MESSAGES.size()> all = {};
  std::copy_n(known, known_count, all.begin());
  std::transform(OPAQUE_MESSAGES.begin(), OPAQUE_MESSAGES.end(), all.begin() + known_count,
                 [opaque_len](const opaque_message& row) {
                   return qmi_idl_message{row.id, row.*opaque_len, row.*opaque_len, {}};
                 });
  return all;
}

constexpr std::array REQUESTS = with_opaque_messages(
    {{VS_SET_FEATURE_STATUS, sizeof(vs_set_feature_status_req), 15, SET_FEATURE_STATUS_REQ_FIELDS},
     {VS_GET_STATS_PARAMETER, sizeof(vs_get_stats_parameter_req), 7114,
      GET_STATS_PARAMETER_REQ_FIELDS}},
    &opaque_message::request_len);

constexpr std::array RESPONSES =
    with_opaque_messages({{VS_SET_FEATURE_STATUS, sizeof(vs_set_feature_status_resp), 11,
                           SET_FEATURE_STATUS_RESP_FIELDS},
                          {VS_GET_STATS_PARAMETER, sizeof(vs_get_stats_parameter_resp), 7115,
                           GET_STATS_PARAMETER_RESP_FIELDS}},
                         &opaque_message::response_len);

constexpr std::array INDICATIONS = {
    qmi_idl_message{VS_FEATURE_STATUS_IND, sizeof(vs_feature_status_ind), 15,
                    FEATURE_STATUS_IND_FIELDS},
    qmi_idl_message{VS_STATS_PARAMETER_IND, sizeof(vs_stats_parameter_ind), 10672,
                    STATS_PARAMETER_IND_FIELDS},
    qmi_idl_message{VS_STATS_EVENT_IND, sizeof(vs_stats_event_ind), 121, STATS_EVENT_IND_FIELDS},
    qmi_idl_message{VS_STATE_IND, sizeof(vs_state_ind), 4, STATE_IND_FIELDS},
};

constexpr qmi_idl_service_object SERVICE_OBJECT = {
    .library_version = 6,
    .idl_version = 1,
    .service_id = VS_SERVICE_ID,
    .idl_minor_version = 2,
    .max_message_len = 10672,
    .requests = REQUESTS,
    .responses = RESPONSES,
    .indications = INDICATIONS,
};

}  // namespace

qmi_idl_service_object_type vs_get_service_object_internal_v01(uint32_t idl_version,
                                                               uint32_t idl_minor_version,
                                                               uint32_t library_version) {
  const bool known = idl_version == SERVICE_OBJECT.idl_version &&
                     idl_minor_version == SERVICE_OBJECT.idl_minor_version &&
                     library_version == SERVICE_OBJECT.library_version;
  return known ? &SERVICE_OBJECT : nullptr;
}
