#include "tervik_kiv_test_nvefs.h"

#include <gtest/gtest.h>

#include "tests/kiv/command_line_fixture.h"

namespace kiv::test {
namespace {

using KivNvefs = CommandLineTest;

constexpr const char* kFailed = "tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS";

std::string error_code(int code) {
  return "note: Error happen! error_code(" + std::to_string(code) + ")";
}

Strings command(const std::string& line, size_t data_bytes = 0) {
  Strings arguments{"kiv"};
  std::string word;
  for (const char c : line + " ") {
    if (c != ' ') {
      word += c;
    } else {
      arguments.push_back(std::exchange(word, ""));
    }
  }
  for (size_t i = 0; i < data_bytes; ++i) arguments.push_back(std::to_string(i + 1));
  return arguments;
}

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
    uint8_t operation;
    uint8_t sub;
    uint16_t id;
    const char* path;
    Bytes data;
    Strings printed;
  } rows[] = {
      {"4 1 0 550", 1, 0, 550, "", {}, dump},
      {"4 1 7 7232", 1, 1, 7232, "", {}, dump},
      {"4 1 -1 x", 1, 1, 0, "", {}, dump},
      {"4 2 x 550 1 2 255 256", 2, 0, 550, "", {1, 2, 255, 0}, {}},
      {"4 2 1 6853 -1 0x10 abc 7seven", 2, 1, 6853, "", {255, 0, 0, 7}, {}},
      {"4 3 1 1", 3, 1, 1, "", {}, {}},
      {"4 4 0 /nv/item_files/x", 4, 0, 0, "/nv/item_files/x", {}, dump},
      {"4 5 1 550 300", 5, 1, 255, "550", {44}, {}},
      {"4 6 0 /%s%n", 6, 0, 0, "/%s%n", {}, {}},
      {"04 6th 0 f", 6, 0, 0, "f", {}, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(run(command(row.line)), row.printed);
    ASSERT_FALSE(stub.requests().empty());
    const Bytes payload = stub.requests().back().payload;
    Bytes wanted(payload.size());
    const std::string path = row.path;
    put(wanted, 0, row.operation);
    put(wanted, 1, row.sub);
    put(wanted, 2, row.id);
    put(wanted, 4, static_cast<uint8_t>(path.size()));
    std::copy(path.begin(), path.end(), wanted.begin() + 5);
    put(wanted, 108, static_cast<uint32_t>(row.data.size()));
    if (row.operation == 5) put(wanted, 112, static_cast<uint32_t>(row.data.size()));
    std::copy(row.data.begin(), row.data.end(), wanted.begin() + 120);
    EXPECT_EQ(payload, wanted);
  }
  EXPECT_EQ(stub.requests().size(), std::size(rows));
}

TEST_F(KivNvefs, AtMost365BytesAreTakenAndReadBack) {
  for (const size_t typed : {364u, 365u, 366u, 1000u}) {
    SCOPED_TRACE(typed);
    const size_t stored = std::min<size_t>(typed, 365);
    EXPECT_EQ(run(command("4 2 0 7000", typed)), Strings{});
    EXPECT_EQ(run(command("4 5 1 /dir/file", typed)), Strings{});
    const Bytes bytes = counted_bytes(stored);
    EXPECT_EQ(read_state_file_text("nv/0/7000"), std::string(bytes.begin(), bytes.end()));
    EXPECT_EQ(read_state_file_text("efs/1/dir/file"), std::string(bytes.begin(), bytes.end()));
    const Strings item = run(command("4 1 0 7000"));
    ASSERT_EQ(item.size(), stored + 3);
    EXPECT_EQ(item[0], "data len(" + std::to_string(stored) + ")");
    EXPECT_EQ(item[stored + 1], stored == 364 ? " 6C" : " 6D");
    // A file that fills the buffer counts as one that does not fit.
    EXPECT_EQ(run(command("4 4 1 /dir/file")),
              stored < 365 ? item : with_help(4, {kFailed, error_code(365)}));
  }
  write_state_file_text("efs/0/long", std::string(1000, 'x'));
  EXPECT_EQ(run(command("4 4 0 long")), with_help(4, {kFailed, error_code(1000)}));
}

TEST_F(KivNvefs, FailuresShowTheirCodeAndTheHelp) {
  const std::string too_long(101, 'p');
  const struct {
    std::string line;
    int code;
  } rows[] = {
      {"4 1 0 7233", -109},
      {"4 1 0 -1", -109},
      {"4 2 1 7233 1", -109},
      {"4 3 0 65536", -109},
      {"4 4 0 " + too_long, -106},
      {"4 5 0 " + too_long + " 1", -106},
      {"4 6 0 " + std::string(100, 'p'), -106},
      {"4 4 0 ", -106},
      {"4 6 0 " + std::string(5000, 'p'), -106},
      {"4 1 0 9", 5},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(run(command(row.line)), with_help(4, {kFailed, error_code(row.code)})) << row.line;
  }
  const ExtensionStub stub(
      [](const ExtensionRequest&) { return platform::ServiceReply::transport_error(-5); });
  tervik_extend_qmi_init_force();
  EXPECT_EQ(run(command("4 1 0 550")),
            with_help(4, {"send msg sync failed: -5, id: 2", kFailed, error_code(-103)}));
}

TEST_F(KivNvefs, WrongArgumentsShowTheirNoteAndTheHelp) {
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_of(Bytes(444)); });
  const std::string need = "note: need 5 inputs, Pls refer to the following cmd:";
  const std::string few = "note: Too few inputs, Pls refer to the following cmd:";
  const std::string no_command = "note: Too few parameters, Pls refer to the following cmd:";
  const std::string second =
      "note: the second parameters is invalid, Pls refer to the following cmd:";
  const std::string first =
      "note: the first parameters should be 4, Pls refer to the following cmd:";
  const std::string invalid = error_code(268431370);
  const struct {
    const char* line;
    Strings notes;
  } rows[] = {
      {"4", {no_command}},
      {"4 0", {second}},
      {"4 7", {second}},
      {"4 -1 0 550", {second}},
      {"4 abc 0 550", {second}},
      {"4 0x1 0 550", {second}},
      {"4 1", {need, invalid}},
      {"4 1 0", {need, invalid}},
      {"4 1 0 550 1", {need, invalid}},
      {"4 2 0 550", {few, invalid}},
      {"4 2", {few, invalid}},
      {"4 3 0 550 1", {need, invalid}},
      {"4 4 0", {need, invalid}},
      {"4 5 0 /f", {few, invalid}},
      {"4 6 0", {need, invalid}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(run(command(row.line)), with_help(4, row.notes)) << row.line;
  }
  EXPECT_EQ(run({}, tervik_test_nvefs_do), with_help(4, {no_command}));
  EXPECT_EQ(run({"kiv"}, tervik_test_nvefs_do), with_help(4, {no_command}));
  EXPECT_EQ(run(command("5 1 0 550"), tervik_test_nvefs_do), with_help(4, {first}));
  EXPECT_EQ(run(command("5 9"), tervik_test_nvefs_do), with_help(4, {first}));
  EXPECT_TRUE(stub.requests().empty());
}

}  // namespace
}  // namespace kiv::test
