// One run of the tool, or several, as an operator and the system log see it: every log statement
// with its class, subscription, function and text, every plain line, and the time between them.
// Each run is a process of its own, forked from the test, on virtual time; what is recorded of it:
//
//   D0  tervik_nv_read: text    a statement: class (Error, Notice, Debug, Help), subscription ('-'
//                               for none), where it shows ("l" system log alone, "s" standard
//                               output alone), function and text
//   [2] D-  ...                 the same, of the second thread that the run started
//    > text                     a line printed past the log; " 2> " on standard error
//    log3 text                  a line of the system log without prefix, with its priority
//    +0.1 s                     time that passed
//    => 5, text                 how the run failed, as a program hears of it: the code, and what
//                               was said where no statement tells
//    left FILE = bytes          what the run left in the state directory, in hexadecimal; "removed"
//
// Process ids, addresses and paths that differ between machines are masked.
#pragma once

#include <chrono>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kiv::test {

using Strings = std::vector<std::string>;

// The parts of the text between the marks; nothing behind a mark at the end is no part.
Strings split(std::string_view text, std::string_view mark);

// What a run is made from. In a command line, `word*N` stands for that word N times, and `{text*N}`
// in a word for the text N times, and '~' for a blank in a word; ' ; ' separates the lines of
// several runs on one state directory. `modem` and `properties` are the lines of modem.conf and of
// the property file, `files` lines "path = bytes in hexadecimal" of files in the state directory;
// all with ';' between them. Without a command line the scene alone runs, and not the tool.
struct Scenario {
  const char* about;
  const char* line;
  const char* modem = "";
  const char* properties = "";
  const char* files = "";
  void (*scene)() = nullptr;
};

// The scenarios whose transcripts one of the golden texts holds.
struct ScenarioTable {
  const char* name;  // of the golden text
  std::span<const Scenario> scenarios;
};

std::span<const ScenarioTable> scenario_tables();

// Calls of the libraries that no command line makes: wrong arguments, and callbacks that are called
// by hand. Each scenario is a few of them, without the tool.
std::span<const Scenario> call_scenarios();

struct Transcript {
  Strings lines;
  std::chrono::nanoseconds took{};  // of the last run
};

// Runs the scenario in a fresh state directory and records it, the files that it left included.
Transcript record(const Scenario& scenario);

}  // namespace kiv::test
