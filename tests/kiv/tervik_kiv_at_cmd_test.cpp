#include "tervik_kiv_at_cmd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "tests/kiv/command_line_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

// An AT channel whose modem's side is in the test's hands: a pseudo terminal that passes every
// byte as it is.
class KivAtCmd : public CommandLineTest {
 protected:
  void SetUp() override {
    CommandLineTest::SetUp();
    modem_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(modem_, 0);
    ASSERT_EQ(grantpt(modem_), 0);
    ASSERT_EQ(unlockpt(modem_), 0);
    channel_path_ = ptsname(modem_);
    channel_ = open(channel_path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(channel_, 0);
    termios settings{};
    ASSERT_EQ(tcgetattr(channel_, &settings), 0);
    cfmakeraw(&settings);
    ASSERT_EQ(tcsetattr(channel_, TCSANOW, &settings), 0);
    g_at_device_path = channel_path_.c_str();
  }
  void TearDown() override {
    g_at_device_path = real_path_;
    for (const int descriptor : {modem_, channel_}) close(descriptor);
    EXPECT_EQ(g_at_serial_fd, 0);
    CommandLineTest::TearDown();
  }

  // What has arrived at the modem.
  std::string received() const {
    char bytes[1024];
    pollfd waiting{.fd = modem_, .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, 0) != 1) return "";
    const ssize_t length = read(modem_, bytes, sizeof bytes);
    return {bytes, static_cast<size_t>(std::max<ssize_t>(length, 0))};
  }
  void answer(const std::string& text) const {
    ASSERT_EQ(write(modem_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  int modem_ = -1;
  int channel_ = -1;
  std::string channel_path_;

 private:
  const char* const real_path_ = g_at_device_path;
};

TEST_F(KivAtCmd, DeviceGetsTheTextAsTyped) {
  const TimeLapse lapse(100);
  const std::string made = state_dir() + "/made";
  write_state_file_text("any", "");  // the folder
  for (const std::string& text :
       {std::string("AT+CSQ"), std::string(R"(AT+CPIN="1234")"), "$(>" + made + ")`>" + made + "`",
        "\";>" + made + ";\"", std::string(R"(AT\n\\t\c\"\$HOME\)"), std::string("-n"),
        std::string("AT*?~#!&|;'<%s%n"), std::string(100, '\\'), std::string()}) {
    answer("OK");
    const Strings printed = run({"kiv", "8", text});
    EXPECT_EQ(received(), text + "\r\n");
    ASSERT_FALSE(printed.empty());
    EXPECT_EQ(printed[0], std::string("At cmd you input: sscanf(") + (text.empty() ? "-1" : "1") +
                              "), len (" + std::to_string(text.size()) + "), " + text);
  }
  answer("OK");
  run({"kiv", "8", " AT+CGMI and more"});
  EXPECT_EQ(received(), "AT+CGMI\r\n");
  EXPECT_FALSE(std::filesystem::exists(made));
}

TEST_F(KivAtCmd, AnswerIsPrintedAndSilenceEnds) {
  const TimeLapse lapse(100);
  for (const auto& [text, lines] :
       {std::pair<std::string, Strings>{"+CSQ: 20,99",
                                        {"Receive the AT reponse: len(11)", "+CSQ: 20,99"}},
        {"%s%n", {"Receive the AT reponse: len(4)", "%s%n"}},
        {std::string(600, 'x'), {"Receive the AT reponse: len(511)", std::string(511, 'x')}},
        {std::string("OK\0no", 5), {"Receive the AT reponse: len(5)", "OK"}},
        {"", {"Failed to receive bytes from server"}}}) {
    tcflush(channel_, TCIFLUSH);
    answer(text);
    const size_t open_before = open_descriptors();
    Strings printed = run({"kiv", "8", "AT+CSQ"});
    EXPECT_EQ(open_descriptors(), open_before);
    // Two threads print: the order between them is any.
    Strings wanted = split(
        "At cmd you input: sscanf(1), len (6), AT+CSQ|"
        "Will create a thread to receive data from serial|"
        "The thread to receive data from serial is started|"
        "at shell cmd: echo \"AT+CSQ\r\" > " +
        channel_path_ +
        "|echo, ret_sys: 0|Success to send at shell cmd|"
        "Will close channel: " +
        channel_path_);
    wanted.insert(wanted.end(), lines.begin(), lines.end());
    std::sort(wanted.begin(), wanted.end());
    std::sort(printed.begin(), printed.end());
    EXPECT_EQ(printed, wanted);
    EXPECT_EQ(received(), "AT+CSQ\r\n");
  }
}

TEST_F(KivAtCmd, WhatIsNoDeviceIsNotOpened) {
  const TimeLapse lapse(100);
  write_state_file_text("plain", "old");
  for (const std::string& path : {state_dir() + "/plain", state_dir() + "/no/such"}) {
    g_at_device_path = path.c_str();
    const Strings printed = run({"kiv", "8", "AT"});
    const auto count = [&printed](const char* line) {
      return std::count(printed.begin(), printed.end(), line);
    };
    EXPECT_EQ(printed.size(), 7u);  // no closing, no help
    EXPECT_EQ(count("The at channel is not opened, g_at_serial_fd 0"), 1);
    EXPECT_EQ(count(path.ends_with("plain") ? "Success to send at shell cmd"
                                            : "Fail to send at shell cmd"),
              1);
  }
  EXPECT_EQ(read_state_file_text("plain"), "AT\r\n");
}

// A pipe without a reader stands for whatever holds the shell up for ever: a device that waits for
// a carrier, or has room for a part of the bytes.
TEST_F(KivAtCmd, ShellThatIsHeldUpEndsAtItsLimit) {
  const std::string pipe = state_dir() + "/pipe";
  write_state_file_text("any", "");  // the folder
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  g_at_device_path = pipe.c_str();
  const int usual_limit = std::exchange(g_at_shell_limit_ms, 50);
  const TimeLapse lapse(100);
  const Strings printed = run({"kiv", "8", "AT"});
  g_at_shell_limit_ms = usual_limit;
  for (const std::string& line :
       {"echo, ret_sys: " + std::to_string(SIGALRM), std::string("Fail to send at shell cmd")}) {
    EXPECT_EQ(std::count(printed.begin(), printed.end(), line), 1) << line;
  }
}

TEST_F(KivAtCmd, WrongArgumentsShowTheirNoteAndTheHelp) {
  const std::string refer = ", Pls refer to the following cmd:";
  expect_help("8", "note: The number of inputs should be 2" + refer);
  expect_help("8 a b", "note: The number of inputs should be 2" + refer);
  expect_help("8 " + std::string(101, 'A'),
              "note: the second parameters length should <= 100" + refer);
  EXPECT_EQ(run(command("7 AT"), tervik_test_at_cmd_do),
            with_help(8, {"note: the first parameters should be 8" + refer}));
  EXPECT_EQ(received(), "");
}

}  // namespace
}  // namespace kiv::test
