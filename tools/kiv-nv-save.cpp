// kiv-nv-save: reads NV items and EFS files and writes the shell script that puts them back. The
// script is written whole or not at all.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "program.h"
#include "tervik_extend_nvefs.h"
#include "tervik_kiv_argument_check.h"
#include "tervik_utils_cmn.h"

namespace {

constexpr const char* USAGE = "usage: kiv-nv-save [-o FILE] {0|1 {nv ID | efs PATH}...}...";

// ---- reading ----

// As many bytes as a command line of kiv carries.
constexpr uint32_t DATA_MAX = 365;

// The two kinds of items: their commands in category 4, and the modem's code for no such item.
struct item_kind {
  std::string_view name;
  int write_command;
  int delete_command;
  int no_such_item;
};
constexpr item_kind NV = {"nv", 2, 3, 5};
constexpr item_kind EFS = {"efs", 5, 6, ENOENT};

// Reads an item; the line of the script that puts it back.
std::string save(const item_kind& kind, uint32_t sub, const std::string& item) {
  static std::array<uint8_t, TERVIK_EFS_DATA_MAX> data;
  uint32_t len = data.size();
  const std::string wrong = tervik_kiv_what_is_wrong(
      {"4", std::to_string(kind.write_command), std::to_string(sub), item, "0"});
  if (!wrong.empty()) {
    end_program(NO_VERDICT, wrong);
  }
  const auto item_len = static_cast<uint32_t>(item.size());
  const int code = &kind == &NV
                       ? tervik_nv_read(sub, static_cast<uint32_t>(stoul(item)), data.data(), &len)
                       : tervik_efs_read(sub, item.c_str(), item_len, data.data(), &len);
  const std::string what =
      std::string(kind.name) + ' ' + item + " of subscription " + std::to_string(sub);
  const std::string place = std::to_string(sub) + ' ' + shell_word(item);
  if (code == kind.no_such_item) {
    return "put_back " + std::to_string(code) + " 4 " + std::to_string(kind.delete_command) + ' ' +
           place + " # there was none\n";
  }
  if (code == TERVIK_NVEFS_ERR_BUF_LEN || (code == 0 && len == 0)) {
    end_program(FAILURE, what + ": is empty, and kiv writes nothing empty");
  }
  if (code != 0) {
    end_program(FAILURE, what + ": cannot be read, error code " + std::to_string(code));
  }
  if (len > DATA_MAX) {
    end_program(FAILURE,
                what + ": has " + std::to_string(len) + " bytes, and kiv writes 365 at most");
  }
  std::string line = "put_back no 4 " + std::to_string(kind.write_command) + ' ' + place;
  for (uint32_t i = 0; i < len; ++i) {
    line += ' ' + std::to_string(data[i]);
  }
  return line + '\n';
}

// ---- writing ----

// The kiv beside this program, else that of the PATH.
std::string kiv_program() {
  std::array<char, 4096> path = {};
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
  std::string beside(path.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
  beside = beside.substr(0, beside.rfind('/') + 1) + "kiv";
  return access(beside.c_str(), X_OK) == 0 ? beside : "kiv";
}

std::string script_of(const std::string& commands) {
  return "#!/bin/sh\n# Puts back what kiv-nv-save read at " + time_now() +
         R"sh(: tries every item, and ends
# with status 1 when one of them could not be put back. KIV names another kiv to run.
kiv=${KIV:-)sh" +
         shell_word(kiv_program()) + R"sh(}
status=0
# Runs kiv with the arguments from $2 on; $1 is the error code that says: nothing to delete.
put_back() {
  none=$1 && shift
  said=$("$kiv" "$@") || said="] f: note: status $?"
  case $said in
    *"note: Error happen! error_code($none)"*) ;;
    *"] "*": note: "*) status=1 && echo "$0: not put back: kiv $*" >&2 ;;
  esac
}
case $("$kiv" 4) in
  *"note: Too few parameters"*) ;;
  *) echo "$0: $kiv does not print its failures: property persist.vendor.radio.adb_log_shell" >&2
     exit 1 ;;
esac
)sh" + commands +
         "exit \"$status\"\n";
}

// Writes under another name first, so that the file is never there in part.
void write_file(const std::string& name, const std::string& script) {
  const std::string part = name + '.' + std::to_string(getpid());
  const int fd = open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777);
  const bool written =
      fd >= 0 && write_all(fd, script) && fsync(fd) == 0 && close(fd) == 0 &&
      renameat2(AT_FDCWD, part.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0;
  if (!written) {
    const int error = errno;
    if (fd >= 0) {
      unlink(part.c_str());
    }
    errno = error;
    end_for_file(NO_VERDICT, name.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  prepare_program("kiv-nv-save");
  tervik_hal_close_print();
  std::string file;
  opterr = 0;
  for (int option = 0; (option = getopt(argc, argv, "+o:h")) != -1;) {
    if (option != 'o') {
      option == 'h' ? end_with(USAGE) : end_program(NO_VERDICT, USAGE);
    }
    file = optarg;
  }
  std::string commands;
  int sub = -1;
  for (int next = optind; next < argc; ++next) {
    const std::string word = argv[next];
    if (word == "0" || word == "1") {
      sub = word[0] - '0';
    } else if (sub >= 0 && next + 1 < argc && (word == NV.name || word == EFS.name)) {
      commands += save(word == NV.name ? NV : EFS, static_cast<uint32_t>(sub), argv[++next]);
    } else {
      end_program(NO_VERDICT, USAGE);
    }
  }
  if (commands.empty()) {
    end_program(NO_VERDICT, USAGE);
  }
  const std::string script = script_of(commands);
  if (!file.empty()) {
    write_file(file, script);
  } else if (!write_all(STDOUT_FILENO, script)) {
    end_for_file(NO_VERDICT, "standard output");
  }
  return SUCCESS;
}
