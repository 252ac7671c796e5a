// What a scenario's modem does that no key of modem.conf describes; called before the tool runs, in
// the run's own process.
#pragma once

#include "platform/diag/diag_library.h"

namespace kiv::test {

// The AT channel: one that says nothing, one that answers a command with the command itself, one
// that takes the command after 2 s and answers after 2 more, one that has answered with 600 bytes,
// one written by bash, an ordinary file, a pipe without a reader.
void at_channel_silent();
void at_channel_echoes();
void at_channel_is_full_at_first();
void at_channel_answers_at_length();
void at_shell_is_bash();
void at_channel_is_a_file();
void at_channel_is_a_pipe();

// The shared memory is a pipe.
void share_memory_is_a_pipe();

// The AT channel says nothing, and the PDC service drops every request (the "silent" one of
// modem.conf drops indications alone).
void all_is_silent();

// The DIAG modem echoes commands, and calls of the library fail. Other packets come before the
// answer; as a scene, two log packets and two events.
void diag_with(const platform::DiagFaults& faults,
               const std::vector<platform::DiagAnswer>& streams = {});
void diag_streams();

// The extension service answers with too few bytes, without a payload, or with a length of 600 that
// it does not carry.
void extension_answers_briefly();
void extension_answers_nothing();
void extension_claims_more();

// The eUICC's EID has hexadecimal letters; it answers a reset with 2 bytes.
void euicc_has_letters();
void euicc_answers_briefly();

}  // namespace kiv::test
