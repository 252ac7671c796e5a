#include "platform/qmi/qmi_idl_codec.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>

namespace kiv::platform {
namespace {

using Bytes = std::vector<uint8_t>;

struct Entry {
  uint32_t tag;  // u16 on the wire
  uint32_t value_len;
  std::array<uint32_t, 3> value;  // u8 on the wire
};

struct Sample {
  uint32_t number;
  uint8_t entries_valid;
  uint32_t entries_len;
  std::array<Entry, 2> entries;
};

// TLV type, bytes on the wire and in memory, shape, offsets of the value and of its presence flag,
// the most elements, then their count's offset and bytes on the wire.
constexpr std::array<qmi_idl_field, 2> kEntryFields{{
    {.wire_width = 2, .memory_width = 4, .offset = offsetof(Entry, tag)},
    {0, 1, 4, QMI_IDL_COUNTED, offsetof(Entry, value), QMI_IDL_MANDATORY, 3,
     offsetof(Entry, value_len), 2},
}};
constexpr std::array<qmi_idl_field, 2> fields(bool drops_excess) {
  return {{{.tlv = 0x01, .wire_width = 4, .memory_width = 4},
           {0x12, 0, 0, QMI_IDL_COUNTED, offsetof(Sample, entries), offsetof(Sample, entries_valid),
            2, offsetof(Sample, entries_len), 1, drops_excess, kEntryFields, sizeof(Entry)}}};
}
constexpr auto kFields = fields(false);
constexpr auto kDroppingFields = fields(true);
constexpr qmi_idl_message kSample{7, sizeof(Sample), 100, kFields};
constexpr qmi_idl_message kDropping{7, sizeof(Sample), 100, kDroppingFields};

constexpr Sample kWhole{0x11223344, 1, 2, {{{0x0102, 2, {'a', 'b'}}, {5, 0, {}}}}};
const Bytes kMandatory{0x01, 4, 0, 0x44, 0x33, 0x22, 0x11};
const Bytes kOptional{0x12, 11, 0, 2, 2, 1, 2, 0, 'a', 'b', 5, 0, 0, 0};

Bytes joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

std::optional<Bytes> encoded(const Sample& sample) {
  Bytes structure(sizeof sample);
  std::memcpy(structure.data(), &sample, sizeof sample);
  return encode_message(kSample, structure);
}

// What the message decodes to, or nothing; a failure must leave zeros behind.
std::optional<Sample> decoded(const Bytes& bytes, const qmi_idl_message& message = kSample) {
  Bytes structure(sizeof(Sample), 0xEE);
  if (!decode_message(message, bytes, structure)) {
    EXPECT_EQ(structure, Bytes(sizeof(Sample), 0)) << "left behind by a failed decode";
    return std::nullopt;
  }
  Sample sample;
  std::memcpy(&sample, structure.data(), sizeof sample);
  return sample;
}

TEST(QmiIdlCodec, StructuresHaveTheirExactBytes) {
  Sample sample = kWhole;
  EXPECT_EQ(encoded(sample), joined({kMandatory, kOptional}));
  sample.entries_valid = 0;
  EXPECT_EQ(encoded(sample), kMandatory);
  // Unknown TLVs are skipped, and those that are known come in any order.
  const auto back = decoded(joined({{0x7F, 0, 0}, kOptional, {0x33, 2, 0, 1, 2}, kMandatory}));
  ASSERT_TRUE(back);
  EXPECT_EQ(encoded(*back), joined({kMandatory, kOptional}));
  EXPECT_EQ(back->entries[0].value, kWhole.entries[0].value);
  sample = kWhole;
  sample.entries[1].value_len = 4;
  EXPECT_FALSE(encoded(sample));
  sample = kWhole;
  sample.entries_len = 3;
  EXPECT_FALSE(encoded(sample));
}

TEST(QmiIdlCodec, HostileValuesFail) {
  const Bytes entry{1, 0, 0, 0};
  const struct {
    const char* what;
    Bytes optional;
    bool dropped = false;  // where the row says that excess is
  } cases[] = {
      {"half a header", {0x33, 0}},
      {"length past the end", {0x33, 0xFF, 0xFF, 1}},
      {"no count", {0x12, 0, 0}},
      {"count above the bound", joined({{0x12, 13, 0, 3}, entry, entry, entry}), true},
      {"count above bound and bytes", joined({{0x12, 9, 0, 3}, entry, entry})},
      {"count above the bytes", joined({{0x12, 5, 0, 2}, entry})},
      {"count below the bytes", joined({{0x12, 9, 0, 1}, entry, entry})},
      {"more bytes than the excess", joined({{0x12, 14, 0, 3}, entry, entry, entry, {0}})},
      {"inner count above the bound", {0x12, 9, 0, 1, 1, 0, 4, 0, 1, 2, 3, 4}},
      {"inner count above the bytes", {0x12, 7, 0, 1, 1, 0, 3, 0, 1, 2}},
      {"repeated TLV", joined({kOptional, {0x12, 1, 0, 0}})},
  };
  for (const auto& row : cases) {
    const Bytes bytes = joined({kMandatory, row.optional});
    EXPECT_FALSE(decoded(bytes)) << row.what;
    const auto sample = decoded(bytes, kDropping);
    ASSERT_EQ(sample.has_value(), row.dropped) << row.what;
    EXPECT_EQ(sample ? sample->entries_len : 2, 2u);
  }
  for (const Bytes& bytes :
       {kOptional, Bytes{0x01, 3, 0, 1, 2, 3}, Bytes{0x01, 5, 0, 1, 2, 3, 4, 5}}) {
    EXPECT_FALSE(decoded(bytes));
  }
}

}  // namespace
}  // namespace kiv::platform
