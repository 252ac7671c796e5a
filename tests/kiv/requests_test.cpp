// What command lines send, byte by byte, and what comes back that no modem of this project says:
// the transcripts show everything else of a run.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <utility>

#include "nas_idl.h"
#include "platform/modem/uim_service.h"
#include "tervik_extend_cmn.h"
#include "tervik_kiv_at_cmd.h"
#include "tervik_kiv_smart_test.h"
#include "tervik_kiv_test_cmn.h"
#include "tervik_kiv_test_main.h"
#include "tests/qmi/extension_client_fixture.h"

namespace kiv::test {
namespace {

using namespace std::chrono_literals;
using platform::ServiceReply;

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

TEST_F(Requests, HexadecimalNumbersSaturateAndWrapAndHaveAtMost50Digits) {
  const std::string zeros(48, '0');
  const std::pair<std::string, int> rows[] = {
      {"0x", 0},
      {"0xG1", 1},
      {"0x80000000", INT_MAX},  // each digit's share is cut, and the sum of the shares wraps
      {"0xFFFFFFFF", INT_MIN + 0x0FFFFFFE},
      {"0x123456789A", 0x34567898},
      {"0x" + zeros + "7f", 0x7F},
      {"0x1" + zeros + "7f", 0}};
  for (const auto& [text, number] : rows) {
    EXPECT_EQ(tervik_string_to_int(text.c_str()), number) << text;
  }
}

// ---- other services ----

TEST_F(Requests, ScansAreSentEmptyAndAwaitedForTenSeconds) {
  const uint32_t service = nas_get_service_object_internal_v01(1, 0x199, 6)->service_id;
  std::vector<std::pair<uint16_t, Bytes>> sent;
  platform::publish_service(service, [&sent](uint16_t id, std::span<const uint8_t> bytes) {
    sent.emplace_back(id, Bytes(bytes.begin(), bytes.end()));
    return ServiceReply::silence();
  });
  for (const char* line : {"12 0", "12 1"}) {
    EXPECT_EQ(time_of([line] { run(line); }), 10s + kLateness);
  }
  EXPECT_EQ(sent, (decltype(sent){{0x21, Bytes(272)}, {0x85, Bytes(576)}}));
}

TEST_F(Requests, AResetOfTheEuiccClosesItsChannelWhenItsAnswerIsGood) {
  constexpr size_t kAnswerOffset = 16;
  const platform::Service modem = platform::make_uim_service({});
  std::vector<std::pair<uint16_t, Bytes>> sent;
  size_t damaged = SIZE_MAX;  // a byte of the answer to the APDU
  platform::publish_service(platform::kUimServiceId, [&](uint16_t id, auto bytes) {
    sent.emplace_back(id, Bytes(bytes.begin(), bytes.end()));
    ServiceReply reply = modem(id, bytes);
    if (id == 0x3B && damaged != SIZE_MAX) reply.bytes[damaged] ^= 1;
    return reply;
  });
  EXPECT_NE(run("5 10 5 1").find("value=SUCCEED\n"), std::string::npos);
  ASSERT_EQ(sent.size(), 3u);
  const Bytes& apdu = sent[1].second;
  EXPECT_EQ(Bytes(&apdu[0], &apdu[24]),
            (Bytes{2, 0,    0,    0,    13,   0, 0, 0,    0x80, 0xE2, 0x91, 0,
                   7, 0xBF, 0x34, 0x04, 0x82, 2, 5, 0xE0, 0,    0,    0,    0}));
  EXPECT_EQ(sent[2].first, 0x3F);
  for (const size_t byte : {size_t{12}, kAnswerOffset, kAnswerOffset + 7}) {
    sent.clear();
    damaged = byte;
    EXPECT_NE(run("5 10 5 1").find("value=FAILED\n"), std::string::npos);
    ASSERT_EQ(sent.size(), 2u) << byte;
    EXPECT_EQ(sent[0].first, 0x42);
    EXPECT_EQ(sent[1].first, 0x3B);
  }
  uim_qmi_client_recovery();
}

// ---- devices and files ----

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// An AT channel whose modem's side is in the test's hands: a pseudo terminal that passes every
// byte as it is.
class AtChannel : public Requests {
 protected:
  void SetUp() override {
    Requests::SetUp();
    tervik_hal_set_shell_print_mask(LOG_CLASS_ERROR | LOG_CLASS_NOTICE);
    modem_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(grantpt(modem_) | unlockpt(modem_), 0);
    channel_path_ = ptsname(modem_);
    channel_ = open(channel_path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    ASSERT_EQ(tcgetattr(channel_, &settings), 0);
    cfmakeraw(&settings);
    ASSERT_EQ(tcsetattr(channel_, TCSANOW, &settings), 0);
    g_at_device_path = channel_path_.c_str();
    open_before_ = open_descriptors();
  }
  void TearDown() override {
    EXPECT_EQ(open_descriptors(), open_before_);
    g_at_device_path = real_path_;
    for (const int descriptor : {modem_, channel_}) close(descriptor);
    Requests::TearDown();
  }

  // Runs the command with the modem's answer waiting already.
  std::string send(std::string text, const std::string& answer) {
    tcflush(channel_, TCIFLUSH);
    EXPECT_EQ(write(modem_, answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
    char tool[] = "kiv";
    char category[] = "8";
    char* argv[] = {tool, category, text.data(), nullptr};
    return captured_stdout([&] { tervik_kiv_test_main(3, argv); });
  }
  // What has arrived at the modem.
  std::string received() const {
    char bytes[1024];
    pollfd waiting{.fd = modem_, .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, 0) != 1) return "";
    return {bytes, static_cast<size_t>(std::max<ssize_t>(read(modem_, bytes, sizeof bytes), 0))};
  }

  int modem_ = -1;
  int channel_ = -1;
  std::string channel_path_;
  size_t open_before_ = 0;

 private:
  const char* const real_path_ = g_at_device_path;
};

TEST_F(AtChannel, DeviceGetsTheTextAsTyped) {
  const std::string made = state_dir() + "/made";
  write_state_file_text("any", "");  // the folder
  for (const std::string& text :
       {std::string(R"(AT+CPIN="1234")"), "$(>" + made + ")`>" + made + "`", "\";>" + made + ";\"",
        std::string(R"(AT\n\\t\c\"\$HOME\)"), std::string("-n"), std::string("AT*?~#!&|;'<%s%n"),
        std::string(100, '\\'), std::string()}) {
    send(text, "OK");
    EXPECT_EQ(received(), text + "\r\n");
  }
  EXPECT_FALSE(std::filesystem::exists(made));
}

TEST_F(AtChannel, AnswersOfAnyKindEndTheCommand) {
  const std::string lots(600, 'x');
  for (const auto& [answer, shown] :
       {std::pair<std::string, std::string>{"%s%n", "len(4)\n*%s%n\n"},
        {lots, "len(511)\n*" + lots.substr(0, 511) + "\n"},
        {std::string("OK\0no", 5), "len(5)\n*OK\n"}}) {
    std::string printed = send("AT", answer);
    const size_t begin = printed.find("reponse: ");
    ASSERT_NE(begin, std::string::npos);
    printed = std::regex_replace(printed.substr(begin + 9), std::regex("RIL.* tervik.*?: "), "*");
    EXPECT_TRUE(printed.starts_with(shown)) << printed;
    EXPECT_EQ(received(), "AT\r\n");
  }
}

// A pipe without a reader stands for whatever holds the shell up for ever: a device that waits for
// a carrier, or has room for a part of the bytes.
TEST_F(AtChannel, AShellThatIsHeldUpEndsAtItsLimit) {
  const std::string pipe = state_dir() + "/pipe";
  write_state_file_text("any", "");  // the folder
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  g_at_device_path = pipe.c_str();
  const int usual_limit = std::exchange(g_at_shell_limit_ms, 50);
  const std::string printed = send("AT", "");
  g_at_shell_limit_ms = usual_limit;
  EXPECT_NE(printed.find("echo, ret_sys: 14\n"), std::string::npos) << printed;  // SIGALRM
  EXPECT_NE(printed.find("Fail to send at shell cmd"), std::string::npos);
}

TEST_F(Requests, SharedMemoryIsSetToItsSizeAndNothingStaysOpen) {
  write_state_file_text("long", std::string(300, 'A'));
  const std::string path = state_dir() + "/long";
  const std::string pipe = state_dir() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const char* const real_path = g_share_memory_file_path;
  const size_t open_before = open_descriptors();
  for (const std::string& each : {path, pipe}) {
    g_share_memory_file_path = each.c_str();
    const LogCapture log;
    run("11 7");
    EXPECT_EQ(log.count("ftruncate error"), each == pipe ? 1u : 0u);
    EXPECT_EQ(open_descriptors(), open_before);
  }
  g_share_memory_file_path = real_path;
  EXPECT_EQ(std::filesystem::file_size(path), 100u);
}

}  // namespace
}  // namespace kiv::test
