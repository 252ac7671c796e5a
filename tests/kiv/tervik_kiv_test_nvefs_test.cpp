#include "tervik_kiv_test_nvefs.h"

#include <gtest/gtest.h>

#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using KivNvefs = CommandLineTest;

TEST_F(KivNvefs, ArgumentsReachTheModemAsTyped) {
  Bytes body(444);
  put(body, 4, uint32_t{3});
  put(body, 8, uint32_t{3});
  body[20] = 0x0A;
  body[22] = 0xFF;
  const ExtensionStub stub([&body](const ExtensionRequest&) { return answer_of(body); });
  const Strings dump{"data len(3)", "data: ", " 0A", " 00", " FF", ""};
  const struct {
    const char* line;
    size_t data_bytes;
    uint8_t operation;
    uint8_t sub;
    uint16_t id;
    std::string path;
    Bytes data;
    Strings printed;
  } rows[] = {
      {"4 1 7 7232", 0, 1, 1, 7232, "", {}, dump},
      {"4 1 -1 x", 0, 1, 1, 0, "", {}, dump},
      {"4 2 x 550 1 2 255 256", 0, 2, 0, 550, "", {1, 2, 255, 0}, {}},
      {"4 2 1 6853 -1 0x10 abc 7seven", 0, 2, 1, 6853, "", {255, 0, 0, 7}, {}},
      {"4 2 0 7000", 1000, 2, 0, 7000, "", counted_bytes(365), {}},
      {"4 3 1 1", 0, 3, 1, 1, "", {}, {}},
      {"4 4 0 /nv/item_files/x", 0, 4, 0, 0, "/nv/item_files/x", {}, dump},
      {"4 5 1 550 300", 0, 5, 1, 255, "550", {44}, {}},
      {"4 5 1 /f", 366, 5, 1, 255, "/f", counted_bytes(365), {}},
      {"04 6th 0 /%s%n", 0, 6, 0, 0, "/%s%n", {}, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(run(command(row.line, row.data_bytes)), row.printed);
    Bytes wanted(kExtensionPayloadSize);
    put(wanted, 0, row.operation);
    put(wanted, 1, row.sub);
    put(wanted, 2, row.id);
    put(wanted, 4, static_cast<uint8_t>(row.path.size()));
    std::copy(row.path.begin(), row.path.end(), wanted.begin() + 5);
    put(wanted, 108, static_cast<uint32_t>(row.data.size()));
    if (row.operation == 5) put(wanted, 112, static_cast<uint32_t>(row.data.size()));
    std::copy(row.data.begin(), row.data.end(), wanted.begin() + 120);
    ASSERT_FALSE(stub.requests().empty());
    EXPECT_EQ(stub.requests().back().payload, wanted);
  }
  EXPECT_EQ(stub.requests().size(), std::size(rows));
}

TEST_F(KivNvefs, FailuresShowTheirCodeAndTheHelp) {
  const std::pair<std::string, int> rows[] = {
      {"4 1 0 -1", -109},
      {"4 3 0 65536", -109},
      {"4 5 0 " + std::string(101, 'p') + " 1", -106},
      {"4 6 0 " + std::string(5000, 'p'), -106},
      {"4 1 0 9", 5},
  };
  for (const auto& [line, code] : rows) {
    const Strings notes{"tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS", error_code(code)};
    EXPECT_EQ(run(command(line)), with_help(4, notes)) << line;
  }
}

TEST_F(KivNvefs, WrongArgumentsShowTheirNoteAndTheHelp) {
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_of(Bytes(444)); });
  const std::string refer = ", Pls refer to the following cmd:";
  const Strings second{"note: the second parameters is invalid" + refer};
  const Strings need{"note: need 5 inputs" + refer, error_code(268431370)};
  const Strings few{"note: Too few inputs" + refer, error_code(268431370)};
  const std::pair<const char*, Strings> rows[] = {
      {"4 0", second}, {"4 7", second},       {"4 -1 0 550", second}, {"4 abc 0 550", second},
      {"4 1", need},   {"4 1 0 550 1", need}, {"4 2 0 550", few},     {"4 2", few},
      {"4 4 0", need}, {"4 3 0 550 1", need}, {"4 5 0 /f", few},      {"4 6 0", need},
  };
  for (const auto& [line, notes] : rows) {
    EXPECT_EQ(run(command(line)), with_help(4, notes)) << line;
  }
  for (const Strings& too_few : {Strings{}, Strings{"kiv"}, Strings{"kiv", "4"}}) {
    EXPECT_EQ(run(too_few, tervik_test_nvefs_do),
              with_help(4, {"note: Too few parameters" + refer}));
  }
  EXPECT_EQ(run(command("5 1 0 550"), tervik_test_nvefs_do),
            with_help(4, {"note: the first parameters should be 4" + refer}));
  EXPECT_TRUE(stub.requests().empty());
}

}  // namespace
}  // namespace kiv::test
