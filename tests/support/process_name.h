// The name under which a test runs: the product admits processes of a few names alone to the
// statistics, and finds its own in the command line.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace kiv::test {

// Begins the process anew under `name` with these arguments (argv[1] on); in an emulator of its
// processor where KIV_EMULATOR names one. Returns only when that failed.
inline void restart_under_name(const std::string& name, std::vector<std::string> arguments) {
  std::string program = std::filesystem::read_symlink("/proc/self/exe");
  arguments.insert(arguments.begin(), name);
  if (const char* const emulator = getenv("KIV_EMULATOR")) {
    arguments.insert(arguments.begin() + 1, program);
    arguments.insert(arguments.begin(), {emulator, "-0"});
    program = emulator;
  }
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  execv(program.c_str(), argv.data());
}

}  // namespace kiv::test
