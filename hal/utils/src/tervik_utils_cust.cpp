#include "tervik_utils_cust.h"

#include <unistd.h>

#include <array>

#include "tervik_utils_cmn.h"

namespace {

constexpr const char* RESTART_LEVEL_PROPERTY = "persist.vendor.ssr.restart_level";
constexpr const char* TYPE_BAK_PROPERTY = "persist.vendor.ssr.type_bak";
constexpr const char* TYPE_BAK_FLAG_PROPERTY = "persist.vendor.ssr.type_bak_flag";

// Shown in the log; the restart of this tool is always started through the property.
constexpr int g_ssr_start_flag = 0;

// A property's text, empty when it is not set.
struct property_text {
  explicit property_text(const char* name) { tervik_get_property_value(name, text, ""); }
  bool empty() const { return text[0] == '\0'; }
  bool equals(const char* other) const { return tervik_str_cmp(text, other) == 0; }

  char text[TERVIK_TEXT_SIZE] = {};
};

// Writes a property; a failure shows in the property trace and in what is read back later.
void write_property(const char* name, const char* value) {
  static_cast<void>(tervik_set_property_value(name, value));
}

void save_backup(const char* level) {
  write_property(TYPE_BAK_PROPERTY, level);
  write_property(TYPE_BAK_FLAG_PROPERTY, "yes");
}

struct ssr_type_row {
  const char* name;
  const char* level;  // null: the backed-up one
  const char* already_set;
};

// By SSR type; the last cannot be set.
constexpr std::array<ssr_type_row, 4> SSR_TYPES = {{
    {"MODEM_RESTART_LEVEL_ID_DEF", nullptr, "PROP - ssr type is def, do nothing"},
    {"MODEM_RESTART_LEVEL_ID_SSR", "ALL_ENABLE", "ssr type is enable, do nothing"},
    {"MODEM_RESTART_LEVEL_ID_DUMP", "ALL_DISABLE", "ssr type is disable, do nothing"},
    {"MODEM_RESTART_LEVEL_ID_INVALID", nullptr, nullptr},
}};

// The type that a level stands for.
int type_of(const property_text& level, const property_text& backup, bool backed_up) {
  if (!backed_up || level.equals(backup.text)) {
    return MODEM_RESTART_LEVEL_ID_DEF;
  }
  if (level.equals(SSR_TYPES[MODEM_RESTART_LEVEL_ID_SSR].level)) {
    return MODEM_RESTART_LEVEL_ID_SSR;
  }
  const bool dump = level.equals(SSR_TYPES[MODEM_RESTART_LEVEL_ID_DUMP].level) || level.empty();
  return dump ? MODEM_RESTART_LEVEL_ID_DUMP : MODEM_RESTART_LEVEL_ID_INVALID;
}

// Sleeps for `seconds`, or for those of the property when that is negative; the line about them
// begins with `name`.
int wait_for(const char* func, int seconds, const char* property, int default_s, const char* name,
             const char* will_not_wait) {
  int wait_s = seconds;
  if (seconds < 0) {
    tervik_get_property_value_from_int(property, &wait_s, default_s);
  }
  tervik_log_debug_as(func, "%s = %d", name, wait_s);
  if (wait_s < 1) {
    tervik_log_debug_as(func, "%s", will_not_wait);
    return wait_s;
  }
  tervik_log_debug_as(func, "wait-start(%ds) ...", wait_s);
  sleep(static_cast<unsigned>(wait_s));
  tervik_log_debug_as(func, "wait-end(%ds)", wait_s);
  return wait_s;
}

}  // namespace

int tervik_get_modem_ssr_type() {
  const property_text flag(TYPE_BAK_FLAG_PROPERTY);
  const property_text backup(TYPE_BAK_PROPERTY);
  const property_text level(RESTART_LEVEL_PROPERTY);
  tervik_log_debug("g_ssr_start_flag: %d, ssr_type_bak: %s, ssr_type_bak_flag: %s",
                   g_ssr_start_flag, backup.text, flag.text);
  const bool backed_up = !flag.empty();
  if (!backed_up) {
    save_backup(level.text);
  }
  const int type = type_of(level, backup, backed_up);
  tervik_log_debug("PROP - %s: %s, type: %d%s", SSR_TYPES[static_cast<size_t>(type)].name,
                   level.text, type, backed_up ? "" : ", and save");
  return type;
}

int tervik_set_modem_ssr_type(uint32_t type) {
  const property_text flag(TYPE_BAK_FLAG_PROPERTY);
  tervik_log_debug("g_ssr_start_flag: %d, type: %d, ssr_type_bak_flag: %s", g_ssr_start_flag, type,
                   flag.text);
  const property_text level(RESTART_LEVEL_PROPERTY);
  if (type >= MODEM_RESTART_LEVEL_ID_INVALID) {
    tervik_log_debug("TERVIK_SSR_START_WITH_PROP, invalid ssr type");
    return 0;
  }
  const ssr_type_row& row = SSR_TYPES[type];
  const char* target = row.level;
  char backup[TERVIK_TEXT_SIZE];
  if (target == nullptr) {
    if (flag.empty()) {
      tervik_log_debug("PROP - NO ssr type def, do nothing");
      return 0;
    }
    tervik_get_property_value(TYPE_BAK_PROPERTY, backup, "");
    target = backup;
  }
  if (level.equals(target)) {
    tervik_log_debug("%s", row.already_set);
    return 0;
  }
  tervik_log_debug("PROP - %s: %s", row.name, target);
  write_property(RESTART_LEVEL_PROPERTY, target);
  if (flag.empty()) {
    save_backup(target);
  } else {
    tervik_log_debug("TERVIK_SSR_START_WITH_PROP, already bak");
  }
  return 1;
}

int tervik_modem_ssr_wait_s(int seconds) {
  return wait_for(__func__, seconds, "persist.radio.ssr_wait_s", 5, "ssr wait_s",
                  "modem ssr will not wait");
}

int tervik_modem_wait_s(int seconds) {
  return wait_for(__func__, seconds, "persist.radio.modem_wait_s", 3, "wait_s", "will not wait");
}
