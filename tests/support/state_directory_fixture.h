// Each test on a state directory of its own, and on a bus that no other test has touched.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/qmi/service_bus.h"

namespace kiv::test {

// The file's bytes; empty when there is none.
inline std::string read_file_text(const std::filesystem::path& path) {
  const std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// Points KIV_STATE_DIR at a directory that does not exist yet, as on a first run.
class StateDirectoryTest : public ::testing::Test {
 public:
  // The state directory's path, without a final slash.
  std::string state_dir() const { return root_ + "/state"; }

  // Makes the folders of `name` as needed.
  void write_state_file_text(const std::string& name, const std::string& text) const {
    const std::filesystem::path path = std::filesystem::path(state_dir()) / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    ASSERT_TRUE(file.good()) << path;
  }

  // The file's bytes; empty when there is none.
  std::string read_state_file_text(const std::string& name) const {
    return read_file_text(std::filesystem::path(state_dir()) / name);
  }

 protected:
  void SetUp() override {
    root_ = (std::filesystem::temp_directory_path() / "kiv-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(root_.data()), nullptr);
    ASSERT_EQ(setenv("KIV_STATE_DIR", state_dir().c_str(), 1), 0);
  }

  // The bus first: a service that is still up may write to the directory.
  void TearDown() override {
    platform::reset_service_bus();
    std::filesystem::remove_all(root_);
  }

 private:
  std::string root_;
};

}  // namespace kiv::test
