// Category 4: read, write and delete one NV item or EFS file of the modem. Command thread. Trusts
// nothing that was typed: paths and values go to the modem through length checks.
#pragma once

// The category's handler. Returns 0.
int tervik_test_nvefs_do(int argc, char** argv);
// Prints the category's help block when `category` is 0 or 4.
void tervik_test_nvefs_show_help(int category);
// The rows of its commands.
extern const struct command_category TERVIK_NVEFS_CATEGORY;

// The commands: 0, TERVIK_ERR_INVALID_INPUT for a wrong number of arguments, or the result of the
// NV/EFS operation.
[[nodiscard]] int tervik_nvefs_test_nv_read(int argc, char** argv);
[[nodiscard]] int tervik_nvefs_test_nv_write(int argc, char** argv);
[[nodiscard]] int tervik_nvefs_test_nv_delete(int argc, char** argv);
[[nodiscard]] int tervik_nvefs_test_efs_read(int argc, char** argv);
[[nodiscard]] int tervik_nvefs_test_efs_write(int argc, char** argv);
[[nodiscard]] int tervik_nvefs_test_efs_delete(int argc, char** argv);
