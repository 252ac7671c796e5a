/* What a floor does for the lines of the program that it stands against: each goes to the system
 * log and, as there, by one printf to a line-buffered standard output. */
#ifndef KIV_BENCH_FLOORS_LINES_H
#define KIV_BENCH_FLOORS_LINES_H

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

static void to_syslog(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(LOG_DEBUG, format, args);
  va_end(args);
}

struct line {
  int logged;
  const char* text;
};

static void put_lines(const struct line* lines, size_t count) {
  for (; count > 0; --count, ++lines) {
    if (lines->logged) {
      to_syslog("%s", lines->text);
    }
    printf("%s\n", lines->text);
  }
}

/* The first statement finds out where statements go, and says so in the system log alone. */
static void put_bookkeeping(void) {
  for (int i = 0; i < SYSLOG_ONLY; ++i) {
    to_syslog("%s", "shell print is started, g_tervik_shell_print_mask 0xffff");
  }
}

#endif
