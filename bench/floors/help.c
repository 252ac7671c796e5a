/* Stands against kiv without arguments: the same system log calls and lines, and nothing else. */
#include "lines.h"

static const struct line kLines[] = {
#include "help_lines.inc"
};

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  put_bookkeeping();
  put_lines(kLines, sizeof(kLines) / sizeof(*kLines));
  return 0;
}
