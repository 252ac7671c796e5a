// Runs a program to its end and collects what it printed. A program that does not end in 2 min is
// ended by SIGALRM, one that prints more than 16 MiB by SIGXFSZ. Called by the test's thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kiv::test {

struct ProgramRun {
  pid_t pid = -1;
  int exit_status = -1;  // -1 when it did not exit by itself
  int signal = 0;        // that ended it, 0 when it exited
  std::string standard_output;
  std::string standard_error;
};

// Runs `path` under the name kiv, with `arguments` (argv[1] on) and this process's environment,
// with the variables of `environment` ("NAME=value") added or replaced. Standard input is empty.
ProgramRun run_program(const std::string& path, const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment);

}  // namespace kiv::test
