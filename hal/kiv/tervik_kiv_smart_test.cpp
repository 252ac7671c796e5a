#include "tervik_kiv_smart_test.h"

#include <array>

#include "tervik_kiv_test_args.h"

namespace {

constexpr int CATEGORY = 11;

constexpr std::array HELP = {
    help_line("%d: smart test", {CATEGORY}),
    help_line("   kiv %d %d                      /* trigger SSR of modem */", {CATEGORY, 0}),
    help_line("   kiv %d %d                     /* trigger Crash of modem */", {CATEGORY, 10}),
    help_line("   kiv %d %d                      /* trigger Full Dump */", {CATEGORY, 1}),
    help_line("   kiv %d %d                      /* trigger NV SYNC */", {CATEGORY, 2}),
    help_line(
        "   kiv %d %d opt                  /* ap lyrax print(need reboot), opt: 0 - off; 1 - on */",
        {CATEGORY, 3}),
    help_line("   kiv %d %d opt                  /* bp lyrax print, opt: 0 - off; 1 - on */",
              {CATEGORY, 4}),
    help_line("   kiv %d %d opt                  /* bp qmi print, opt: 0 - off; 1 - on */",
              {CATEGORY, 5}),
    help_line("   kiv %d %d opt                  /* bp rf print, opt: 0 - off; 1 - on */",
              {CATEGORY, 6}),
    help_line("   kiv %d %d                      /* share memory test */", {CATEGORY, 7}),
    help_line(
        "   kiv %d %d timeout_s            /* tervik timer test, timeout_s - the expired time(s) */",
        {CATEGORY, 8}),
    help_line("   kiv %d %d timeout_s            /* dead cycle test */", {CATEGORY, 9}),
    help_line(
        "   kiv %d %d type                /* modem test, type: test type(123456789 - do_modem_test) */",
        {CATEGORY, 11}),
};

}  // namespace

int tervik_smart_test_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CATEGORY);
  return 0;
}

void tervik_smart_test_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
