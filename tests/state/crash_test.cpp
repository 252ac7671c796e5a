// kiv dies, or the system refuses it something, at each single call with which it changes its state
// directory: every file stays whole, and the next run does the work at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tervik_extend_nvefs.h"
#include "tervik_utils_cmn.h"
#include "tests/e2e/program_runner.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Tree = std::map<std::string, std::string>;  // content by file name

struct Change {
  std::string file;
  std::optional<std::string> content;  // none: the file is removed
};

struct Operation {
  std::string name;
  std::string arguments;
  Tree before;
  std::vector<Change> changes;  // in their order, one at a time
  // Whether a run after one that broke off does the rest. Not so where the command goes by what it
  // finds: a configuration that is active, a restart type that is to be put back.
  bool repeatable = true;
};

void PrintTo(const Operation& operation, std::ostream* out) {
  *out << operation.name;
}

// Longer than what one write of a stream takes, so that a torn file cannot look whole.
const std::string kFiller = "# " + std::string(20000, 'f') + '\n';
const std::string kSsr = "persist.vendor.ssr.";
const std::string kLevelX = "persist.radio.ssr_wait_s=0\n" + kSsr + "restart_level=x\n";
const std::string kLevelAll = "persist.radio.ssr_wait_s=0\n" + kSsr + "restart_level=ALL_ENABLE\n";
const std::string kBak = kSsr + "type_bak=x\n";
const std::string kBakFlag = kBak + kSsr + "type_bak_flag=yes\n";
const std::string kCount = kBakFlag + "persist.radio.ssr_count_0x80000011=1\n";
const std::string kConfigId(20, '\xC0');

const std::vector<Operation> kOperations{
    {"PropertyFresh", "10 30 2", {}, {{"properties", "persist.radio.all_pdc_no_rsp_count=2\n"}}},
    {"PropertyExisting",
     "11 3 1",
     {{"properties", "persist.vendor.radio.print_stats=2\na=1\n" + kFiller}, {"nv/0/1", "n"}},
     {{"properties", "persist.vendor.radio.print_stats=1\na=1\n" + kFiller}}},
    {"NvFresh", "4 2 0 7 65 66", {}, {{"nv/0/7", "AB"}}},
    {"NvExisting",
     "4 2 0 7 65 66",
     {{"nv/0/7", "old"}, {"nv/0/8", "other"}, {"properties", kFiller}},
     {{"nv/0/7", "AB"}}},
    {"NvDelete", "4 3 1 7", {{"nv/1/7", "old"}, {"nv/1/8", "o"}}, {{"nv/1/7", std::nullopt}}},
    {"NvDeleteOfFactoryItem", "4 3 0 550", {{"nv/0/8", "o"}}, {{"nv/0/550", ""}}},
    {"EfsFresh", "4 5 1 /a/b/c 65", {{"efs/0/a", "o"}}, {{"efs/1/a/b/c", "A"}}},
    {"EfsExisting", "4 5 1 /a/b/c 65", {{"efs/1/a/b/c", kFiller}}, {{"efs/1/a/b/c", "A"}}},
    {"EfsDelete", "4 6 0 /x", {{"efs/0/x", "old"}}, {{"efs/0/x", std::nullopt}}},
    {"Gpio", "3 0 65", {}, {{"efs/0/oem/debug/rf_ant_port_config", {{"\1\0\0\0A\0\0\0", 8}}}}},
    {"Tx",
     "3 3 1 4 3",
     {{"efs/0/oem/debug/ant_tx_config", "old"}},
     {{"efs/0/oem/debug/ant_tx_config", {{"\1\0\0\0\4\0\0\0\3\0\0\0\0\0\0\0", 16}}}}},
    {"SarState", "5 7 3", {{"sar/dsi", {"\7\0\0\0", 4}}}, {{"sar/dsi", {{"\3\0\0\0", 4}}}}},
    {"SimTypeAndEid",
     "5 10 1 0",
     {{"uim/sim_type", "old"}},
     {{"uim/sim_type", {{"\1\0\0\0\3\0\0\0", 8}}},
      {"efs/1/nv/item_files/modem/uim/uimdrv/esim_eid",
       {{"\x89\0\x10\x17\0\0\0\0\0\0\0\0\0\0\1\x63", 16}}}}},
    {"Profiles", "5 10 5 0", {}, {{"uim/profiles", {{"\0\0\0\0", 4}}}}},
    {"PdcIds",
     "10 1 1",
     {{"pdc/1/active", "o"}},
     {{"pdc/0/active", ""},
      {"pdc/0/selected", kConfigId},
      {"pdc/0/pending", kConfigId},
      {"pdc/0/active", kConfigId},
      {"pdc/0/pending", ""}},
     false},
    {"RestartType",
     "11 10",
     {{"properties", kLevelX}},
     {{"properties", kLevelX + kBak},
      {"properties", kLevelX + kBakFlag},
      {"properties", kLevelAll + kBakFlag},
      {"properties", kLevelAll + kCount},
      {"properties", kLevelX + kCount}},
     false},
};

// The directory's content before the operation and after each of its changes.
std::vector<Tree> stages(const Operation& operation) {
  std::vector<Tree> all{operation.before};
  for (const auto& [file, content] : operation.changes) {
    Tree next = all.back();
    if (content) {
      next[file] = *content;
    } else {
      next.erase(file);
    }
    all.push_back(std::move(next));
  }
  return all;
}

class CrashTest : public StateDirectoryTest {
 protected:
  static constexpr const char* kTemporary = ".new";

  Tree tree() const {
    Tree files;
    if (!std::filesystem::exists(state_dir())) return files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(state_dir())) {
      if (!entry.is_regular_file()) continue;
      files[entry.path().lexically_relative(state_dir())] = read_file_text(entry.path());
    }
    return files;
  }

  // The directory's content without a file that was on its way.
  Tree finished_files() const {
    Tree files = tree();
    files.erase(kTemporary);
    return files;
  }

  void lay_out(const Tree& files) const {
    std::filesystem::remove_all(state_dir());
    for (const auto& [name, content] : files) write_state_file_text(name, content);
  }

  // `fault` as in state_faults.cpp; none when empty.
  ProgramRun run_kiv(const std::string& arguments, const std::string& fault = "") const {
    std::istringstream words(arguments);
    ProgramRun run =
        run_program(KIV_WITH_STATE_FAULTS, {std::istream_iterator<std::string>(words), {}},
                    {"KIV_STATE_FAULT=" + fault, "KIV_TIME_FACTOR=10"});
    EXPECT_FALSE(run.timed_out);
    return run;
  }

  static bool had_fault(const ProgramRun& run) {
    return run.standard_error.find("state fault\n") != std::string::npos;
  }

  // A run after the trouble finds neither a lock nor anything in its way.
  void expect_next_run_completes(const Operation& operation) const {
    static const Operation other{"", "4 2 2 9 65", {}, {{"nv/1/9", "A"}}};
    const Tree before = finished_files();
    const ProgramRun run = run_kiv((operation.repeatable ? operation : other).arguments);
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.standard_error, "") << "a lock, or a file in the way, is told there";
    Tree expected = operation.repeatable ? stages(operation).back() : before;
    if (!operation.repeatable) expected["nv/1/9"] = "A";
    EXPECT_EQ(tree(), expected);
  }
};

class AtEachCall : public CrashTest, public ::testing::WithParamInterface<Operation> {
 protected:
  // Runs the operation with the fault at its first, second, ... call, until it has no such call,
  // and `check`s what is left each time.
  template <class Check>
  void for_each_call(const std::string& fault, int least_calls, Check check) {
    for (int call = 1;; ++call) {
      SCOPED_TRACE(fault + " at call " + std::to_string(call));
      lay_out(GetParam().before);
      const ProgramRun run = run_kiv(GetParam().arguments, fault + ' ' + std::to_string(call));
      if (!had_fault(run)) {
        EXPECT_GT(call, least_calls) << "calls are missing";
        break;
      }
      check(run);
      if (HasFailure()) return;
    }
    EXPECT_EQ(finished_files(), stages(GetParam()).back()) << "without a fault";
  }
};

// Each file is replaced by an open of the directory, its lock, the temporary file's removal, open,
// first and second half of the write, and close, the rename, and the end of the lock. A file that
// is removed or empty takes fewer.
TEST_P(AtEachCall, AKillLeavesTheOldFilesOrTheNewOnes) {
  const std::vector<Tree> all = stages(GetParam());
  auto reached = all.begin();
  for_each_call("kill", 4, [&](const ProgramRun& run) {
    EXPECT_EQ(run.exit_status, -1);
    const auto now = std::find(reached, all.end(), finished_files());
    ASSERT_NE(now, all.end()) << ::testing::PrintToString(tree());
    EXPECT_LE(now - reached, 1) << "a stage was never on the disk";
    reached = now;
    expect_next_run_completes(GetParam());
  });
  EXPECT_EQ(reached, all.end() - 1) << "no kill came after the last change";
}

TEST_P(AtEachCall, AnInterruptedCallIsRepeated) {
  for_each_call(std::to_string(EINTR), 4, [&](const ProgramRun& run) {
    EXPECT_EQ(run.standard_error, "state fault\n");
    EXPECT_EQ(tree(), stages(GetParam()).back());
  });
}

// What a command does after a change that was refused is its own affair: so file by file.
TEST_P(AtEachCall, AFullDiskIsToldAndLeavesWholeFiles) {
  const std::vector<Tree> all = stages(GetParam());
  for_each_call(std::to_string(ENOSPC), 4, [&](const ProgramRun& run) {
    EXPECT_EQ(run.exit_status, 0);
    const Tree left = tree();
    EXPECT_TRUE(left == all.back() ||
                run.standard_error.find("not stored: No space left on device") != std::string::npos)
        << run.standard_error;
    for (const auto& [name, content] : left) {
      // The restart type that is put back is the one that was not stored.
      if (name == "properties" && !GetParam().repeatable) continue;
      EXPECT_TRUE(std::any_of(all.begin(), all.end(),
                              [&, &file = name, &text = content](auto& one) {
                                return one.contains(file) && one.at(file) == text;
                              }))
          << name << ": " << content;
    }
    expect_next_run_completes(GetParam());
  });
}

TEST_P(AtEachCall, AReadOnlyDirectoryIsToldAndLeftAlone) {
  lay_out(GetParam().before);
  const ProgramRun run = run_kiv(GetParam().arguments, std::to_string(EROFS) + " 0");
  EXPECT_EQ(run.exit_status, 0);
  EXPECT_NE(run.standard_error.find("not stored: Read-only file system"), std::string::npos);
  EXPECT_EQ(tree(), GetParam().before);
}

INSTANTIATE_TEST_SUITE_P(State, AtEachCall, ::testing::ValuesIn(kOperations),
                         [](const auto& row) { return row.param.name; });

TEST_F(CrashTest, ADirectoryThatIsHeldIsTold) {
  const Tree before{{"nv/0/7", "old"}};
  lay_out(before);
  const int directory = open(state_dir().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(flock(directory, LOCK_EX), 0);
  EXPECT_EQ(run_kiv("4 2 0 7 65").standard_error,
            "state directory: not stored: Device or resource busy (16)\n");
  EXPECT_EQ(tree(), before);
  close(directory);
}

// A long EFS file takes 248 requests, and appears with the last of them.
TEST_F(CrashTest, AKillLeavesALongEfsFileAsItWasOrComplete) {
  const Tree before{{"efs/0/long", "old"}};
  const std::string content(TERVIK_EFS_DATA_MAX, 'e');
  const Tree after{{"efs/0/long", content}};
  int status = -1;
  for (int call = 1; status != 0; ++call) {
    SCOPED_TRACE("kill at call " + std::to_string(call));
    lay_out(before);
    const pid_t child = fork();
    if (child == 0) {
      setenv("KIV_STATE_FAULT", ("kill " + std::to_string(call)).c_str(), 1);
      tervik_hal_close_print();
      const auto* bytes = reinterpret_cast<const uint8_t*>(content.data());
      _exit(tervik_efs_write(0, "/long", 5, bytes, TERVIK_EFS_DATA_MAX) == 0 ? 0 : 1);
    }
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) || status == 0);
    EXPECT_EQ(call > 9, status == 0) << "all in one replacement";
    EXPECT_EQ(finished_files() == after, call > 8);
    EXPECT_EQ(finished_files() == before, call <= 8);
  }
}

}  // namespace
}  // namespace kiv::test
