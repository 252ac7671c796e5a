// The eSIM switch test, command 10 of category 5: switches the second card slot between eSIM and
// physical SIM, reads, checks and stores the eUICC identifier (EID), shows the card states, resets
// the eUICC. Each run ends with one result line on standard output, whatever the print masks, for
// the factory script that parses it. Command thread. What card and modem answer is untrusted.
#pragma once

#include <cstdint>

// The command: 0 whenever a result line was printed, -1 for fewer than 5 arguments.
[[nodiscard]] int tervik_cmn_esim_test(int argc, char** argv);

// Whether the hardware carries an eSIM.
[[nodiscard]] bool tervik_esim_sku_match();
// Whether the check digits of an EID (32 characters) are right (ISO 7064 MOD 97-10).
[[nodiscard]] bool is_eid_valid(const char* eid_hex);
// Stores the EID (16 bytes) in the modem's EFS unless a shorter file is there. A file of 16 bytes
// fills the buffer, which reads as a failure, and is written again.
void save_eid_to_efs(const uint8_t* eid);
// Prints the two card states as words.
void map_sim_state(const uint8_t* states);
