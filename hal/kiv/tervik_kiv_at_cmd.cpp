#include "tervik_kiv_at_cmd.h"

#include <array>

#include "tervik_kiv_test_args.h"

namespace {

constexpr int CATEGORY = 8;
constexpr int AT_TEXT_MAX = 100;

constexpr std::array HELP = {
    help_line("%d: tervik at command test", {CATEGORY}),
    help_line("   kiv %d atcmd_cxt               /* atcmd_cxt: at command context */", {CATEGORY}),
    help_line("                                    the len of atcmd can not > %d", {AT_TEXT_MAX}),
};

}  // namespace

int tervik_test_at_cmd_do(int /*argc*/, char** /*argv*/) {
  tervik_log_error("category %d is not built yet", CATEGORY);
  return 0;
}

void tervik_test_at_cmd_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, CATEGORY, category, HELP);
}
