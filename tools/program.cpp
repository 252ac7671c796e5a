#include "program.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

const char* g_name = "";

}  // namespace

void prepare_program(const char* name) {
  g_name = name;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) {
      static_cast<void>(open(fd == STDIN_FILENO ? "/dev/null" : "/dev/full", O_RDWR));
    }
  }
  static_cast<void>(signal(SIGPIPE, SIG_IGN));
}

void end_program(exit_status status, const std::string& why) {
  fprintf(stderr, "%s: %s\n", g_name, why.c_str());
  exit(status);
}

int open_file(const char* name, int how) {
  const int file = open(name, O_WRONLY | O_CREAT | O_CLOEXEC | how, 0666);
  if (file < 0) {
    end_for_file(NO_VERDICT, name);
  }
  return file;
}

void end_for_file(exit_status status, const char* file) {
  end_program(status, std::string(file) + ": " + strerror(errno));
}

void end_with(const std::string& text) {
  exit(write_all(STDOUT_FILENO, text + '\n') ? SUCCESS : NO_VERDICT);
}

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

double seconds_of(const char* text) {
  char* end = nullptr;
  const double seconds = strtod(text, &end);
  return end != text && *end == '\0' && std::isfinite(seconds) && seconds > 0 ? seconds : 0;
}

std::string time_now() {
  char text[64];
  timespec now = {};
  tm parts = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const size_t length = strftime(text, sizeof(text), "%FT%T", localtime_r(&now.tv_sec, &parts));
  snprintf(text + length, sizeof(text) - length, ".%03ld", now.tv_nsec / 1'000'000);
  return text;
}

std::string shell_word(std::string_view word) {
  constexpr const char* PLAIN =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+./:,=@%";
  if (!word.empty() && word.find_first_not_of(PLAIN) == std::string_view::npos) {
    return std::string(word);
  }
  std::string quoted = "'";
  for (const char c : word) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}
