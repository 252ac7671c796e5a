/* Runs a program and prints the most memory that it had resident, in KiB. The kernel's own figure
 * of a finished child counts what the child shared with its parent before the exec, so the program
 * is stopped on its way out and asked then. Usage: peak_memory PROGRAM [ARGUMENT...] */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

static long peak_of(pid_t pid) {
  char path[64];
  char line[256];
  long peak = -1;
  snprintf(path, sizeof(path), "/proc/%d/status", (int)pid);
  FILE* status = fopen(path, "r");
  while (status != NULL && fgets(line, sizeof(line), status) != NULL) {
    if (sscanf(line, "VmHWM: %ld", &peak) == 1) {
      break;
    }
  }
  if (status != NULL) {
    fclose(status);
  }
  return peak;
}

static int run_traced(char** argv) {
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);
  ptrace(PTRACE_TRACEME, 0, NULL, NULL);
  execvp(argv[0], argv);
  return 127;
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: peak_memory PROGRAM [ARGUMENT...]\n");
    return 2;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    _exit(run_traced(argv + 1));
  }
  int status = 0;
  int signal = 0;
  long peak = -1;
  if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status) ||
      ptrace(PTRACE_SETOPTIONS, pid, NULL, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL) != 0) {
    fprintf(stderr, "peak_memory: cannot trace %s\n", argv[1]);
    return 1;
  }
  while (ptrace(PTRACE_CONT, pid, NULL, (void*)(long)signal) == 0 &&
         waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {
    const int at_exit = status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8);
    signal = at_exit ? 0 : WSTOPSIG(status);
    if (at_exit) {
      peak = peak_of(pid);
    }
  }
  printf("%ld\n", peak);
  return peak > 0 ? 0 : 1;
}
