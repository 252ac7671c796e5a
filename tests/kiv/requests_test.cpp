// What command lines send, byte by byte: the transcripts show everything else of a run.

#include <utility>

#include "platform/modem/nas_service.h"
#include "platform/modem/uim_service.h"
#include "tervik_extend_cmn.h"
#include "tervik_kiv_test_main.h"
#include "tests/qmi/extension_client_fixture.h"

namespace kiv::test {
namespace {

// Runs the tool; what it prints. Behind the words of the line come the numbers 1, 2, 3 and so on.
std::string run(const std::string& line, size_t numbers = 0) {
  Strings arguments{"kiv"};
  std::istringstream words(line);
  for (std::string word; words >> word;) arguments.push_back(word);
  for (size_t i = 1; i <= numbers; ++i) arguments.push_back(std::to_string(i));
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  return captured_stdout(
      [&] { tervik_kiv_test_main(static_cast<int>(arguments.size()), argv.data()); });
}

// ---- the extension service ----

struct Sent {
  uint32_t id;
  uint32_t len;
  Bytes payload;
};

Sent nvefs(uint8_t operation, uint8_t sub, uint16_t id, const std::string& path = "",
           const Bytes& data = {}) {
  const size_t chunk = operation == 5 ? data.size() : 0;  // the one piece of a file
  return {2, 544, nvefs_payload({operation, sub, id, path, data.size(), chunk, 0, data})};
}
Sent efs_write(const std::string& path, const Bytes& data) {
  return nvefs(5, 0, 255, path, data);
}
Sent common(uint32_t type, const std::vector<uint32_t>& data = {}) {
  return {4, 512, common_payload(type, words(data))};
}
// A body of class 4 that is not a common message.
Sent body(const std::vector<uint32_t>& begin) {
  return {4, 512, payload_of(words(begin))};
}
Sent raw(uint32_t id, const Bytes& bytes) {
  return {id, static_cast<uint32_t>(bytes.size()), payload_of(bytes)};
}

class Requests : public ExtensionClientTest {};

TEST_F(Requests, CommandLinesAreSentInTheirBytes) {
  std::vector<uint32_t> sixty{0, 0, 60};
  for (uint32_t i = 1; i <= 50; ++i) sixty.push_back(i);
  constexpr uint32_t kMinus2 = UINT32_MAX - 1;
  const Sent sync = common(35);
  const Sent ssr = common(31, {0x80000010});
  const struct {
    const char* line;
    size_t numbers;
    std::vector<Sent> sent;
  } rows[] = {
      {"3 0", 0, {body({0, 0, 0})}},
      {"3 0", 60, {body(sixty)}},
      {"3 3 -2 x 18446744073709551614", 0, {body({1, 0, kMinus2, 0, kMinus2, UINT32_MAX})}},
      {"4 1 7 7232", 0, {nvefs(1, 1, 7232)}},
      {"3 2", 0, {nvefs(6, 0, 0, std::string("/oem/debug/rf_ant_port_config\0", 30))}},
      {"3 4", 0, {nvefs(4, 0, 0, std::string("/oem/debug/ant_tx_config\0", 25))}},
      {"4 1 -1 x", 0, {nvefs(1, 1, 0)}},
      {"4 2 1 6853 -1 0x10 abc 7seven", 0, {nvefs(2, 1, 6853, "", {255, 0, 0, 7})}},
      {"4 2 0 7000", 1000, {nvefs(2, 0, 7000, "", counted_bytes(365))}},
      {"4 5 1 550 300", 0, {nvefs(5, 1, 255, "550", {44})}},
      {"4 5 0 /f", 366, {efs_write("/f", counted_bytes(365))}},
      {"04 6th 0 /%s%n", 0, {nvefs(6, 0, 0, "/%s%n")}},
      {"5 2 7", 0, {common(55, {1})}},
      {"5 3 -1 0 2", 0, {common(57, {1, 0, 1})}},
      {"5 6 7 -2 0 2147483648", 0, {common(80, {7, kMinus2, 0, 0x80000000})}},
      {"5 10 1 1", 0, {{1, 428, payload_of(words({1, 6853, 0}))}}},
      {"6 4 0x02 0 300 -1 0XFf", 0, {raw(4, {2, 0, 44, 255, 255})}},
      {"6 0", 1, {raw(0, {1})}},
      {"6 6", 501, {raw(6, counted_bytes(500))}},
      {"7 1 0", 0, {body({20}), body({27})}},
      {"11 0", 0, {ssr}},
      {"11 1", 0, {common(99, {0x80000012})}},
      {"11 10", 0, {common(99, {0x80000011})}},
      {"11 4 1", 0, {efs_write("/oem/lyrax/lyrax_print_mask", words({0x1F})), sync, ssr}},
      {"11 4 0", 0, {nvefs(6, 0, 0, "/oem/lyrax/lyrax_print_mask"), sync, ssr}},
      {"11 6 0", 0, {nvefs(6, 0, 0, "/oem/debug/rf_print_mask"), sync, ssr}},
      {"11 11 123456789", 0, {common(73, {123456789})}},
  };
  // Every request succeeds; the statistics are on, and not supported.
  Bytes answer(508);
  answer[9] = answer[10] = 1;
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer_of(answer); });
  write_state_file_text("properties", "persist.radio.ssr_wait_s=0\n");
  size_t before = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    run(row.line, row.numbers);
    const auto requests = stub.requests();
    ASSERT_EQ(requests.size(), before + row.sent.size());
    for (const Sent& sent : row.sent) {
      EXPECT_EQ(requests[before].id, sent.id);
      EXPECT_EQ(requests[before].len, sent.len);
      EXPECT_EQ(requests[before++].payload, sent.payload);
    }
  }
}

// ---- other services ----

TEST_F(Requests, ScansAreSentEmptyAndHearOfTheLossOfTheirService) {
  const platform::Service modem = platform::make_nas_service({});
  std::vector<std::pair<uint16_t, Bytes>> sent;
  const LogCapture log;
  for (const char* line : {"12 0", "12 1"}) {
    platform::publish_service(platform::kNasServiceId, [&](uint16_t id, auto bytes) {
      sent.emplace_back(id, Bytes(bytes.begin(), bytes.end()));
      platform::withdraw_service(platform::kNasServiceId);
      usleep(1);  // the framework's thread calls back
      return modem(id, bytes);
    });
    run(line);
  }
  EXPECT_EQ(sent, (decltype(sent){{0x21, Bytes(272)}, {0x85, Bytes(576)}}));
  EXPECT_EQ(log.count("QMI error callback -2"), 2u);
}

TEST_F(Requests, AResetOfTheEuiccIsSentInItsBytes) {
  const platform::Service modem = platform::make_uim_service({});
  Bytes apdu;
  platform::publish_service(platform::kUimServiceId, [&](uint16_t id, auto bytes) {
    if (id == 0x3B) apdu.assign(bytes.begin(), bytes.end());
    return modem(id, bytes);
  });
  run("5 10 5 1");
  apdu.resize(24);
  EXPECT_EQ(apdu, (Bytes{2, 0,    0,    0,    13,   0, 0, 0,    0x80, 0xE2, 0x91, 0,
                         7, 0xBF, 0x34, 0x04, 0x82, 2, 5, 0xE0, 0,    0,    0,    0}));
  uim_qmi_client_recovery();
}

}  // namespace
}  // namespace kiv::test
