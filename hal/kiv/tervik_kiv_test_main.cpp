#include "tervik_kiv_test_main.h"

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "tervik_kiv_at_cmd.h"
#include "tervik_kiv_lyrax_data.h"
#include "tervik_kiv_lyrax_test.h"
#include "tervik_kiv_mbn.h"
#include "tervik_kiv_qmi.h"
#include "tervik_kiv_smart_test.h"
#include "tervik_kiv_test_args.h"
#include "tervik_kiv_test_cmn.h"
#include "tervik_kiv_test_nvefs.h"
#include "tervik_kiv_test_rf.h"
#include "tervik_utils_outcome.h"

namespace {

// Has a place in the numbering alone.
constexpr int CATEGORY_UNUSED = 2;

// The log names the program's entry, whose work this file does.
constexpr const char* ENTRY_NAME = "main";

constexpr auto NV_COMMANDS = std::to_array<category_command>({
    {.number = 1, .help = "/* nv test */"},
    {.number = 2, .help = "/* nv backup(no privacy nvs) */", .takes = takes(number("0", 0, 0, ""))},
    {.number = 2,
     .help = "/* nv backup(have privacy nvs) */",
     .takes = takes(number("1", 1, 1, ""))},
    {.number = 3,
     .help = "/* nv restore(no goldencopy done after restore) */",
     .takes = takes(number("0", 0, 0, ""))},
    {.number = 3,
     .help = "/* nv restore(do goldencopy done after restore) */",
     .takes = takes(number("1", 1, 1, ""))},
    {.number = 4,
     .help = "/* nv delete */",
     .takes = takes(number("nvid", 0, INT_MAX, "number of an item"))},
});

constexpr command_category NV_CATEGORY = {
    .number = 1, .title = "nv option cmd", .commands = NV_COMMANDS, .help_column = 17};

struct category_row {
  const command_category* category;
  int (*run)(int argc, char** argv);  // its result tells nothing: what went wrong was printed
  void (*print_help)(int category);
};

// The names of the two statistics categories cross over: see their headers.
constexpr std::array<category_row, 10> CATEGORIES = {{
    {&TERVIK_RF_CATEGORY, command_of<tervik_test_rf_do>, tervik_test_rf_show_help},
    {&TERVIK_NVEFS_CATEGORY, command_of<tervik_test_nvefs_do>, tervik_test_nvefs_show_help},
    {&TERVIK_CMN_CATEGORY, command_of<tervik_test_cmn_do>, tervik_test_cmn_show_help},
    {&TERVIK_QMI_SEND_CATEGORY, command_of<tervik_test_qmi_send_data_do>,
     tervik_test_qmi_send_data_show_help},
    {&TERVIK_MODEM_STATS_CATEGORY, command_of<tervik_test_modem_stats_do>,
     tervik_test_qmi_modem_stats_show_help},
    {&TERVIK_AT_CATEGORY, command_of<tervik_test_at_cmd_do>, tervik_test_at_cmd_show_help},
    {&TERVIK_QMI_STATS_CATEGORY, command_of<tervik_test_qmi_modem_stats_do>,
     tervik_test_modem_stats_show_help},
    {&TERVIK_MBN_CATEGORY, command_of<tervik_test_mbn_do>, tervik_test_mbn_show_help},
    {&TERVIK_SMART_CATEGORY, command_of<tervik_smart_test_do>, tervik_smart_test_show_help},
    {&TERVIK_QMI_CATEGORY, command_of<tervik_test_qmi_do>, tervik_test_qmi_show_help},
}};

// Runs the category that the arguments name. False when there is none.
bool run_category(int argc, char** argv) {
  const int category = atoi(argv[1]);
  if (category == NV_CATEGORY.number || category == CATEGORY_UNUSED) {
    tervik_log_notice_as(ENTRY_NAME, "Not support");
    tervik_tell_outcome(TERVIK_ERR_INVALID_INPUT);
    return true;
  }
  for (const category_row& row : CATEGORIES) {
    if (row.category->number == category) {
      static_cast<void>(row.run(argc, argv));
      return true;
    }
  }
  return false;
}

}  // namespace

std::vector<const command_category*> tervik_kiv_categories() {
  std::vector<const command_category*> categories = {&NV_CATEGORY};
  for (const category_row& row : CATEGORIES) {
    categories.push_back(row.category);
  }
  return categories;
}

int tervik_kiv_test_main(int argc, char** argv) {
  // A log followed through a pipe is live, and a stopped run has lost nothing.
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  // Despite its name, the call loads the print masks and the process name.
  tervik_modem_check_odm_white_list();
  if (argc < 2 || !run_category(argc, argv)) {
    show_help(0);
  }
  return 0;
}

void show_help(int category) {
  // The help follows a misuse, or a failed command, which has told its own code before.
  tervik_tell_outcome(TERVIK_ERR_INVALID_INPUT);
  tervik_log_help(
      "=========== blew: kivora(kiv) cmd help "
      "=======================================================");
  tervik_print_help_block(TERVIK_LOG_PLACE, NV_CATEGORY, category);
  for (const category_row& row : CATEGORIES) {
    row.print_help(category);
  }
  // Standard output shows an empty line behind this banner.
  tervik_log_help(
      "=========== above: kivora(kiv) cmd help "
      "=======================================================\n");
}
