// Calls of the libraries that no command line makes: wrong arguments, and callbacks that are called
// by hand. Each scenario is a few of them, without the tool.
#pragma once

#include <span>

#include "tests/transcripts/transcript.h"

namespace kiv::test {

std::span<const Scenario> call_scenarios();

}  // namespace kiv::test
