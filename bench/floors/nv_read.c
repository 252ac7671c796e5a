/* Stands against `kiv 4 1 0 550`: the same system log calls and lines, one timer, three reads of
 * the property file and one of the NV item, and nothing else. */
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "lines.h"

static const struct line kLines[] = {
#include "nv_read_lines.inc"
};

static void read_state_file(const char* name) {
  char path[4096];
  char content[4096];
  snprintf(path, sizeof(path), "%s/%s", getenv("KIV_STATE_DIR"), name);
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return;
  }
  while (read(file, content, sizeof(content)) > 0) {
  }
  close(file);
}

static void on_timer(union sigval value) {
  (void)value;
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  for (int i = 0; i < 3; ++i) {
    read_state_file("properties");
  }
  put_bookkeeping();
  struct sigevent event;
  memset(&event, 0, sizeof(event));
  event.sigev_notify = SIGEV_THREAD;
  event.sigev_notify_function = on_timer;
  timer_t timer;
  const struct itimerspec in_an_hour = {.it_value = {.tv_sec = 3600}};
  if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
      timer_settime(timer, 0, &in_an_hour, NULL) != 0) {
    return 1;
  }
  read_state_file("nv/0/550");
  put_lines(kLines, sizeof(kLines) / sizeof(*kLines));
  return timer_delete(timer) == 0 ? 0 : 1;
}
