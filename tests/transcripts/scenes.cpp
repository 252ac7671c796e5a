#include "tests/transcripts/scenes.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <thread>

#include "platform/modem/pdc_service.h"
#include "platform/modem/uim_service.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "platform/qmi/service_bus.h"
#include "tervik_kiv_at_cmd.h"
#include "tervik_kiv_smart_test.h"
#include "tests/support/extension_stub.h"
#include "uim_idl.h"

namespace kiv::test {
namespace {

using Bytes = std::vector<uint8_t>;

// ---- AT ----

int g_modem = -1;  // the modem's end of the channel

// Answers a command with the command itself, a second after it has come, so that it is seen what
// arrives at the device.
void echo_command() {
  pollfd command{.fd = g_modem, .events = POLLIN, .revents = 0};
  char bytes[256];
  const ssize_t length = poll(&command, 1, -1) == 1 ? read(g_modem, bytes, sizeof(bytes)) : -1;
  sleep(1);
  if (length <= 0 || write(g_modem, bytes, static_cast<size_t>(length)) != length) abort();
}

// Drains a channel that is full, late, and answers the command late.
void drain_and_answer() {
  sleep(2);
  char bytes[4096];
  pollfd more{.fd = g_modem, .events = POLLIN, .revents = 0};
  for (bool command = false; !command && poll(&more, 1, -1) == 1;) {
    const ssize_t length = read(g_modem, bytes, sizeof(bytes));
    command = length > 0 && std::string_view(bytes, static_cast<size_t>(length)).ends_with("\n");
  }
  sleep(2);
  if (write(g_modem, "OK", 2) != 2) abort();
}

// ---- services ----

// The words of a payload, and no more than them.
ExtensionAnswer answer_of_words(const std::vector<uint32_t>& words) {
  Bytes payload(words.size() * sizeof(uint32_t));
  std::memcpy(payload.data(), words.data(), payload.size());
  return {.result = 0, .len = static_cast<uint32_t>(payload.size()), .payload = payload};
}

// A UIM service whose responses are C structures, filled by `fill`.
void uim_answers(void (*fill)(uint16_t message, std::span<uint8_t> response)) {
  platform::publish_service(platform::kUimServiceId, [fill](uint16_t message, auto) {
    const auto& idl = *uim_get_service_object_internal_v01(1, 0x71, 6);
    Bytes response(platform::find_message(idl, QMI_IDL_RESPONSE, message)->c_struct_len);
    fill(message, response);
    return platform::ServiceReply::response(response);
  });
}

}  // namespace

void at_channel_silent() {
  g_modem = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (grantpt(g_modem) != 0 || unlockpt(g_modem) != 0) abort();
  g_at_device_path = ptsname(g_modem);
  const int channel = open(g_at_device_path, O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios settings{};
  tcgetattr(channel, &settings);
  cfmakeraw(&settings);
  tcsetattr(channel, TCSANOW, &settings);
}

void at_channel_echoes() {
  at_channel_silent();
  std::thread(echo_command).detach();
}

void at_channel_is_full_at_first() {
  at_channel_silent();
  const int channel = open(g_at_device_path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  const std::string filling(4096, 'x');
  // The kernel moves bytes on by itself, in the machine's own time: it must come to its end.
  for (int times = 0; times < 4; ++times) {
    while (write(channel, filling.data(), filling.size()) > 0) {
    }
    timeval moment{.tv_sec = 0, .tv_usec = 20'000};
    select(0, nullptr, nullptr, nullptr, &moment);
  }
  std::thread(drain_and_answer).detach();
}

void at_channel_answers_at_length() {
  at_channel_silent();
  const std::string answer = std::string("%s%n\0", 5) + std::string(595, 'x');
  if (write(g_modem, answer.data(), answer.size()) != 600) abort();
}

void at_shell_is_bash() {
  at_channel_echoes();
  g_at_shell_path = "/bin/bash";
}

void at_channel_is_a_file() {
  std::ofstream(g_at_device_path).put('x');
}

void at_channel_is_a_pipe() {
  mkfifo(g_at_device_path, 0600);
  g_at_shell_limit_ms = 50;
}

void share_memory_is_a_pipe() {
  mkfifo(g_share_memory_file_path, 0600);
}

void all_is_silent() {
  at_channel_silent();
  platform::publish_service(platform::kPdcServiceId,
                            [](auto...) { return platform::ServiceReply::silence(); });
}

void diag_with(const platform::DiagFaults& faults,
               const std::vector<platform::DiagAnswer>& streams) {
  const auto echo = [streams](std::span<const uint8_t> command) {
    std::vector<platform::DiagAnswer> answers = streams;
    answers.push_back({.bytes = {command.begin(), command.end()}});
    return answers;
  };
  platform::set_diag_modem({.processor = echo, .faults = faults});
}

void diag_streams() {
  using Stream = platform::DiagAnswer::Stream;
  diag_with({}, {{.bytes = {0x10, 1}, .stream = Stream::kDciLog},
                 {.bytes = {0x60, 1}, .stream = Stream::kDciEvent},
                 {.bytes = {0x10, 2}, .stream = Stream::kDciLog},
                 {.bytes = {0x60, 2}, .stream = Stream::kDciEvent}});
}
void extension_answers_briefly() {
  new ExtensionStub(
      [](auto&) { return ExtensionAnswer{.result = 0, .len = 3, .payload = Bytes{}}; });
}
void extension_answers_nothing() {
  new ExtensionStub([](auto&) { return ExtensionAnswer{}; });
}
void extension_claims_more() {
  new ExtensionStub([](const ExtensionRequest& request) {
    constexpr uint32_t kEfsClass = 2;
    if (request.id == kEfsClass) return answer_of_words({0, 600, 600, 0, 0, 0x04030201});
    return answer_of_words({0, 0, 74, 600, 0x04030201});
  });
}

void euicc_has_letters() {
  uim_answers([](uint16_t message, std::span<uint8_t> response) {
    constexpr std::array<uint8_t, 16> kEid = {0x89, 0xAB, 0x10, 0xC0, 0, 0, 0,    0,
                                              0,    0,    0,    0,    0, 0, 0x0D, 0x15};
    if (message != 0x65) return;
    response[8] = 1;
    std::memcpy(&response[16], kEid.data(), kEid.size());
  });
}

void euicc_answers_briefly() {
  uim_answers([](uint16_t message, std::span<uint8_t> response) {
    if (message == 0x42) response[8] = response[9] = 1;
    if (message != 0x3B) return;
    response[12] = 2;
    response[16] = 0x90;
  });
}

}  // namespace kiv::test
