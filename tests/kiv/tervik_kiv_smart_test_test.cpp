#include "tervik_kiv_smart_test.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/kiv/command_line_fixture.h"
#include "tests/support/time_lapse.h"

namespace kiv::test {
namespace {

using platform::ServiceReply;

class KivSmartTest : public CommandLineTest {
 protected:
  void TearDown() override {
    g_share_memory_file_path = share_memory_file_path_;
    CommandLineTest::TearDown();
  }

 private:
  const char* const share_memory_file_path_ = g_share_memory_file_path;
};

TEST_F(KivSmartTest, WrongArgumentsShowTheirNoteAndTheHelp) {
  const ExtensionStub stub([](const ExtensionRequest&) { return answer_of(Bytes(508)); });
  for (const char* line : {"11", "11 3", "11 6", "11 8", "11 11"}) {
    expect_help(line, "note: Too few parameters, Pls refer to the following cmd:");
  }
  expect_help("11 4 2", "note: opt(2) is invalid:");
  expect_help("11 3 -1", "note: opt(-1) is invalid:");
  expect_help("11 12", "invalid par_i = 12");
  expect_help("11 -1 1", "invalid par_i = -1");
  EXPECT_EQ(run(command("1 0"), tervik_smart_test_do),
            with_help(11, {"note: the first parameters should be 11, Pls refer to the following "
                           "cmd:"}));
  EXPECT_TRUE(stub.requests().empty());
  EXPECT_EQ(read_state_file_text("properties"), "");
}

TEST_F(KivSmartTest, CommandsPrintSendAndStore) {
  Bytes efs_answer(444);
  const ExtensionStub stub([&](const ExtensionRequest& request) {
    return answer_of(request.id == 2 ? efs_answer : Bytes(508));
  });
  // An EFS write (or, without content, delete) of a file; the path is sent without its NUL.
  const auto file = [](const char* path, const Bytes& content) {
    Bytes bytes(120);
    bytes[0] = content.empty() ? 6 : 5;
    bytes[2] = content.empty() ? 0 : 0xFF;  // no transfer yet
    bytes[4] = static_cast<uint8_t>(strlen(path));
    std::copy_n(path, strlen(path), bytes.begin() + 5);
    bytes[108] = bytes[112] = static_cast<uint8_t>(content.size());
    bytes.insert(bytes.end(), content.begin(), content.end());
    return payload_of(bytes);
  };
  const auto crash = [](uint32_t flag) { return common_payload(99, words({flag})); };
  const Bytes sync = common_payload(35);
  const Bytes ssr = common_payload(31, words({0x80000010}));
  const std::string count = "persist.radio.ssr_count_0x800000";
  const std::string stats = "persist.vendor.radio.print_stats=";
  struct Row {
    std::string line;
    std::string printed;
    std::vector<Bytes> sent;
    std::string stored;
    std::string efs_error{};  // printed when the modem refuses the file
  };
  std::vector<Row> rows{
      {"11 0 x", "Will trigger SSR of modem", {ssr}, count + "10=1\n"},
      {"11 1", "Will trigger Full dump of modem", {crash(0x80000012)}, count + "12=1\n"},
      {"11 10", "Will trigger Crash of modem", {crash(0x80000011)}, count + "11=1\n"},
      {"11 2", "Will trigger NV SYNC", {sync}, ""},
      {"11 3 1", "ap_lyrax_print, opt = 1|success, need to reboot", {}, stats + "1\n"},
      {"11 3 0", "ap_lyrax_print, opt = 0|success, need to reboot", {}, stats + "2\n"},
  };
  const struct {
    std::string line;
    std::string notice;
    const char* path;
    Bytes content;
  } switches[] = {
      {"11 4 ", "bp_lyrax_print, opt = ", "/oem/lyrax/lyrax_print_mask", words({0x1F})},
      {"11 5 ", "bp_qmi_print, opt = ", "/oem/debug/qmi_print_flag", {1}},
      {"11 6 ", "bp_rf_print, opt = ", "/oem/debug/rf_print_mask", words({0x0F})},
  };
  const std::string done =
      "|Will trigger NV SYNC|Will trigger SSR of modem|success, pls wait 10 seconds ";
  for (const auto& [line, notice, path, content] : switches) {
    rows.push_back({line + "1",
                    notice + "1" + done,
                    {file(path, content), sync, ssr},
                    count + "10=1\n",
                    "|tervik_efs_write failed"});
    rows.push_back({line + "0",
                    notice + "0" + done,
                    {file(path, {}), sync, ssr},
                    count + "10=1\n",
                    "|tervik_efs_delete failed"});
  }
  size_t before = 0;
  const auto sent_since = [&](size_t first) {
    std::vector<Bytes> payloads;
    for (const ExtensionRequest& request : stub.requests()) payloads.push_back(request.payload);
    payloads.erase(payloads.begin(), payloads.begin() + static_cast<std::ptrdiff_t>(first));
    before += payloads.size();
    return payloads;
  };
  const std::string no_wait = "persist.radio.ssr_wait_s=0\n";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    write_state_file_text("properties", no_wait);
    put(efs_answer, 16, int32_t{0});
    EXPECT_EQ(run(command(row.line)), split(row.printed));
    EXPECT_EQ(sent_since(before), row.sent);
    const std::string stored = read_state_file_text("properties");
    EXPECT_TRUE(stored.starts_with(no_wait) && stored.ends_with(row.stored)) << stored;
    EXPECT_EQ(stored.find(count) != std::string::npos, row.stored.starts_with(count));
    if (row.efs_error.empty()) continue;
    put(efs_answer, 16, int32_t{-5});
    EXPECT_EQ(run(command(row.line)),
              split(row.printed.substr(0, row.printed.find('|')) + row.efs_error));
    EXPECT_EQ(sent_since(before), std::vector<Bytes>{row.sent[0]});
  }
}

TEST_F(KivSmartTest, SharedMemoryIsShownAndNothingStaysOpen) {
  write_state_file_text("short", std::string("\x01\xFF\0\x07\x80", 5));
  write_state_file_text("long", std::string(300, 'A'));
  ASSERT_EQ(mkfifo((state_dir() + "/fifo").c_str(), 0600), 0);
  const auto shown = [](const Bytes& bytes) {
    std::string lines = "|open, fd: |ftruncate, ret: 0|mmap, data_ptr: 0x";
    for (size_t i = 0; i < bytes.size(); ++i) {
      lines += "|data_ptr[" + std::to_string(i) + "]: " + std::to_string(bytes[i]);
    }
    return lines + "|munmap, ret: 0|close fd";
  };
  const std::string failed = "|open, fd: -1|shm_open error";
  for (const auto& [name, lines] :
       {std::pair<std::string, std::string>{"short", shown({1, 255, 0, 7, 128})},
        {"long", shown({65, 65, 65, 65, 65})},
        {"new", shown({0, 0, 0, 0, 0})},
        {"fifo", "|open, fd: |ftruncate, ret: -1|ftruncate error|close fd"},
        {"no/such/folder", failed},
        {".", failed}}) {
    const std::string path = state_dir() + "/" + name;
    g_share_memory_file_path = path.c_str();
    const size_t open_before = open_descriptors();
    Strings printed = run(command("11 7"));
    EXPECT_EQ(open_descriptors(), open_before);
    for (std::string& line : printed) {  // descriptor and address are any
      if (line.starts_with("open, fd: ") && line != "open, fd: -1") line.resize(10);
      if (line.starts_with("mmap, data_ptr: 0x") && line.size() == 26) line.resize(18);
    }
    EXPECT_EQ(printed, split("share_memory|g_share_memory_file_path: " + path + lines));
    if (lines.ends_with("munmap, ret: 0|close fd")) {
      EXPECT_EQ(std::filesystem::file_size(path), 100u) << name;
    }
  }
  EXPECT_EQ(read_state_file_text("short").substr(0, 6), std::string("\x01\xFF\0\x07\x80\0", 6));
}

TEST_F(KivSmartTest, TimerIsWaitedForBySecondsAndStopped) {
  for (const int timeout_s : {3, 0, 1}) {
    const TimeLapse lapse(100);
    const LogCapture log;
    const auto begin = std::chrono::steady_clock::now();
    tervik_smart_test_tervik_timer(timeout_s);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(timeout_s));
    const size_t seconds = lapse.slept().size();
    const Strings expired = log.messages_from("] tervik_kiv_delay_timer_cb:");
    ASSERT_EQ(expired.size(), 1u);
    const std::string id = expired[0].substr(26);
    EXPECT_EQ(expired[0], "The timer expired with ID " + id);
    std::string lines = "Timer test start, timeout_s = " + std::to_string(timeout_s) +
                        "|Start one timer(timer_id " + id +
                        "), will pause until this timer is expired ...";
    for (size_t i = 1; i <= seconds; ++i) {
      lines += "|" + std::to_string(i) + (i == 1 ? " second has" : " seconds have") + " passed";
    }
    EXPECT_EQ(log.messages_from("] tervik_smart_test_tervik_timer:"),
              split(lines + "|Timer test done"));
    EXPECT_EQ(log.messages_from("] tervik_timer_stop:"),
              Strings{"ret = 0, timeout_s = " + std::to_string(timeout_s) + ", timer_id = " + id});
  }
}

TEST_F(KivSmartTest, TimerThatCannotBeStartedIsNotWaitedFor) {
  const TimeLapse lapse(1000);
  for (const bool invalid : {true, false}) {
    if (!invalid) fail_next_timer_create();
    const Strings printed = run(command(invalid ? "11 8 -1" : "11 8 2"));
    ASSERT_FALSE(printed.empty());
    EXPECT_EQ(printed.back(), std::string("note: the timer could not be started, timeout_s = ") +
                                  (invalid ? "-1" : "2"));
    EXPECT_EQ(g_tervik_timer_running, 0);
  }
  EXPECT_TRUE(lapse.slept().empty());
}

TEST_F(KivSmartTest, ModemTestShowsNoByteThatDidNotCome) {
  Bytes body(550, 0xEE);
  ExtensionStub::Answer answer;
  const ExtensionStub stub([&answer](const ExtensionRequest&) { return answer; });
  const std::string fail = "|tervik_extend_qmi_send_sync fail, REQUEST_ID_COMMON";
  const std::string out_of_range = "|l_rsp is out of range";
  const auto data = [](const std::string& len, size_t shown) {
    std::string lines = "|t_rsp 73|l_rsp " + len + "|data len(" + len + ")\ndata: ";
    while (shown-- > 0) lines += "| EE";
    return lines + "||cnt ";
  };
  const struct {
    uint32_t came;
    uint32_t rsp_result;
    uint32_t type;
    uint32_t l_rsp;
    std::string lines;
  } rows[] = {
      {508, 0, 73, 0, "|t_rsp 73|l_rsp 0|cnt 8"},
      {508, 0, 73, 3, data("3", 3) + "11"},
      {508, 0, 73, 492, data("492", 492) + "500"},
      {550, 0, 73, 500, data("500", 492) + "508"},
      {20, 0, 73, 500, data("500", 4) + "508"},
      {16, 0, 73, 5, data("5", 0) + "13"},
      {12, 0, 73, 5, "|t_rsp 73|l_rsp 0|cnt 8"},
      {8, 0, 73, 5, "|t_rsp 0|t_rsp != t"},
      {508, 0, 73, 501, "|t_rsp 73|l_rsp 501" + out_of_range},
      {508, 0, 73, UINT32_MAX, "|t_rsp 73|l_rsp -1" + out_of_range},
      {508, 0, 74, 3, "|t_rsp 74|t_rsp != t"},
      {508, 9, 73, 3, "|qmi response fail"},
      {7, 0, 73, 3, fail},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << &row - rows);
    put(body, 4, row.rsp_result);
    put(body, 8, row.type);
    put(body, 12, row.l_rsp);
    answer = ExtensionAnswer{.result = 0, .len = row.came, .payload = body};
    const LogCapture log;
    run(command("11 11 123456789"));
    EXPECT_EQ(log.messages_from("[tervik_kiv_smart_test.cpp:"),
              split("function entry ------------->|result = " +
                    std::string(row.lines == fail ? "-103" : "0") + ", rsp.result = " +
                    std::to_string(row.rsp_result) + row.lines + "|function exit <-------------"));
    EXPECT_EQ(stub.requests().back().payload, common_payload(73, words({123456789})));
  }
}

}  // namespace
}  // namespace kiv::test
