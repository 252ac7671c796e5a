// kiv dies, or the system refuses it something, at each single call with which it changes its state
// directory: every file stays whole, and the next run does the work at once.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <vector>

#include "tervik_extend_nvefs.h"
#include "tervik_utils_cmn.h"
#include "tests/e2e/program_runner.h"
#include "tests/support/state_directory_fixture.h"

namespace kiv::test {
namespace {

using Tree = std::map<std::string, std::string>;                    // content by file name
using Change = std::pair<std::string, std::optional<std::string>>;  // a file's content, if any

struct Operation {
  const char* name;
  std::string arguments;
  Tree before;
  std::vector<Change> changes;  // in their order, one at a time
};

void PrintTo(const Operation& operation, std::ostream* out) {
  *out << operation.name;
}

const std::string kFiller = "# " + std::string(20000, 'f') + '\n';
const std::string kConfigId(20, '\xC0');

const Operation kNvWrite{
    "NvWrite", "4 2 0 7 65", {{"nv/0/7", "old"}, {"nv/1/7", "o"}}, {{"nv/0/7", "A"}}};
const Operation kOperations[] = {
    kNvWrite,
    {"NvDelete", "4 3 1 7", {{"nv/1/7", "old"}, {"nv/1/8", "o"}}, {{"nv/1/7", {}}}},
    {"PropertyExisting",
     "11 3 1",
     {{"properties", "persist.vendor.radio.print_stats=2\na=1\n" + kFiller}, {"nv/0/1", "n"}},
     {{"properties", "persist.vendor.radio.print_stats=1\na=1\n" + kFiller}}},
    {"EfsWrite", "4 5 1 /a/b/c 65", {{"efs/0/a", "o"}}, {{"efs/1/a/b/c", "A"}}},
    {"PdcIds",
     "10 1 1",
     {{"pdc/1/active", "o"}},
     {{"pdc/0/active", ""},
      {"pdc/0/selected", kConfigId},
      {"pdc/0/pending", kConfigId},
      {"pdc/0/active", kConfigId},
      {"pdc/0/pending", ""}}},
};

void apply(const Change& change, Tree& tree) {
  tree.erase(change.first);
  if (change.second) tree.emplace(change.first, *change.second);
}

// The directory's content before the operation and after each of its changes.
std::vector<Tree> stages(const Operation& operation) {
  std::vector<Tree> all{operation.before};
  for (const Change& change : operation.changes) {
    all.push_back(all.back());
    apply(change, all.back());
  }
  return all;
}

class CrashTest : public StateDirectoryTest {
 protected:
  Tree tree() const {
    Tree files;
    if (!std::filesystem::exists(state_dir())) return files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(state_dir())) {
      if (!entry.is_regular_file()) continue;
      files[entry.path().lexically_relative(state_dir())] = read_file_text(entry.path());
    }
    return files;
  }

  void lay_out(const Tree& files) const {
    std::filesystem::remove_all(state_dir());
    for (const auto& [name, content] : files) write_state_file_text(name, content);
  }

  // `fault` as in state_faults.cpp, none when empty.
  ProgramRun run_kiv(const Operation& operation, const std::string& fault = "") const {
    std::istringstream words(operation.arguments);
    return run_program(KIV_WITH_STATE_FAULTS, {std::istream_iterator<std::string>(words), {}},
                       {"KIV_STATE_FAULT=" + fault});
  }

  static bool told(const ProgramRun& run, int error) {
    return run.standard_error.find(std::string("not stored: ") + strerror(error)) !=
           std::string::npos;
  }
};

class AtEachCall : public CrashTest, public ::testing::WithParamInterface<Operation> {
 protected:
  // Runs the operation with the fault at its first, second, ... call, until it has no such call,
  // and `check`s what is left each time.
  template <class Check>
  void for_each_call(const std::string& fault, Check check) const {
    int call = 0;
    for (bool had_fault = true; had_fault && !HasFailure();) {
      SCOPED_TRACE(fault + " at call " + std::to_string(++call));
      lay_out(GetParam().before);
      const ProgramRun run = run_kiv(GetParam(), fault + ' ' + std::to_string(call));
      had_fault = run.standard_error.starts_with("state fault\n");
      if (had_fault) check(run);
    }
    EXPECT_GT(call, 4) << "calls are missing";
  }

  const std::vector<Tree> stages_ = stages(GetParam());
};

// A command that went by what it finds, the active configuration, may find nothing left to do; the
// directory must be open to another one.
TEST_P(AtEachCall, AKillLeavesTheOldFilesOrTheNewOnesAndNothingInTheWay) {
  const Operation& next = GetParam().changes.size() > 2 ? kNvWrite : GetParam();
  auto reached = stages_.begin();
  for_each_call("kill", [&](const ProgramRun& run) {
    EXPECT_EQ(run.exit_status, -1);
    Tree files = tree();
    files.erase(".new");
    const auto now = std::find(reached, stages_.end(), files);
    ASSERT_NE(now, stages_.end()) << ::testing::PrintToString(files);
    EXPECT_LE(now - reached, 1) << "a stage was never on the disk";
    reached = now;
    const ProgramRun next_run = run_kiv(next);
    EXPECT_EQ(next_run.exit_status, 0);
    EXPECT_EQ(next_run.standard_error, "");
    for (const auto& change : next.changes) apply(change, files);
    EXPECT_EQ(tree(), files);
  });
  EXPECT_EQ(reached, stages_.end() - 1) << "no kill came after the last change";
}

TEST_P(AtEachCall, AnInterruptedCallIsRepeated) {
  for_each_call(std::to_string(EINTR), [&](const ProgramRun& run) {
    EXPECT_EQ(run.standard_error, "state fault\n");
    EXPECT_EQ(tree(), stages_.back());
  });
}

// What a command does after a change that was refused is its own affair: so file by file.
TEST_P(AtEachCall, AFullDiskIsToldAndLeavesWholeFiles) {
  for_each_call(std::to_string(ENOSPC), [&](const ProgramRun& run) {
    const Tree left = tree();
    EXPECT_TRUE(told(run, ENOSPC) || left == stages_.back()) << run.standard_error;
    for (const auto& file : left) {
      EXPECT_TRUE(std::any_of(
          stages_.begin(), stages_.end(),
          [&file](const Tree& stage) { return std::count(stage.begin(), stage.end(), file) != 0; }))
          << file.first << ": " << file.second;
    }
    EXPECT_GE(left.size(), std::min(stages_.front().size(), stages_.back().size()));
  });
}

TEST_P(AtEachCall, AReadOnlyDirectoryIsToldAndLeftAlone) {
  lay_out(GetParam().before);
  EXPECT_TRUE(told(run_kiv(GetParam(), std::to_string(EROFS) + " 0"), EROFS));
  EXPECT_EQ(tree(), GetParam().before);
}

INSTANTIATE_TEST_SUITE_P(State, AtEachCall, ::testing::ValuesIn(kOperations),
                         [](const auto& row) { return row.param.name; });

// A long EFS file takes 248 requests, and comes with the last of them in one replacement.
TEST_F(CrashTest, AKillLeavesALongEfsFileAsItWasOrComplete) {
  const std::string text(TERVIK_EFS_DATA_MAX, 'e');
  for (int call = 1; call <= 10; ++call) {
    write_state_file_text("efs/0/long", "old");
    if (fork() == 0) {
      setenv("KIV_STATE_FAULT", ("kill " + std::to_string(call)).c_str(), 1);
      tervik_hal_close_print();
      const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
      _exit(tervik_efs_write(0, "/long", 5, bytes, TERVIK_EFS_DATA_MAX));
    }
    int status = -1;
    ASSERT_GT(wait(&status), 0);
    EXPECT_EQ(status, call < 10 ? SIGKILL : 0) << call;
    EXPECT_EQ(read_state_file_text("efs/0/long"), call < 9 ? "old" : text) << call;
  }
}

}  // namespace
}  // namespace kiv::test
