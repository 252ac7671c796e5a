#include "tests/e2e/program_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace kiv::test {
namespace {

constexpr unsigned kPatienceS = 120;
constexpr rlimit kMostOutput{size_t{16} << 20, size_t{16} << 20};

// The child's side. With KIV_EMULATOR the program is one of another processor: the emulator (a
// path) gets the name to run it under, then the program.
[[noreturn]] void become(const std::string& path, std::vector<std::string> command,
                         std::vector<std::string> environment, int out, int err) {
  for (std::string& variable : environment) putenv(variable.data());
  const char* const emulator = getenv("KIV_EMULATOR");
  command.insert(command.begin(), "kiv");
  if (emulator != nullptr) {
    command.insert(command.begin() + 1, path);
    command.insert(command.begin(), {emulator, "-0"});
  }
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  setrlimit(RLIMIT_FSIZE, &kMostOutput);
  alarm(kPatienceS);
  execv(emulator != nullptr ? emulator : path.c_str(), argv.data());
  _exit(127);
}

std::string content_of(int file) {
  std::string text(static_cast<size_t>(std::max<off_t>(lseek(file, 0, SEEK_END), 0)), '\0');
  if (pread(file, text.data(), text.size(), 0) < 0) throw std::runtime_error("no output");
  close(file);
  return text;
}

}  // namespace

ProgramRun run_program(const std::string& path, const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment) {
  const int out = memfd_create("out", MFD_CLOEXEC);
  const int err = memfd_create("err", MFD_CLOEXEC);
  ProgramRun run;
  run.pid = fork();
  if (run.pid == 0) become(path, arguments, environment, out, err);
  int status = 0;
  waitpid(run.pid, &status, 0);
  if (WIFEXITED(status)) run.exit_status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  run.standard_output = content_of(out);
  run.standard_error = content_of(err);
  return run;
}

}  // namespace kiv::test
