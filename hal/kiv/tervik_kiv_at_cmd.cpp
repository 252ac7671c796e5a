#include "tervik_kiv_at_cmd.h"

#include <fcntl.h>
#include <paths.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tervik_kiv_test_args.h"
#include "tervik_utils_outcome.h"

const char* g_at_device_path = "/dev/smd8";
const char* g_at_shell_path = _PATH_BSHELL;
int g_at_shell_limit_ms = 3000;
std::atomic<int> g_at_serial_fd{0};

namespace {

constexpr int AT_TEXT_MAX = 100;
constexpr size_t SHELL_LINE_SIZE = 501;
constexpr size_t RECEIVE_MAX = 511;
constexpr int RECEIVE_TIMEOUT_MS = 3000;
constexpr int SEND_TIMEOUT_MS = 3000;

// Set by the receiver thread when it is through.
std::atomic<bool> g_at_receive_done{false};

constexpr std::array COMMANDS = {
    category_command{.number = NO_COMMAND_NUMBER,
                     .help = "/* atcmd_cxt: at command context */\n"
                             "   the len of atcmd can not > 100",
                     .takes = takes(text("atcmd_cxt", 0, AT_TEXT_MAX,
                                         "the AT text, up to 100 bytes, cut at its first blank"))}};

// Opens the AT channel for its answer, where there is one. The process must not get it as its
// controlling terminal, and a channel that is not ready must not hold it up.
void open_at_channel() {
  struct stat status = {};
  if (stat(g_at_device_path, &status) != 0 || !S_ISCHR(status.st_mode)) {
    return;
  }
  int fd = open(g_at_device_path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd == 0) {
    // Standard input was closed: 0 stands for a channel that is not open.
    fd = fcntl(fd, F_DUPFD_CLOEXEC, 1);
    close(0);
  }
  g_at_serial_fd = std::max(fd, 0);
}

void close_at_channel() {
  if (g_at_serial_fd >= 1) {
    close(g_at_serial_fd);
    g_at_serial_fd = 0;
  }
}

// A channel that takes no bytes would hold up the shell until its alarm: no shell is started then.
bool channel_takes_bytes() {
  pollfd waiting = {.fd = g_at_serial_fd, .events = POLLOUT, .revents = 0};
  return g_at_serial_fd < 1 || poll(&waiting, 1, SEND_TIMEOUT_MS) > 0;
}

// The signals that a caller of system() does not get while its shell runs. The shell gets them as
// the caller would.
class held_back_signals {
 public:
  held_back_signals() {
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignored, &interrupt_);
    sigaction(SIGQUIT, &ignored, &quit_);
    sigset_t child = {};
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child, &mask_);
  }
  ~held_back_signals() { give_back(); }
  held_back_signals(const held_back_signals&) = delete;
  held_back_signals& operator=(const held_back_signals&) = delete;

  void give_back() const {
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGQUIT, &quit_, nullptr);
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  }

 private:
  struct sigaction interrupt_ = {};
  struct sigaction quit_ = {};
  sigset_t mask_ = {};
};

// The shell's side of run_shell: only what is safe between a fork and an exec.
[[noreturn]] void become_shell(const char* line) {
  sigset_t alarm_alone;
  sigemptyset(&alarm_alone);
  sigaddset(&alarm_alone, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarm_alone, nullptr);
  static_cast<void>(signal(SIGALRM, SIG_DFL));
  itimerval limit = {};
  limit.it_value.tv_sec = g_at_shell_limit_ms / 1000;
  limit.it_value.tv_usec = suseconds_t{1000} * (g_at_shell_limit_ms % 1000);
  if (setitimer(ITIMER_REAL, &limit, nullptr) == 0) {
    execl(g_at_shell_path, "sh", "-c", line, nullptr);
  }
  _exit(127);
}

// What system() does, but the shell ends by an alarm of its own at its limit: an open that waits
// for a carrier, or a channel with room for a part of the bytes, would hold it up for ever.
int run_shell(const char* line) {
  const held_back_signals signals;
  const pid_t shell = fork();
  if (shell == 0) {
    signals.give_back();
    become_shell(line);
  }
  int status = -1;
  while (shell > 0 && waitpid(shell, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return status;
}

// Whether the shell's echo takes a backslash as an escape of its own, as the shells of Debian and
// Android do. A shell that cannot be asked counts as one of these.
bool echo_takes_backslashes() {
  constexpr int NO = 1 << 8;  // as waitpid gives it
  return run_shell(R"sh([ "$(echo '\\')" = '\' ])sh") != NO;
}

// Appends `at_cmd` to the shell line so that the device gets it as it is. What the shell interprets
// between double quotes is escaped for the shell, a backslash for its echo too.
size_t append_escaped(std::array<char, SHELL_LINE_SIZE>& line, size_t length, const char* at_cmd) {
  const bool for_echo = strchr(at_cmd, '\\') != nullptr && echo_takes_backslashes();
  for (; *at_cmd != '\0'; ++at_cmd) {
    const char* prefix = "";
    if (*at_cmd == '\\') {
      prefix = for_echo ? R"(\\\)" : R"(\)";
    } else if (strchr("\"$`", *at_cmd) != nullptr) {
      prefix = R"(\)";
    }
    const int written =
        snprintf(line.data() + length, line.size() - length, "%s%c", prefix, *at_cmd);
    length = std::min(length + static_cast<size_t>(written), line.size() - 1);
  }
  return length;
}

// Waits for the first byte of an answer, at most until the time-out after the end of the send. An
// answer may come while the send is still under way.
bool answer_comes(int fd, int send_done_fd) {
  std::array<pollfd, 2> waiting = {{{.fd = fd, .events = POLLIN, .revents = 0},
                                    {.fd = send_done_fd, .events = POLLIN, .revents = 0}}};
  const int send_limit_ms = 2 * g_at_shell_limit_ms + SEND_TIMEOUT_MS;
  if (poll(waiting.data(), waiting.size(), send_limit_ms) > 0 && waiting[0].revents != 0) {
    return true;
  }
  return poll(waiting.data(), 1, RECEIVE_TIMEOUT_MS) > 0;
}

// Reads one answer; a channel without one is given up after the time-out.
void receive_answer(const char* func, int fd, int send_done_fd) {
  std::array<char, RECEIVE_MAX + 1> answer = {};
  ssize_t received = -1;
  if (answer_comes(fd, send_done_fd)) {
    received = read(fd, answer.data(), RECEIVE_MAX);
  }
  if (received <= 0) {
    tervik_log_error_as(func, "Failed to receive bytes from server");
    tervik_tell_outcome(-1);
    return;
  }
  answer[static_cast<size_t>(received)] = '\0';
  tervik_log_notice_as(func, "Receive the AT reponse: len(%d)", static_cast<int>(received));
  tervik_log_notice_as(func, "%s", answer.data());
}

// Prints the note of an argument that is not as wanted; true when all are.
bool check_arguments(const char* func, int argc, char** argv) {
  if (argc != 3) {
    tervik_log_error_as(func,
                        "note: The number of inputs should be 2, Pls refer to the following cmd:");
    return false;
  }
  if (atoi(argv[1]) != TERVIK_AT_CATEGORY.number) {
    tervik_log_error_as(func,
                        "note: the first parameters should be %d, Pls refer to the following cmd:",
                        TERVIK_AT_CATEGORY.number);
    return false;
  }
  if (strlen(argv[2]) > AT_TEXT_MAX) {
    tervik_log_error_as(
        func, "note: the second parameters length should <= %d, Pls refer to the following cmd:",
        AT_TEXT_MAX);
    return false;
  }
  return true;
}

// Sends the AT text and waits for the receiver. False when there is no receiver.
bool exchange(const char* func, const char* at_text) {
  open_at_channel();
  tervik_log_notice_as(func, "Will create a thread to receive data from serial");
  // Without this descriptor the receiver's own limit ends its wait.
  int send_done_fd = eventfd(0, EFD_CLOEXEC);
  pthread_t receiver = {};
  if (pthread_create(&receiver, nullptr, tervik_test_at_cmd_receive, &send_done_fd) != 0) {
    tervik_log_error_as(func, "Fail to create a thread");
    close(send_done_fd);
    close_at_channel();
    return false;
  }
  tervik_test_at_cmd_send(at_text);
  static_cast<void>(eventfd_write(send_done_fd, 1));
  while (!g_at_receive_done) {
    sleep(1);
  }
  pthread_join(receiver, nullptr);
  close(send_done_fd);
  if (g_at_serial_fd >= 1) {
    tervik_log_notice_as(func, "Will close channel: %s", g_at_device_path);
  }
  close_at_channel();
  g_at_receive_done = false;
  return true;
}

}  // namespace

constexpr command_category TERVIK_AT_CATEGORY = {
    .number = 8, .title = "tervik at command test", .commands = COMMANDS};

void tervik_test_at_cmd_send(const char* at_cmd) {
  std::array<char, SHELL_LINE_SIZE> line = {};
  auto length = static_cast<size_t>(snprintf(line.data(), line.size(), "echo \""));
  length = append_escaped(line, length, at_cmd);
  snprintf(line.data() + length, line.size() - length, "\r\" > %s", g_at_device_path);
  tervik_log_notice("at shell cmd: %s", line.data());
  const int ret_sys = channel_takes_bytes() ? run_shell(line.data()) : -1;
  tervik_log_notice("echo, ret_sys: %d", ret_sys);
  if (ret_sys != 0) {
    tervik_log_error("Fail to send at shell cmd");
    tervik_tell_outcome(ret_sys);
  } else {
    tervik_log_notice("Success to send at shell cmd");
  }
}

void* tervik_test_at_cmd_receive(void* arg) {
  tervik_log_notice("The thread to receive data from serial is started");
  const int fd = g_at_serial_fd;
  if (fd < 1) {
    tervik_log_error("The at channel is not opened, g_at_serial_fd %d", fd);
    tervik_tell_outcome(-1);
  } else {
    receive_answer(__func__, fd, *static_cast<const int*>(arg));
  }
  g_at_receive_done = true;
  return nullptr;
}

int tervik_test_at_cmd_do(int argc, char** argv) {
  if (check_arguments(__func__, argc, argv)) {
    char text[AT_TEXT_MAX + 1] = {};
    const int scanned = sscanf(argv[2], "%100s\r", text);
    tervik_log_notice("At cmd you input: sscanf(%d), len (%d), %s", scanned,
                      static_cast<int>(strlen(text)), text);
    if (exchange(__func__, text)) {
      return 0;
    }
  }
  show_help(TERVIK_AT_CATEGORY.number);
  return 0;
}

void tervik_test_at_cmd_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_AT_CATEGORY, category);
}
