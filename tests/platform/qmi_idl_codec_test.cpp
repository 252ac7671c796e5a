#include "platform/qmi/qmi_idl_codec.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <set>

namespace kiv::platform {
namespace {

using Bytes = std::vector<uint8_t>;

struct Entry {
  uint32_t tag;  // u16 on the wire
  uint32_t value_len;
  std::array<uint8_t, 6> value;
  uint16_t mark;
};

struct Sample {
  uint32_t number;
  uint32_t result;  // u16 on the wire
  uint32_t error;   // u16 on the wire
  uint8_t fixed_valid;
  std::array<uint8_t, 4> fixed;
  uint8_t list_valid;
  uint32_t list_len;
  std::array<uint32_t, 3> list;  // u8 on the wire
  uint8_t entries_valid;
  uint32_t entries_len;
  std::array<Entry, 2> entries;
};

constexpr qmi_idl_field integer(uint8_t tlv, uint8_t wire, uint8_t memory, size_t offset) {
  return {.tlv = tlv, .wire_width = wire, .memory_width = memory, .offset = offset};
}

constexpr std::array<qmi_idl_field, 2> kResultFields{{integer(0, 2, 4, 0), integer(0, 2, 4, 4)}};
constexpr std::array<qmi_idl_field, 3> kEntryFields{{
    integer(0, 2, 4, offsetof(Entry, tag)),
    {.wire_width = 1,
     .memory_width = 1,
     .shape = QMI_IDL_COUNTED,
     .offset = offsetof(Entry, value),
     .max_count = 6,
     .count_offset = offsetof(Entry, value_len),
     .count_wire_width = 2},
    integer(0, 2, 2, offsetof(Entry, mark)),
}};
constexpr std::array<qmi_idl_field, 5> kSampleFields{{
    integer(0x01, 4, 4, offsetof(Sample, number)),
    {.tlv = 0x02, .offset = offsetof(Sample, result), .record = kResultFields, .record_size = 8},
    {.tlv = 0x10,
     .wire_width = 1,
     .memory_width = 1,
     .shape = QMI_IDL_FIXED,
     .offset = offsetof(Sample, fixed),
     .presence_offset = offsetof(Sample, fixed_valid),
     .max_count = 4},
    {.tlv = 0x11,
     .wire_width = 1,
     .memory_width = 4,
     .shape = QMI_IDL_COUNTED,
     .offset = offsetof(Sample, list),
     .presence_offset = offsetof(Sample, list_valid),
     .max_count = 3,
     .count_offset = offsetof(Sample, list_len),
     .count_wire_width = 1},
    {.tlv = 0x12,
     .shape = QMI_IDL_COUNTED,
     .offset = offsetof(Sample, entries),
     .presence_offset = offsetof(Sample, entries_valid),
     .max_count = 2,
     .count_offset = offsetof(Sample, entries_len),
     .count_wire_width = 1,
     .record = kEntryFields,
     .record_size = sizeof(Entry)},
}};
constexpr qmi_idl_message kSample{
    .id = 7, .c_struct_len = sizeof(Sample), .max_encoded_len = 100, .fields = kSampleFields};

constexpr Sample kWhole{.number = 0x11223344,
                        .result = 1,
                        .error = 0xCAFE,
                        .fixed_valid = 1,
                        .fixed = {9, 8, 7, 6},
                        .list_valid = 1,
                        .list_len = 2,
                        .list = {0xAA, 0xBB, 0},
                        .entries_valid = 1,
                        .entries_len = 2,
                        .entries = {{{0x0102, 2, {'a', 'b'}, 0x1234}, {5, 0, {}, 0x5678}}}};
const Bytes kMandatory{0x01, 4, 0, 0x44, 0x33, 0x22, 0x11, 0x02, 4, 0, 1, 0, 0xFE, 0xCA};
const Bytes kOptional{0x10, 4, 0, 9, 8, 7,   6,   0x11, 3,    0, 2, 0xAA, 0xBB, 0x12, 15,  0,
                      2,    2, 1, 2, 0, 'a', 'b', 0x34, 0x12, 5, 0, 0,    0,    0x78, 0x56};

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const Bytes kWholeEncoded = joined({kMandatory, kOptional});

Bytes bytes_of(const Sample& sample) {
  Bytes bytes(sizeof sample);
  std::memcpy(bytes.data(), &sample, sizeof sample);
  return bytes;
}

// What the message decodes to, or nothing; a failure must leave zeros behind.
std::optional<Sample> decoded(const Bytes& encoded) {
  Bytes structure(sizeof(Sample), 0xEE);
  if (!decode_message(kSample, encoded, structure)) {
    EXPECT_EQ(structure, Bytes(sizeof(Sample), 0)) << "left behind by a failed decode";
    return std::nullopt;
  }
  Sample sample;
  std::memcpy(&sample, structure.data(), sizeof sample);
  return sample;
}

TEST(QmiIdlCodec, EveryShapeHasItsExactBytes) {
  EXPECT_EQ(encode_message(kSample, bytes_of(kWhole)), kWholeEncoded);
  Sample mandatory = kWhole;
  mandatory.fixed_valid = mandatory.list_valid = mandatory.entries_valid = 0;
  EXPECT_EQ(encode_message(kSample, bytes_of(mandatory)), kMandatory);

  const auto sample = decoded(kWholeEncoded);
  ASSERT_TRUE(sample);
  EXPECT_EQ(encode_message(kSample, bytes_of(*sample)), kWholeEncoded);
  EXPECT_EQ(sample->error, 0xCAFEu);
  EXPECT_EQ(sample->list, kWhole.list);
  EXPECT_EQ(sample->entries[0].value_len, 2u);
  EXPECT_EQ(sample->entries[1].mark, 0x5678);
}

TEST(QmiIdlCodec, UnknownTlvsAreSkippedInAnyOrder) {
  const auto sample = decoded(
      joined({{0x7F, 0, 0}, {0x11, 2, 0, 1, 5}, {0x33, 2, 0, 1, 2}, kMandatory, {0xEE, 1, 0, 0}}));
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->number, 0x11223344u);
  EXPECT_EQ(sample->list_len, 1u);
  EXPECT_EQ(sample->entries_valid, 0);
}

TEST(QmiIdlCodec, EveryTruncationFailsUnlessItEndsBetweenOptionalTlvs) {
  const std::set<size_t> complete{14, 14 + 7, 14 + 7 + 6};
  for (size_t length = 0; length < kWholeEncoded.size(); ++length) {
    // A vector of its own, so that a read past its end does not stay unseen.
    const Bytes cut(kWholeEncoded.data(), kWholeEncoded.data() + length);
    EXPECT_EQ(decoded(cut).has_value(), complete.contains(length)) << length;
  }
}

TEST(QmiIdlCodec, HostileValuesFail) {
  const struct {
    const char* what;
    Bytes message;
  } cases[] = {
      {"mandatory TLV missing", kOptional},
      {"integer too short", {0x01, 3, 0, 1, 2, 3, 0x02, 4, 0, 0, 0, 0, 0}},
      {"integer too long", {0x01, 5, 0, 1, 2, 3, 4, 5, 0x02, 4, 0, 0, 0, 0, 0}},
      {"length past the end", joined({kMandatory, {0x33, 0xFF, 0xFF, 1}})},
      {"fixed array short", joined({kMandatory, {0x10, 3, 0, 1, 2, 3}})},
      {"fixed array long", joined({kMandatory, {0x10, 5, 0, 1, 2, 3, 4, 5}})},
      {"no count", joined({kMandatory, {0x11, 0, 0}})},
      {"count above the bound", joined({kMandatory, {0x11, 5, 0, 4, 1, 2, 3, 4}})},
      {"count above the bytes", joined({kMandatory, {0x11, 2, 0, 2, 1}})},
      {"count below the bytes", joined({kMandatory, {0x11, 3, 0, 1, 1, 2}})},
      {"record count above the bound", joined({kMandatory, {0x12, 1, 0, 3}})},
      {"inner length above the bound",
       joined({kMandatory, {0x12, 12, 0, 1, 1, 0, 7, 0, 1, 2, 3, 4, 5, 6, 7}})},
      {"inner length above the bytes", joined({kMandatory, {0x12, 6, 0, 1, 1, 0, 4, 0, 1}})},
      {"repeated TLV", joined({kWholeEncoded, {0x11, 1, 0, 0}})},
  };
  for (const auto& row : cases) EXPECT_FALSE(decoded(row.message)) << row.what;
}

TEST(QmiIdlCodec, AnyDamagedByteIsHarmless) {
  for (size_t position = 0; position < kWholeEncoded.size(); ++position) {
    for (unsigned int value = 0; value < 256; ++value) {
      Bytes damaged = kWholeEncoded;
      damaged[position] = static_cast<uint8_t>(value);
      const Sample sample = decoded(damaged).value_or(kWhole);
      EXPECT_LE(sample.list_len, 3u);
      EXPECT_LE(sample.entries_len, 2u);
      EXPECT_LE(sample.entries[0].value_len, 6u);
    }
  }
}

TEST(QmiIdlCodec, CountsAboveTheBoundAreNotEncoded) {
  Sample sample = kWhole;
  sample.list_len = 4;
  EXPECT_FALSE(encode_message(kSample, bytes_of(sample)));
  sample = kWhole;
  sample.entries[1].value_len = 7;
  EXPECT_FALSE(encode_message(kSample, bytes_of(sample)));
  EXPECT_FALSE(encode_message(kSample, Bytes(sizeof(Sample) - 1)));
}

TEST(QmiIdlCodec, AMessageWithoutRowsTravelsAsItsStructure) {
  constexpr qmi_idl_message kRaw{.id = 1, .c_struct_len = 3, .max_encoded_len = 3};
  EXPECT_EQ(encode_message(kRaw, Bytes{1, 2, 3}), (Bytes{1, 2, 3}));
  Bytes structure(3);
  EXPECT_TRUE(decode_message(kRaw, Bytes{4, 5, 6}, structure));
  EXPECT_EQ(structure, (Bytes{4, 5, 6}));
  for (const Bytes& wrong : {Bytes{}, Bytes{1, 2}, Bytes{1, 2, 3, 4}}) {
    EXPECT_FALSE(decode_message(kRaw, wrong, structure));
    EXPECT_EQ(structure, Bytes(3, 0));
  }
}

TEST(QmiIdlCodec, RowsThatLeaveTheirStructureAreRefused) {
  qmi_idl_field endless = integer(0x01, 1, 1, 0);
  endless.shape = QMI_IDL_FIXED;
  endless.max_count = SIZE_MAX;
  qmi_idl_field flag_outside = integer(0x01, 4, 4, 0);
  flag_outside.presence_offset = 8;
  for (const qmi_idl_field& row : {integer(0x01, 4, 4, 5), integer(0x01, 4, 4, SIZE_MAX - 1),
                                   integer(0x01, 4, 2, 0), endless, flag_outside}) {
    const qmi_idl_message message{
        .id = 1, .c_struct_len = 8, .max_encoded_len = 7, .fields = std::span(&row, 1)};
    Bytes structure(8, 1);
    EXPECT_FALSE(encode_message(message, structure));
    EXPECT_FALSE(decode_message(message, Bytes{0x01, 4, 0, 1, 2, 3, 4}, structure));
  }
}

}  // namespace
}  // namespace kiv::platform
