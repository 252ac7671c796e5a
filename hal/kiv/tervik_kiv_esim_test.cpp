#include "tervik_kiv_esim_test.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tervik_extend_api.h"
#include "tervik_extend_cmn.h"
#include "tervik_extend_nvefs.h"
#include "tervik_kiv_test_args.h"
#include "tervik_utils_cmn.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr uint8_t ESIM_SLOT = 2;
constexpr useconds_t EID_WAIT_US = 100 * 1000;
constexpr int EID_ATTEMPTS_AFTER_SWITCH = 30;
constexpr int EID_ATTEMPTS = 2;
constexpr size_t EID_TEXT_SIZE = 2 * UIM_EID_SIZE + 1;

// SIM types of the two slots, behind their number.
using sim_type_request = std::array<uint32_t, 3>;
constexpr sim_type_request ESIM_TYPES = {2, 1, 3};
constexpr sim_type_request PHYSICAL_SIM_TYPES = {2, 1, 1};

constexpr const char* EID_PATH = "/nv/item_files/modem/uim/uimdrv/esim_eid";
constexpr uint32_t EID_PATH_LEN = 40;
constexpr uint32_t EID_SUB = 1;

constexpr uint32_t HARDWARE_NV_ID = 6853;
constexpr uint32_t HARDWARE_NV_SUB = 0;
constexpr size_t HARDWARE_NV_SIZE = 124;
constexpr size_t HARDWARE_ESIM_OFFSET = 16;

constexpr uint8_t FILE_CONTROL_INFORMATION = 1;
constexpr uint8_t CHANNEL_NOT_OPEN = 255;
constexpr size_t RESET_CHANNEL_OFFSET = 1;

// eUICC memory reset: slot, channel, length, then a STORE DATA command with an
// eUICCMemoryResetRequest (tag BF34) and the reset options 05 E0 (GSMA SGP.22).
constexpr std::array<uint8_t, 16> RESET_COMMAND = {
    ESIM_SLOT, 0, 13, 0x80, 0xE2, 0x91, 0x00, 0x07, 0xBF, 0x34, 0x04, 0x82, 0x02, 0x05, 0xE0, 0x00};

// The answers that tell of a success, as text of the length byte and eight bytes behind it.
constexpr int RESET_ANSWER_SIZE = 9;
constexpr const char* RESET_DELETED = "08bf34038001009000";
constexpr const char* RESET_NOTHING_TO_DELETE = "08bf34038001019000";

// Set once the EID is known to be in EFS.
uint8_t IS_EID_SAVE = 0;

// The check digits of an EID make it 1.
int eid_remainder(const char* eid_hex) {
  int r = 0;
  for (size_t i = 0; i < EID_TEXT_SIZE - 1; ++i) {
    r = (r * 10 + (eid_hex[i] - '0')) % 97;
  }
  return r;
}

struct eid_text {
  explicit eid_text(const uint8_t* eid) { tervik_byte_to_hex(eid, UIM_EID_SIZE, text); }

  char text[EID_TEXT_SIZE] = {};
};

// Asks for the EID until the eUICC reports one. False when it never does.
bool read_eid(const char* func, int attempts, uint8_t* eid) {
  for (int i = 0; i < attempts; ++i) {
    usleep(EID_WAIT_US);
    tervik_log_debug_as(func, "try get eid loop = %d", i);
    // A failed request shows as an EID that is still empty.
    static_cast<void>(tervik_uim_request_eid(&ESIM_SLOT, eid));
    if (eid[0] != 0) {
      return true;
    }
  }
  return false;
}

// ---- the cases: false when one failed and has printed no result ----

bool switch_to_esim(const char* func) {
  if (!tervik_esim_sku_match()) {
    return false;
  }
  tervik_log_debug_as(func, "switch to eSIM");
  tervik_log_debug_as(func, "card counts = %d", ESIM_TYPES[0]);
  const int res = tervik_setSimType(ESIM_TYPES.data());
  tervik_log_debug_as(func, "switch to esim res = %d", res);
  if (res != 0) {
    return false;
  }
  uint8_t eid[UIM_EID_SIZE] = {};
  if (!read_eid(func, EID_ATTEMPTS_AFTER_SWITCH, eid)) {
    tervik_log_debug_as(func, "get eid timeout");
    return false;
  }
  const eid_text text(eid);
  if (!is_eid_valid(text.text)) {
    printf("value=FAILED - %s\n", text.text);
    tervik_tell_outcome(-1);
    return true;
  }
  tervik_tell_bytes("eID", eid);
  save_eid_to_efs(eid);
  printf("eID=%s\n", text.text);
  return true;
}

bool switch_to_physical_sim(const char* func) {
  tervik_log_debug_as(func, "switch to SIM2");
  const int res = tervik_setSimType(PHYSICAL_SIM_TYPES.data());
  tervik_log_debug_as(func, "switch to uim2 res = %d", res);
  if (res != 0) {
    return false;
  }
  tervik_log_debug_as(func, "SIM2 Power Up successfully");
  puts("value=SUCCEED");
  return true;
}

bool show_eid(const char* func) {
  tervik_log_debug_as(func, "tervik get eid");
  uint8_t eid[UIM_EID_SIZE] = {};
  if (!read_eid(func, EID_ATTEMPTS, eid)) {
    return false;
  }
  const eid_text text(eid);
  tervik_tell_bytes("eID", eid);
  printf("eID=%s\n", text.text);
  tervik_tell_outcome(eid_remainder(text.text) == 1 ? 0 : -1, "the EID's check digits are wrong");
  return true;
}

bool show_card_states(const char* func) {
  tervik_log_debug_as(func, "try get simcard status");
  uint16_t states = 0;
  if (tervik_uim_get_card_status(&states) != 0) {
    return false;
  }
  uint8_t bytes[sizeof(states)];
  memcpy(bytes, &states, sizeof(states));
  tervik_log_debug_as(func, "card_status, [%d, %d]", bytes[0], bytes[1]);
  tervik_tell_bytes("card states", bytes);
  map_sim_state(bytes);
  return true;
}

// Looks at the answer of a reset, which begins with its length: true when it tells of one of the
// two successes. What a short answer leaves of the buffer is zero, and shown as such.
bool check_reset_answer(const char* func, const uint8_t* answer) {
  char apdu[2 * RESET_ANSWER_SIZE + 1] = {};
  tervik_byte_to_hex(answer, RESET_ANSWER_SIZE, apdu);
  tervik_log_debug_as(func, "apdu=%s", apdu);
  if (strcmp(apdu, RESET_DELETED) == 0) {
    tervik_log_debug_as(func, "tervik_uim_send_apdu, delete profile successfully.");
    return true;
  }
  if (strcmp(apdu, RESET_NOTHING_TO_DELETE) == 0) {
    tervik_log_debug_as(func, "tervik_uim_send_apdu, nothing to delete.");
    return true;
  }
  tervik_log_debug_as(func, "tervik_uim_send_apdu, apdu rsp check failed.");
  return false;
}

// A failure behind the open leaves the channel open.
bool reset_euicc(const char* func) {
  tervik_log_debug_as(func, "Start eUICC Reset");
  const uint8_t open_input[] = {ESIM_SLOT, FILE_CONTROL_INFORMATION};
  uint8_t channel_id = CHANNEL_NOT_OPEN;
  int res = tervik_uim_open_channel(open_input, &channel_id);
  tervik_log_debug_as(func, "tervik_uim_open_channel res = %d, channel_id = %d", res, channel_id);
  if (res != 0) {
    return false;
  }
  auto command = RESET_COMMAND;
  command[RESET_CHANNEL_OFFSET] = channel_id;
  uint8_t answer[UIM_APDU_OUTPUT_SIZE] = {};
  res = tervik_uim_send_apdu(command.data(), answer);
  tervik_log_debug_as(func, "tervik_uim_send_apdu res = %d", res);
  if (res != 0 || !check_reset_answer(func, answer)) {
    return false;
  }
  const uint8_t close_input[] = {ESIM_SLOT, channel_id};
  res = tervik_uim_close_channel(close_input);
  tervik_log_debug_as(func, "tervik_uim_close_channel res = %d", res);
  puts("value=SUCCEED");
  return true;
}

// By esim_on, from 1.
constexpr std::array<bool (*)(const char* func), 5> CASES = {
    switch_to_esim, switch_to_physical_sim, show_eid, show_card_states, reset_euicc};

}  // namespace

bool tervik_esim_sku_match() {
  uint8_t item[HARDWARE_NV_SIZE] = {};
  uint32_t len = sizeof(item);
  if (tervik_extend_nv_read_item(HARDWARE_NV_ID, HARDWARE_NV_SUB, item, &len) != 0) {
    tervik_log_print(LOG_CLASS_DEBUG, HARDWARE_NV_SUB, "read nv6853 failed");
    return false;
  }
  uint32_t esim = 0;
  memcpy(&esim, item + HARDWARE_ESIM_OFFSET, sizeof(esim));
  if (esim == 1 || esim == 2) {
    tervik_log_print(LOG_CLASS_DEBUG, HARDWARE_NV_SUB, "hw support esim");
    return true;
  }
  tervik_log_print(LOG_CLASS_DEBUG, HARDWARE_NV_SUB, "hw does not support esim");
  return false;
}

bool is_eid_valid(const char* eid_hex) {
  tervik_log_debug("check whether eid valid");
  const int r = eid_remainder(eid_hex);
  if (r == 1) {
    tervik_log_debug("eid validate pass");
    return true;
  }
  tervik_log_debug("eid validate failed, result = %d", r);
  return false;
}

void save_eid_to_efs(const uint8_t* eid) {
  if (IS_EID_SAVE == 1) {
    tervik_log_print(LOG_CLASS_DEBUG, EID_SUB, "EID already saved, skip");
    return;
  }
  uint8_t stored[UIM_EID_SIZE] = {};
  uint32_t len = sizeof(stored);
  int error_code = tervik_efs_read(EID_SUB, EID_PATH, EID_PATH_LEN, stored, &len);
  if (error_code == 0) {
    tervik_log_print(LOG_CLASS_DEBUG, EID_SUB, "EID already exists, set IS_EID_SAVE TRUE");
    IS_EID_SAVE = 1;
    return;
  }
  tervik_log_print(LOG_CLASS_DEBUG, EID_SUB, "efs read failed and try save it. error_code : %d",
                   error_code);
  error_code = tervik_efs_write(EID_SUB, EID_PATH, EID_PATH_LEN, eid, len);
  tervik_log_print(LOG_CLASS_DEBUG, EID_SUB, "save eid efs result = %d", error_code);
  tervik_tell_outcome(error_code);
  if (error_code == 0) {
    tervik_log_print(LOG_CLASS_DEBUG, EID_SUB, "save eid successfully, set IS_EID_SAVE TRUE");
    IS_EID_SAVE = 1;
  }
}

void map_sim_state(const uint8_t* states) {
  constexpr std::array<const char*, 3> WORDS = {"ABSENT", "PRESENT", "ERROR"};
  const auto word = [&WORDS](uint8_t state) {
    return state < WORDS.size() ? WORDS[state] : "UNKNOWN";
  };
  tervik_log_debug("map_sim_state ...");
  printf("%s,%s\n", word(states[0]), word(states[1]));
}

int tervik_cmn_esim_test(int argc, char** argv) {
  if (argc < 5) {
    tervik_log_error("invalid input");
    return -1;
  }
  const int esim_on = atoi(argv[3]);
  const int debug_on = atoi(argv[4]);
  if (debug_on == 0) {
    g_extend_qmi_trace = 0;
    tervik_hal_close_print();
  }
  const bool is_known = esim_on >= 1 && esim_on <= static_cast<int>(CASES.size());
  if (!is_known) {
    tervik_log_debug("invalid input skip");
  }
  if (!is_known || !CASES[static_cast<size_t>(esim_on - 1)](__func__)) {
    puts("value=FAILED");
    tervik_tell_outcome(-1);
  }
  return 0;
}
