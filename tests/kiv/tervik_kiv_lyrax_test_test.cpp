#include "tervik_kiv_lyrax_test.h"

#include <gtest/gtest.h>

#include <random>

#include "tervik_kiv_lyrax_unpk.h"
#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;

class KivStatsTest : public CommandLineTest {
 protected:
  void TearDown() override {
    g_unpk_print_flag = 0;
    CommandLineTest::TearDown();
  }
  static Strings printed(const std::function<void()>& print) {
    return run({}, [&](int, char**) { print(); });
  }
};

TEST_F(KivStatsTest, WrongArgumentsShowTheirNoteAndTheHelp) {
  const std::string too_few = "note: Too few parameters, Pls refer to the following cmd:";
  expect_help("7", too_few);
  expect_help("7 0", too_few + "|tervik_test_modem_stats_parsing_process FAIL");
  expect_help("7 1", too_few + "|tervik_test_modem_stats_get_debug_info FAIL");
  expect_help("7 2 0", "invalid type = 2");
}

// ---- record decoding ----

TEST_F(KivStatsTest, BuiltInRecordIsDecodedAndTraced) {
  const Strings cell = split(
      "version = 196609, mcc = 29440, mnc_num 128, mnc 704, tac 497189504, cgi 2028284490176, pci "
      "51666|freq_band_ind = 64, dl_earfcn = 27450241, dl_bw 1280, ul_earfcn 24836608, ul_bw 1280, "
      "allow_access 128, scs 0");
  ASSERT_TRUE(unpk_start(Bytes(2000, 0xFF), 1));  // of which nothing may be left
  EXPECT_EQ(run(command("7 0 x")).front(), "length = 48, print_flag = 0");
  tervik_hal_set_shell_print_mask(0);
  EXPECT_EQ(run(command("7 0 0")), cell);
  const Strings traced = run(command("7 0 -1"));
  ASSERT_EQ(traced.size(), 2 + 12 * 8 + cell.size());
  EXPECT_EQ(Strings(traced.end() - 2, traced.end()), cell);
  EXPECT_EQ(
      Strings(traced.begin(), traced.begin() + 10),
      split(
          "    UNPK_I, name: version, val: 196609(0x010003), val_size: 4, unpk_cnt: 4, data_base: "
          "0, base_bit: 0|BASE_WITH_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), "
          "g_unpk_data_cnt(0), bit(32), id(0x123)|UNPK_SET_BIT, g_unpk_data_base_bit(32), "
          "g_unpk_data_base(4), g_unpk_data_cnt(31), bit(250), id(0x123)|PRINT_CNT, base_bit: 32, "
          "base_byte: 4, data_cnt: 31, low: 3, high: 18, param: 250, name: mcc|    UNPK_I, name: "
          "mcc_tmp1, val: 721138937611013120(0x00CC01020B00020A), val_size: 8, unpk_cnt: 39, "
          "data_base: 4, base_bit: 32|    UNPK_I, name: mcc_tmp2, val: 16807562(0x8A760001), "
          "val_size: 8, unpk_cnt: 47, data_base: 4, base_bit: 32|UNPK_HIGH, old_val: "
          "721138937611013120, new_val: 9403656771257529088, bit_num: 126, name: mcc, id(0x123)|"
          "UNPK_LOW, old_val: 9403656771257529088, new_val: 29440, bit_num: 16, mask_max(0xffff), "
          "old_size(2), name: mcc, id(0x123)|UNPK_MID, old_val: 721138937611013120, new_val: "
          "29440, low: 3, high: 18, name: mcc, id(0x123)|    UNPK_AT, name: mcc, val: "
          "29440(0x0073), low: 3, high: 18, bit_start: 250, bit_num: 16"));
}

TEST_F(KivStatsTest, EveryLayoutGivesBackWhatWasPacked) {
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
    const auto v = [&values](size_t i) { return static_cast<int>(values[i]); };
    char text[400];
    snprintf(text, sizeof text,
             "version = %d, mcc = %d, mnc_num %d, mnc %d, tac %d, cgi %lu, pci %d|freq_band_ind = "
             "%d, dl_earfcn = %d, dl_bw %d, ul_earfcn %d, ul_bw %d, allow_access %d, scs 0",
             static_cast<int>(version), v(0), v(11), v(1), v(2), values[3], v(4), v(5), v(6), v(7),
             v(8), v(9), v(10));
    EXPECT_EQ(printed([&] { tervik_test_modem_stats_parsing_process_do(record); }), split(text));
    EXPECT_EQ(g_modem_stats_result.len, 38u);
    EXPECT_TRUE(std::equal(result.begin(), result.end(), g_modem_stats_result.value));
  }
  for (const size_t size : {1u, 4u, 5000u}) {  // versions that nobody knows
    const Bytes record(size, 0x05);
    EXPECT_EQ(printed([&] { tervik_test_modem_stats_parsing_process_do(record); }), Strings{});
    EXPECT_EQ(g_modem_stats_result.len, 0u);
  }
}

TEST_F(KivStatsTest, EveryCheckStopsWithItsLine) {
  const Bytes record(4000, 0xFF);
  const auto at = [&record](uint8_t size, uint8_t width, int bit) {
    return unpk_start(record, 0xAB) ? unpk_at({"f", size, width}, bit) : std::nullopt;
  };
  const auto expect_failure = [](const std::string& line, const auto& decode) {
    std::optional<uint64_t> value = 1;
    EXPECT_EQ(printed([&] { value = decode(); }), split(line + ", id(0xab)"));
    EXPECT_EQ(value, std::nullopt) << line;
  };
  const struct {
    uint8_t size;
    uint8_t width;
    int bit;
    const char* line;
  } fields[] = {
      {2, 16, 1992 * 8, "DATA_UNPK, (base + cnt)(2000) is can not >= 2000 for f_tmp2"},
      {2, 16, 1999 * 8 + 7, "DATA_UNPK, (base + cnt)(2007) is can not >= 2000 for f_tmp2"},
      {2, 16, 16000, "UNPK_SET_BIT, pos(2000) should be[0, 2000)"},
      {2, 16, -1, "UNPK_SET_BIT, pos(-1) should be[0, 2000)"},
      {2, 16, INT32_MAX, "UNPK_SET_BIT, pos(268435455) should be[0, 2000)"},
      {8, 65, 8, "UNPK_MID, high(65) should be in [1, 64] for f"},
      {8, 0, 8, "UNPK_MID, high(0) should be in [1, 64] for f"},
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
    expect_failure(line, [first = low] { return unpk_mid({"f", 8, 8}, {1, 2}, first, 70); });
  }
  expect_failure(
      "UNPK_START, payload is NULL, id(0xab)|DATA_UNPK, g_unpk_data_ptr is NULL, name: f_tmp1", [] {
        return unpk_start({}, 0xAB) ? 1 : unpk_at({"f", 2, 16}, 0);
      });
  EXPECT_EQ(at(8, 64, 1991 * 8), UINT64_MAX);
  EXPECT_EQ(unpk_mid({"f", 8, 64}, {4, 0x8000000000000003}, 65, 128), 0x8000000000000003u);
  EXPECT_EQ(unpk_mid({"f", 8, 64}, {uint64_t{1} << 63, 2}, 64, 66), 5u);
  g_unpk_print_flag = 2;
  const Strings traced = printed([] {
    ASSERT_TRUE(unpk_start(words({0x1234, 0, 0, 0}), 1));
    EXPECT_EQ(unpk_at({"f", 2, 13}, 0), 0x1234u);
    EXPECT_EQ(unpk_at({"f", 2, 16}, 16), 0u);
  });
  ASSERT_EQ(traced.size(), 16u);
  EXPECT_EQ(traced[4], "UNPK_HIGH, old_val: 4660, new_val: 4660, bit_num: 64, name: f, id(0x1)");
  EXPECT_EQ(traced[7],
            "    UNPK_AT, name: f, val: 4660(0x3412), low: 1, high: 13, bit_start: 0, bit_num: 13");
  EXPECT_TRUE(traced[15].starts_with("    UNPK_AT, name: f, val: 0(0x00), low: 1")) << traced[15];
}

// ---- debug block ----

// Checks each counter's value and each section's end against the block's bytes. Returns how many
// of them were printed.
size_t check_lines(const Strings& lines, const Bytes& block) {
  size_t at = 0;
  for (const std::string& line : lines) {
    if (line.starts_with("UNPK[size:")) {
      const auto size = static_cast<size_t>(line[10] - '0');
      uint64_t value = 0;
      std::memcpy(&value, &block.at(at), size);
      EXPECT_TRUE(line.ends_with(" = " + std::to_string(value))) << line;
      at += size;
    } else if (line.find(" end, ") != std::string::npos) {
      EXPECT_TRUE(line.ends_with(" info end, cnt(" + std::to_string(at) + ") --------")) << line;
    }
  }
  return at;
}

TEST_F(KivStatsTest, DebugBlockIsPrintedAsFarAsItCame) {
  Bytes block = counted_bytes(500);
  size_t came = 0;
  const ExtensionStub stub([&](const ExtensionRequest&) {
    Bytes body(8);
    body.insert(body.end(), block.begin(), block.end());
    return ExtensionAnswer{
        .result = 0, .len = static_cast<uint32_t>(8 + came), .payload = std::move(body)};
  });
  tervik_hal_set_shell_print_mask(0);
  const struct {
    uint8_t version;
    size_t counters;
    size_t diag_end;
    size_t size;
  } rows[] = {{0, 36, 69, 137},  {1, 40, 93, 161},  {2, 49, 137, 205},
              {3, 51, 145, 213}, {4, 53, 153, 221}, {255, 53, 153, 221}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    block[0] = row.version;
    came = 500;
    const Strings whole = run(command("7 1 5"));
    EXPECT_EQ(check_lines(whole, block), row.size);
    EXPECT_EQ(whole.size(), row.counters + 8);
    EXPECT_EQ(whole[1], "-------- stats main info start --------");
    EXPECT_EQ(std::count(whole.begin(), whole.end(),
                         "-------- stats diag info end, cnt(" + std::to_string(row.diag_end) +
                             ") --------"),
              1);
    for (came = 0; came < row.size; ++came) {
      Strings cut = run(command("7 1 1"));
      ASSERT_TRUE(!cut.empty() && cut.size() < whole.size()) << came;
      EXPECT_TRUE(cut.back().starts_with("UNPK, the data ends before ")) << cut.back();
      cut.back() = whole[cut.size() - 1];  // the counter that did not come whole
      EXPECT_TRUE(std::equal(cut.begin(), cut.end(), whole.begin()));
      EXPECT_GT(check_lines(cut, block), came);
      cut.pop_back();
      EXPECT_LE(check_lines(cut, block), came);
    }
  }
  EXPECT_EQ(stub.requests().back().payload, payload_of(words({20})));
  EXPECT_EQ(printed([] { EXPECT_EQ(tervik_modem_stats_main_info_unpk({}, 4), 0); }),
            Strings{"ptr is null"});
  EXPECT_EQ(printed([] { tervik_modem_stats_support_status_check({}); }),
            Strings{"tervik_modem_stats_support_status_check, ptr is null"});
}

TEST_F(KivStatsTest, SupportCheckTellsTheStateAndTheLogsToUpgrade) {
  Bytes record(508);
  Bytes list(508, 0xEE);
  uint32_t came = 0;
  const ExtensionStub stub([&](const ExtensionRequest& request) -> ExtensionStub::Answer {
    if (came == 0) return ServiceReply::transport_error(-5);
    if (request.payload == payload_of(words({20}))) return answer_of(record);
    EXPECT_EQ(request.payload, payload_of(words({27})));
    return ExtensionAnswer{.result = 0, .len = came, .payload = list};
  });
  const auto banner = [](const std::string& verdict) {
    const std::string rule(43, '=');
    return rule + "|" + verdict + "|" + rule;
  };
  const auto fail = [&](const std::string& num, int shown, const std::string& more = "") {
    std::string lines = "UNPK[size:2], log_num = " + num + "|" +
                        banner("================= FAIL ====================") +
                        "|Diag logs to be upgraded[num:" + num + "]:";
    for (int i = 0; i < shown; ++i) {
      lines += "|log_id[" + std::to_string(i) + "]: 0x" + (i == 0 ? "0A1B" : "EEEE");
    }
    return lines + more;
  };
  const std::string early = "|UNPK, the data ends early: ";
  const struct {
    uint8_t enabled;
    uint64_t not_supported;
    uint32_t came;
    uint16_t log_num;
    int32_t result;
    std::string lines;
  } rows[] = {
      {0, 5, 508, 1, 0, banner("================ CLOSED ===================")},
      {1, 0, 508, 1, 0, banner("================ SUCCES ===================")},
      {255, uint64_t{1} << 63, 508, 3, 0, fail("3", 3)},
      {1, 1, 508, 0, 0, fail("0", 0)},
      {1, 1, 508, 249, 0, fail("249", 249)},
      {1, 1, 550, 65535, 0, fail("65535", 249, early + "249 of 65535 log ids received")},
      {1, 1, 15, 3, 0, fail("3", 2, early + "2 of 3 log ids received")},
      {1, 1, 9, 3, 0, "UNPK, the data ends before log_num: 1 of 2 bytes received"},
      {1, 1, 508, 3, 9, "qmi response fail, result = 0, rsp_not_support.result = 9"},
      {1, 1, 7, 3, 0,
       "qmi response of 7 bytes is too short|tervik_common_qmi_req fail, result = -3, "
       "rsp_not_support.result = 0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    record[9] = row.enabled;
    put(record, 10, row.not_supported);
    put(record, 26, UINT64_MAX);
    put(list, 4, row.result);
    put(list, 8, row.log_num);
    put(list, 10, uint16_t{0x0A1B});
    came = row.came;
    EXPECT_EQ(run(command("7 1 0")),
              split("Get the debug info of modem_stats, mask = 0x0|UNPK[size:1], version = 0|"
                    "UNPK[size:1], modem_stats_feature_enable_status = " +
                    std::to_string(row.enabled) + "|UNPK[size:8], version_not_support_num = " +
                    std::to_string(row.not_supported) +
                    "|UNPK[size:8], modem_stats_cmd_ok_count = 0|UNPK[size:8], "
                    "modem_stats_cmd_fail_count = 18446744073709551615|" +
                    row.lines));
  }
  put(record, 4, int32_t{-2});
  EXPECT_EQ(run(command("7 1 0")).back(), "qmi response fail, result = 0, rsp.result = -2");
  came = 0;
  EXPECT_EQ(run(command("7 1 -1")),
            split("Get the debug info of modem_stats, mask = 0xffffffff|send msg sync failed: -5, "
                  "id: 4|tervik_common_qmi_req fail, REQUEST_ID_COMMON, result = -3, rsp.result = "
                  "0"));
}

}  // namespace
}  // namespace kiv::test
