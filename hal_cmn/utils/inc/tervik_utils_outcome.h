// How a command ended and what it read, for a program that judges runs of the tool: the places that
// know it say so here, behind the statement that tells the operator. Nothing is printed, and
// without an observer nothing happens. Any thread.
#pragma once

#include <cstdint>
#include <span>

#include "qmi_idl.h"

// `said` is null where the thread's last statement tells of the failure. Set before there are other
// threads; called on the thread that tells.
struct tervik_outcome_observer {
  void (*failed)(int code, const char* said) = nullptr;
  void (*read)(const char* name, std::span<const uint8_t> bytes) = nullptr;
};
void tervik_set_outcome_observer(const tervik_outcome_observer& observer);

// Reports how a step ended that decides about the command's outcome: 0, or its error code, -1 when
// it has none. Only the first failure is kept, so reporting it again does no harm. `said` describes
// a failure that no statement describes.
void tervik_tell_outcome(int code, const char* said = nullptr);

// The same with the error of a service's answer, of which no statement tells.
void tervik_tell_answer(const qmi_result& answer, const char* said);

// The command read these bytes of the modem.
void tervik_tell_bytes(const char* name, std::span<const uint8_t> bytes);
