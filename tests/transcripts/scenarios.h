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

}  // namespace kiv::test
