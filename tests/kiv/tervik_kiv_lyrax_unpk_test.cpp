#include "tervik_kiv_lyrax_unpk.h"

#include <random>

#include "tests/qmi/extension_client_fixture.h"

namespace kiv::test {
namespace {

TEST(Unpacker, EveryLayoutGivesBackWhatWasPacked) {
  // Width and bit in the body of layout 0x30000; in the order of the result record, then mnc_num.
  constexpr std::pair<size_t, size_t> kFields[] = {{16, 240}, {16, 264}, {32, 288}, {64, 176},
                                                   {16, 0},   {16, 320}, {32, 80},  {16, 144},
                                                   {32, 112}, {16, 160}, {8, 280},  {8, 256}};
  std::mt19937_64 random(7);
  const std::pair<uint32_t, int> layouts[] = {{0x30000, 0}, {0x30001, 10}, {0x30002, 24}, {4, -64}};
  for (size_t round = 0; round < 100; ++round) {
    const auto [version, shift] = layouts[round % 4];
    // Ends with its last field; what lies between the fields is not zero.
    Bytes record(static_cast<size_t>(4 + (336 + shift + 7) / 8), 0xA5);
    put(record, 0, version);
    Bytes result = words({version});
    std::vector<uint64_t> values;
    for (const auto& [width, bit] : kFields) {
      values.push_back(random() >> (64 - width));
      const size_t first = bit == 0 && shift < 0 ? 0 : bit + static_cast<size_t>(shift);
      for (size_t i = 0; i < width; ++i) {
        uint8_t& byte = record[4 + (first + i) / 8];
        const auto mask = static_cast<uint8_t>(1 << (first + i) % 8);
        byte = static_cast<uint8_t>((values.back() >> i & 1) != 0 ? byte | mask : byte & ~mask);
        if (i % 8 == 0) result.push_back(static_cast<uint8_t>(values.back() >> i));
      }
    }
    result.pop_back();  // mnc_num
    result.resize(UNPK_RESULT_SIZE);
    const std::string text =
        captured_stdout([&] { tervik_test_modem_stats_parsing_process_do(record); });
    EXPECT_NE(text.find(" mnc_num " + std::to_string(values.back()) + ","), std::string::npos);
    EXPECT_EQ(g_modem_stats_result.len, 38u);
    EXPECT_TRUE(std::equal(result.begin(), result.end(), g_modem_stats_result.value));
  }
  for (const size_t size : {1u, 4u, 5000u}) {  // versions that nobody knows
    const Bytes record(size, 0x05);
    EXPECT_EQ(captured_stdout([&] { tervik_test_modem_stats_parsing_process_do(record); }), "");
    EXPECT_EQ(g_modem_stats_result.len, 0u);
  }
}

TEST(Unpacker, EveryCheckStopsWithItsLine) {
  const Bytes record(4000, 0xFF);
  const auto at = [&record](uint8_t size, uint8_t width, int bit) {
    return unpk_start(record, 0xAB) ? unpk_at({"f", size, width}, bit) : std::nullopt;
  };
  const auto expect_failure = [](const std::string& line, const auto& decode) {
    std::optional<uint64_t> value = 1;
    EXPECT_EQ(captured_stdout([&] { value = decode(); }), line + ", id(0xab)\n");
    EXPECT_EQ(value, std::nullopt) << line;
  };
  const struct {
    uint8_t size;
    uint8_t width;
    int bit;
    const char* line;
  } fields[] = {
      {2, 16, 1992 * 8, "DATA_UNPK, (base + cnt)(2000) is can not >= 2000 for f_tmp2"},
      {2, 16, 16000, "UNPK_SET_BIT, pos(2000) should be[0, 2000)"},
      {2, 16, -1, "UNPK_SET_BIT, pos(-1) should be[0, 2000)"},
      {8, 65, 8, "UNPK_MID, high(65) should be in [1, 64] for f"},
      {8, 122, 7, "UNPK_MID, high(129) should be in [1, 128] for f"},
      {8, 0, 7, "UNPK_MID, low(8) should <= high(7) for f"},
      {2, 17, 3, "UNPK_LOW, bit_num(17) should be in [1, 16] for f"},
  };
  for (const auto& [size, width, bit, line] : fields) {
    expect_failure(line, [&, s = size, w = width, b = bit] { return at(s, w, b); });
  }
  for (const auto& [low, line] : {std::pair{0, "UNPK_MID, low(0) should be in [1, 128] for f"},
                                  {129, "UNPK_MID, low(129) should be in [1, 128] for f"},
                                  {66, "UNPK_HIGH, bit_num(63) should be in [64, 128] for f"}}) {
    expect_failure(line, [first = low] { return unpk_mid({"f", 8, 8}, 1, 2, first, 70); });
  }
  expect_failure(
      "UNPK_START, payload is NULL, id(0xab)\nDATA_UNPK, g_unpk_data_ptr is NULL, name: f_tmp1",
      [] {
        return unpk_start({}, 0xAB) ? 1 : unpk_at({"f", 2, 16}, 0);
      });
  EXPECT_EQ(at(8, 64, 1991 * 8), UINT64_MAX);
  EXPECT_EQ(unpk_mid({"f", 8, 64}, 4, 0x8000000000000003, 65, 128), 0x8000000000000003u);
  EXPECT_EQ(unpk_mid({"f", 8, 64}, uint64_t{1} << 63, 2, 64, 66), 5u);
}

}  // namespace
}  // namespace kiv::test
