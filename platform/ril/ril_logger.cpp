#include "ril_logger.h"

#include <pthread.h>
#include <syslog.h>

#include <array>
#include <cstdarg>

namespace qti::ril::logger {
namespace {

constexpr size_t kThreadNameMax = 16;  // the kernel's limit, the NUL included

[[gnu::format(printf, 2, 3)]] void write_line(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

const char* text_or_empty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

void Logger::log(int level, const char* tag, const char* thread_name, const char* function,
                 int line, const char* text) {
  write_line(level, "%s: [%s] %s:%d: %s", text_or_empty(tag), text_or_empty(thread_name),
             text_or_empty(function), line, text_or_empty(text));
}

const char* qcril_get_thread_name() {
  thread_local std::array<char, kThreadNameMax> name{};
  if (pthread_getname_np(pthread_self(), name.data(), name.size()) != 0) {
    name[0] = '\0';
  }
  return name.data();
}

}  // namespace qti::ril::logger
