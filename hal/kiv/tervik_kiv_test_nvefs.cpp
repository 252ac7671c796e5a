#include "tervik_kiv_test_nvefs.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <span>

#include "tervik_extend_nvefs.h"
#include "tervik_kiv_test_args.h"

namespace {

constexpr size_t DATA_MAX = 365;
constexpr int FIRST_DATA_ARG = 5;

constexpr command_argument NV_ID = number("nv_id", 0, TERVIK_NV_ID_MAX);
constexpr command_argument NV_DATA = bytes("nv_data", argument_kind::DECIMAL, DATA_MAX);
constexpr command_argument PATH_TO_READ = text("efs_path", 1, TERVIK_EFS_PATH_MAX);
constexpr command_argument PATH_TO_CHANGE = text("efs_path", 1, TERVIK_EFS_PATH_MAX - 1);
constexpr command_argument EFS_DATA = bytes("efs_data", argument_kind::DECIMAL, DATA_MAX);

constexpr argument_rule ONE_ITEM = {
    .words_min = 5, .words_max = 5, .note = "note: need 5 inputs, Pls refer to the following cmd:"};
constexpr argument_rule ITEM_AND_DATA =
    at_least_words(FIRST_DATA_ARG + 1, "note: Too few inputs, Pls refer to the following cmd:");

constexpr auto COMMANDS = std::to_array<category_command>({
    {1, "tervik_nvefs_test_nv_read", tervik_nvefs_test_nv_read, "/* nv read */",
     takes(SUB_ARGUMENT, NV_ID), ONE_ITEM},
    {2, "tervik_nvefs_test_nv_write", tervik_nvefs_test_nv_write, "/* nv write */",
     takes(SUB_ARGUMENT, NV_ID, NV_DATA), ITEM_AND_DATA},
    {3, "tervik_nvefs_test_nv_delete", tervik_nvefs_test_nv_delete, "/* nv delete */",
     takes(SUB_ARGUMENT, NV_ID), ONE_ITEM},
    {4, "tervik_nvefs_test_efs_read", tervik_nvefs_test_efs_read, "/* efs read */",
     takes(SUB_ARGUMENT, PATH_TO_READ), ONE_ITEM},
    {5, "tervik_nvefs_test_efs_write", tervik_nvefs_test_efs_write, "/* efs write */",
     takes(SUB_ARGUMENT, PATH_TO_CHANGE, EFS_DATA), ITEM_AND_DATA},
    {6, "tervik_nvefs_test_efs_delete", tervik_nvefs_test_efs_delete, "/* efs delete */",
     takes(SUB_ARGUMENT, PATH_TO_CHANGE), ONE_ITEM},
});

// ---- arguments ----

uint32_t sub_of(char** argv) {
  return atoi(argv[3]) != 0 ? 1 : 0;
}

uint32_t nv_id_of(char** argv) {
  return static_cast<uint32_t>(atoi(argv[4]));
}

const char* efs_path_of(char** argv) {
  return argv[4];
}

uint32_t efs_path_len_of(char** argv) {
  return static_cast<uint32_t>(strlen(argv[4]));
}

// The data bytes of a write command, one decimal argument each.
struct typed_data {
  std::array<uint8_t, DATA_MAX> bytes = {};
  uint32_t len = 0;
};

typed_data data_of(int argc, char** argv) {
  typed_data data;
  for (int i = FIRST_DATA_ARG; i < argc && data.len < DATA_MAX; ++i) {
    data.bytes[data.len++] = static_cast<uint8_t>(atoi(argv[i]));
  }
  return data;
}

// ---- output ----

// The end of every command: reports a failed operation and passes its result on.
[[nodiscard]] int report(const char* func, uint32_t sub, int result) {
  if (result != 0) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub,
                        "tervik_extend_qmi_send_sync fail, REQUEST_ID_EFS");
  }
  return result;
}

// The end of the read commands: on success the bytes, each on its line.
[[nodiscard]] int report_read(const char* func, uint32_t sub, int result,
                              std::span<const uint8_t> data) {
  if (result != 0) {
    return report(func, sub, result);
  }
  tervik_log_print_as(func, LOG_CLASS_NOTICE, sub, "data len(%zu)\ndata: ", data.size());
  tervik_print_byte_lines(TERVIK_LOG_PLACE_AS(func), LOG_CLASS_NOTICE, sub, data);
  return 0;
}

}  // namespace

constexpr command_category TERVIK_NVEFS_CATEGORY = {
    .number = 4, .title = "nvefs option cmd: ", .commands = COMMANDS};

int tervik_nvefs_test_nv_read(int /*argc*/, char** argv) {
  std::array<uint8_t, DATA_MAX> data = {};
  uint32_t len = data.size();
  const int result = tervik_nv_read(sub_of(argv), nv_id_of(argv), data.data(), &len);
  return report_read(__func__, sub_of(argv), result, std::span(data).first(len));
}

int tervik_nvefs_test_nv_write(int argc, char** argv) {
  const typed_data data = data_of(argc, argv);
  return report(__func__, sub_of(argv),
                tervik_nv_write_ex(sub_of(argv), nv_id_of(argv), data.bytes.data(), data.len));
}

int tervik_nvefs_test_nv_delete(int /*argc*/, char** argv) {
  return report(__func__, sub_of(argv), tervik_nv_delete(sub_of(argv), nv_id_of(argv)));
}

int tervik_nvefs_test_efs_read(int /*argc*/, char** argv) {
  std::array<uint8_t, DATA_MAX> data = {};
  uint32_t len = data.size();
  const int result =
      tervik_efs_read(sub_of(argv), efs_path_of(argv), efs_path_len_of(argv), data.data(), &len);
  return report_read(__func__, sub_of(argv), result, std::span(data).first(len));
}

int tervik_nvefs_test_efs_write(int argc, char** argv) {
  const typed_data data = data_of(argc, argv);
  return report(__func__, sub_of(argv),
                tervik_efs_write(sub_of(argv), efs_path_of(argv), efs_path_len_of(argv),
                                 data.bytes.data(), data.len));
}

int tervik_nvefs_test_efs_delete(int /*argc*/, char** argv) {
  return report(__func__, sub_of(argv),
                tervik_efs_delete(sub_of(argv), efs_path_of(argv), efs_path_len_of(argv)));
}

int tervik_test_nvefs_do(int argc, char** argv) {
  tervik_run_category(TERVIK_LOG_PLACE, TERVIK_NVEFS_CATEGORY, argc, argv);
  return 0;
}

void tervik_test_nvefs_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_NVEFS_CATEGORY, category);
}
