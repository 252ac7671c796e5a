// The list of decoders is complete: what it must name is taken from the message descriptions and
// from the requests that the tool's commands send.
#include <gtest/gtest.h>

#include <algorithm>
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

const Decoder kNoDecoder{.name = "none"};

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

}  // namespace
}  // namespace kiv::fuzz
