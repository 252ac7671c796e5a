// The list of decoders is complete: what it must name is taken from the message descriptions, from
// the requests that the tool's commands send, and from the product's sources.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/fuzz/stage.h"

namespace kiv::fuzz {
namespace {

bool is_listed(const MessageKey& key, Inlet inlet) {
  return std::any_of(decoders().begin(), decoders().end(), [&](const Decoder& row) {
    const bool indications = row.inlet == Inlet::kIndication;
    return indications == (inlet == Inlet::kIndication) &&
           (indications ? row.messages.front().service == key.service : answers(row, key));
  });
}

std::string shown(const MessageKey& key) {
  std::ostringstream text;
  text << std::hex << "service 0x" << key.service << ", message 0x" << key.msg_id << ", kind 0x"
       << key.kind;
  return text.str();
}

// The tool's own services describe messages, too, that it neither builds nor reads: they have no
// field rows, and their decoders are the rows of the message descriptions.
TEST(DecoderList, NamesEveryMessageOfEveryService) {
  for (const uint32_t service : kServices) {
    const qmi_idl_service_object& object = object_of(service);
    const bool own = std::any_of(object.responses.begin(), object.responses.end(),
                                 [](const qmi_idl_message& each) { return !each.fields.empty(); });
    for (const qmi_idl_message& message : object.responses) {
      const MessageKey key{service, message.id, service == kExtension ? nv_efs(1) : 0};
      EXPECT_TRUE((own && message.fields.empty()) || is_listed(key, Inlet::kResponse))
          << "response: " << shown(key);
    }
    for (const qmi_idl_message& message : object.indications) {
      const MessageKey key{service, message.id, 0};
      EXPECT_TRUE(is_listed(key, Inlet::kIndication)) << "indication: " << shown(key);
    }
  }
}

const Decoder kNoDecoder{.name = "none", .time_factor = 1000};

// Category 8 talks to no service; three commands last as long as they are told to, or for ever.
std::vector<std::string> all_commands() {
  std::vector<std::string> all;
  for (const int category : {3, 4, 5, 6, 7, 9, 10, 11, 12}) {
    for (int number = 0; number <= 40; ++number) {
      const std::string command = std::to_string(category) + " " + std::to_string(number);
      if (command == "11 8" || command == "11 9" || command == "10 31") continue;
      for (const char* arguments :
           {"", " 0", " 1", " 1 1", " 2 1", " 3 1", " 4 1", " 5 1", " 0 1 1", " 1 1 1 1"}) {
        all.push_back(command + arguments);
      }
    }
  }
  return all;
}

TEST(DecoderList, NamesTheAnswerToEveryRequestOfEveryCommand) {
  std::set<std::string> unlisted;
  size_t requests = 0;
  for (const std::string& command : all_commands()) {
    Stage stage(kNoDecoder);
    run_command(command);
    for (const MessageKey& request : stage.requests()) {
      ++requests;
      // Category 6 sends what it is given.
      if (command.front() != '6' && !is_listed(request, Inlet::kResponse)) {
        unlisted.insert(command + ": " + shown(request));
      }
    }
  }
  EXPECT_EQ(unlisted, std::set<std::string>());
  EXPECT_GT(requests, 100u);
}

// ---- the sources ----

// Whoever calls one of these gets bytes from outside.
constexpr const char* kReceivers[] = {
    "qmi_client_send_msg_sync",    "qmi_client_message_decode",     "vs_client_send_msg_sync",
    "tervik_extend_qmi_send_sync", "tervik_common_qmi_req",         "tervik_send_common_qmi_msg",
    "diag_register_callback",      "diag_register_remote_callback", "diag_register_dci_stream_proc",
    "diag_send_dci_async_req",     "tervik_diag_register_callback"};

// The name that a line of the outermost level defines; empty for any other line.
std::string defined_name(std::string line) {
  if (line.starts_with("[[")) line.erase(0, line.find("]]") + 3);
  if (line.starts_with("class ") || line.starts_with("struct ")) {
    const size_t begin = line.find(' ') + 1;
    return line.substr(begin, line.find(' ', begin) - begin);
  }
  const size_t end = line.find('(');
  if (line.empty() || (isalpha(line[0]) == 0 && line[0] != '_') || end == std::string::npos) {
    return {};
  }
  const size_t space = line.find_last_of(" *&", end);
  return line.substr(space + 1, end - space - 1);
}

bool calls(const std::string& line, const std::string& function) {
  const size_t at = line.find(function + "(");
  return line.starts_with(' ') && at != std::string::npos && isalnum(line[at - 1]) == 0 &&
         line[at - 1] != '_';
}

TEST(DecoderList, NamesEveryFunctionThatReceives) {
  std::set<std::string> receiving;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(KIV_SOURCE_DIR "/hal")) {
    if (entry.path().extension() != ".cpp") continue;
    std::ifstream source(entry.path());
    std::string function;
    for (std::string line; std::getline(source, line);) {
      const std::string name = defined_name(line);
      if (!name.empty()) function = name;
      for (const char* receiver : kReceivers) {
        if (calls(line, receiver)) receiving.insert(function);
      }
    }
  }
  std::set<std::string> listed;
  for (const Decoder& row : decoders()) listed.insert(row.consumers.begin(), row.consumers.end());
  EXPECT_EQ(receiving, listed);
}

}  // namespace
}  // namespace kiv::fuzz
