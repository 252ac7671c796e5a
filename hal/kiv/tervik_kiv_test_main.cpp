#include "tervik_kiv_test_main.h"

#include <array>
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

namespace {

// Categories 1 and 2 have a place in the help or in the numbering, but no handler.
constexpr int CATEGORY_NV = 1;
constexpr int CATEGORY_UNUSED = 2;

// The log names the program's entry, whose work this file does.
constexpr const char* ENTRY_NAME = "main";

struct category_row {
  int category;
  int (*run)(int argc, char** argv);  // its result tells nothing: what went wrong was printed
  void (*print_help)(int category);
};

// The names of the two statistics categories cross over: see their headers.
constexpr std::array<category_row, 10> CATEGORIES = {{
    {3, command_of<tervik_test_rf_do>, tervik_test_rf_show_help},
    {4, command_of<tervik_test_nvefs_do>, tervik_test_nvefs_show_help},
    {5, command_of<tervik_test_cmn_do>, tervik_test_cmn_show_help},
    {6, command_of<tervik_test_qmi_send_data_do>, tervik_test_qmi_send_data_show_help},
    {7, command_of<tervik_test_modem_stats_do>, tervik_test_qmi_modem_stats_show_help},
    {8, command_of<tervik_test_at_cmd_do>, tervik_test_at_cmd_show_help},
    {9, command_of<tervik_test_qmi_modem_stats_do>, tervik_test_modem_stats_show_help},
    {10, command_of<tervik_test_mbn_do>, tervik_test_mbn_show_help},
    {11, command_of<tervik_smart_test_do>, tervik_smart_test_show_help},
    {12, command_of<tervik_test_qmi_do>, tervik_test_qmi_show_help},
}};

constexpr std::array NV_HELP = {
    text_line("%d: nv option cmd", {CATEGORY_NV}),
    text_line("   kiv %d 1       /* nv test */", {CATEGORY_NV}),
    text_line("   kiv %d 2 0     /* nv backup(no privacy nvs) */", {CATEGORY_NV}),
    text_line("   kiv %d 2 1     /* nv backup(have privacy nvs) */", {CATEGORY_NV}),
    text_line("   kiv %d 3 0     /* nv restore(no goldencopy done after restore) */",
              {CATEGORY_NV}),
    text_line("   kiv %d 3 1     /* nv restore(do goldencopy done after restore) */",
              {CATEGORY_NV}),
    text_line("   kiv %d 4 nvid  /* nv delete */", {CATEGORY_NV}),
};

// Runs the category that the arguments name. False when there is none.
bool run_category(int argc, char** argv) {
  const int category = atoi(argv[1]);
  if (category == CATEGORY_NV || category == CATEGORY_UNUSED) {
    tervik_log_notice_as(ENTRY_NAME, "Not support");
    return true;
  }
  const category_row* const row = find_row(CATEGORIES, &category_row::category, category);
  if (row == nullptr) {
    return false;
  }
  static_cast<void>(row->run(argc, argv));
  return true;
}

}  // namespace

int tervik_kiv_test_main(int argc, char** argv) {
  // A log followed through a pipe is live, and a stopped run has lost nothing.
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  tervik_modem_check_odm_white_list();
  if (argc < 2 || !run_category(argc, argv)) {
    show_help(0);
  }
  return 0;
}

void show_help(int category) {
  tervik_log_help(
      "=========== blew: kivora(kiv) cmd help "
      "=======================================================");
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY_NV, category, NV_HELP);
  for (const category_row& row : CATEGORIES) {
    row.print_help(category);
  }
  // Standard output shows an empty line behind this banner.
  tervik_log_help(
      "=========== above: kivora(kiv) cmd help "
      "=======================================================\n");
}
