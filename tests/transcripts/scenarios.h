// The scenarios whose transcripts the golden texts hold: one table for each of these texts.
#pragma once

#include <span>

#include "tests/transcripts/transcript.h"

namespace kiv::test {

struct ScenarioTable {
  const char* name;  // of the golden text
  std::span<const Scenario> scenarios;
};

std::span<const ScenarioTable> scenario_tables();

// Calls of the libraries that no command line makes: wrong arguments, and callbacks that are called
// by hand. Each scenario is a few of them, without the tool.
std::span<const Scenario> call_scenarios();

}  // namespace kiv::test
