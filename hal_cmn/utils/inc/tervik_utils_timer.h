// One-shot timers with second resolution, known by small identifiers: the watchdogs around modem
// requests, and delays. Starts and stops may come from any thread, timer callbacks included. A
// callback runs on a thread of its own; expiry does not end a timer: its owner, normally the
// callback, must stop it.
#pragma once

#include <csignal>
#include <cstdint>
#include <ctime>

// Called at expiry; `value.sival_int` is the timer identifier.
using tervik_timer_callback = void (*)(union sigval value);

// Starts a timer under an identifier of the service's own, counted up from 501, and returns it;
// 0 on failure. A `timeout_s` of 0 fires at once.
[[nodiscard]] uint32_t tervik_timer_start(tervik_timer_callback callback, unsigned long timeout_s);

// Starts a timer under the caller's identifier. False on failure, also while a timer with that
// identifier has not been stopped.
[[nodiscard]] bool tervik_timer_start(uint32_t timer_id, tervik_timer_callback callback,
                                      unsigned long timeout_s);

// Disarms and releases a timer; does not wait for its callback. False for an unknown identifier.
bool tervik_timer_stop(uint32_t timer_id);

// Creates and arms the system timer behind a timer. Returns 0 and the handle in `*out`, or 30.
[[nodiscard]] int tervik_sys_timer_create(tervik_timer_callback callback, unsigned long timeout_s,
                                          uint32_t timer_id, timer_t* out);
