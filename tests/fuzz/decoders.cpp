#include "tests/fuzz/decoders.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "cutils/properties.h"
#include "pdc_utils.h"
#include "platform/android/state_directory.h"
#include "platform/modem/modem_conf.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "tervik_diag_send.h"
#include "tervik_extend_cmn.h"
#include "tervik_extend_nvefs.h"
#include "tervik_kiv_esim_test.h"
#include "tervik_kiv_smart_test.h"
#include "tests/fuzz/stage.h"

namespace kiv::fuzz {
namespace {

using enum Inlet;

std::vector<MessageKey> messages(uint32_t service, std::initializer_list<uint32_t> msg_ids) {
  std::vector<MessageKey> keys;
  for (const uint32_t msg_id : msg_ids) keys.push_back({service, msg_id, kAny});
  return keys;
}

// ---- message descriptions ----

// The service's indications with every optional field present and every list one long.
std::vector<Bytes> indications_of(uint32_t service) {
  std::vector<Bytes> samples;
  for (const qmi_idl_message& message : object_of(service).indications) {
    Bytes c_struct(message.c_struct_len);
    for (const qmi_idl_field& field : message.fields) {
      if (field.presence_offset != QMI_IDL_MANDATORY) c_struct[field.presence_offset] = 1;
      if (field.shape == QMI_IDL_COUNTED) c_struct[field.count_offset] = 1;
    }
    samples.push_back(
        with_id(message.id, platform::encode_message(message, c_struct).value_or(Bytes{})));
  }
  return samples;
}

// ---- consumers that no single command reaches ----

void read_nv_item(ByteView) {
  static_cast<void>(tervik_esim_sku_match());
  std::array<uint8_t, 8> small{};
  uint32_t length = small.size();
  static_cast<void>(tervik_extend_nv_read_item(550, 0, small.data(), &length));
}

// Not by the command, which would keep a channel open each time that the answer is no success.
void close_channel(ByteView) {
  const uint8_t slot_and_channel[] = {2, 1};
  static_cast<void>(tervik_uim_close_channel(slot_and_channel));
}

void restart_modem(ByteView) {
  tervik_smart_test_modem_ssr();
  tervik_smart_test_nv_sync();
  tervik_smart_test_modem_crash();
}

// Of configuration type 2, whose activation waits for its indication.
void activate_config(ByteView) {
  static_cast<void>(pdc_activate_config_ex2(2, 0));
}

// The workers of both modes, on this thread: each owns a length and as many bytes.
void send_diag_without_result(ByteView) {
  for (const auto worker : {tervik_diag_cmd_send_without_result_by_callback_mode_thread_proc,
                            tervik_diag_cmd_send_without_result_by_dci_mode_thread_proc}) {
    worker(new uint8_t[]{1, 0, 0, 0, 75, 0});
  }
}

// ---- texts ----

Bytes text(std::string_view characters) {
  return {characters.begin(), characters.end()};
}

void read_modem_conf(ByteView bytes) {
  const std::string conf(bytes.begin(), bytes.end());
  static_cast<void>(platform::parse_modem_conf(conf));
}

// What is set in a file of any content must be there afterwards.
void read_properties(ByteView bytes) {
  if (platform::write_state_file("properties", bytes) != 0) abort();
  for (const char* command : {"5 5", "5 8", "9 31 2", "10 30 7"}) run_command(command);
  char value[PROPERTY_VALUE_MAX] = {};
  property_get("persist.radio.all_pdc_no_rsp_count", value, "");
  if (std::strcmp(value, "7") != 0) abort();
}

// An argument a line. Left out are commands that take as long as they are told to, or for ever, and
// DIAG sends without result, whose workers outlive them: they have a row of their own.
void run_lines(ByteView bytes) {
  const std::string line(bytes.begin(), bytes.end());
  std::istringstream words(line);
  std::array<int, 4> number{};
  std::string word;
  for (size_t i = 0; i < number.size() && std::getline(words, word); ++i) {
    number[i] = atoi(word.c_str());
  }
  const bool left_out = (number[0] == 11 && (number[1] == 8 || number[1] == 9)) ||
                        (number[0] == 10 && number[1] == 31) ||
                        (number[0] == 5 && number[1] == 0 && number[3] != 0);
  if (!left_out) run_command(line, '\n');
}

// ---- the list ----

std::vector<std::string> stats_commands() {
  std::vector<std::string> commands;
  for (const int number : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 20, 21, 30, 31}) {
    for (const int sub : {0, 1}) {
      commands.push_back("9 " + std::to_string(number) + " " + std::to_string(sub));
    }
  }
  return commands;
}

// In the order of the fields.
Decoder row(const char* name, Inlet inlet, std::vector<MessageKey> keys,
            std::vector<std::string> commands, std::vector<CountField> fields = {},
            void (*function)(ByteView) = nullptr, std::vector<Bytes> samples = {},
            std::vector<std::string> prepare = {}) {
  return {name, inlet, keys, commands, fields, function, samples, prepare};
}

std::vector<Decoder> make_decoders() {
  return {
      // The extension service.
      row("extension_response", kResponse, {nv_efs(1), common_request(20)}, {"4 1 0 550", "7 1 1"}),
      row("extension_indication", kIndication, {nv_efs(1)}, {"4 1 0 550"}, {}, nullptr,
          indications_of(kExtension)),
      row("nv_read", kPayload, {nv_efs(1)}, {"4 1 0 550"}, {{4, 4, 424}}),
      row("efs_read", kPayload, {nv_efs(4)}, {"4 4 0 /f", "3 1", "3 4"},
          {{4, 4, 102410}, {8, 4, 424}}, nullptr, {},
          {"4 5 0 /f 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29 30"}),
      row("nvefs_change", kPayload, {nv_efs(2), nv_efs(3), nv_efs(5), nv_efs(6)},
          {"4 2 0 550 1", "4 3 0 550", "4 5 0 /f 1 2", "4 6 0 /f", "3 2", "3 5"}, {{2, 2, 254}}),
      row("nv_item", kPayload, {nv_item()}, {}, {{16, 4, 412}}, read_nv_item),
      row("common_message", kPayload,
          {common_message(39), common_message(55), common_message(56), common_message(57),
           common_message(80)},
          {"5 1", "5 2 0", "5 3 0 1 1", "5 4", "5 6 1 1 1 1"}, {{12, 4, 491}}),
      row("modem_test", kPayload, {common_message(73)}, {"11 11 5"}, {{12, 4, 491}}),
      row("modem_control", kPayload, {common_message(31), common_message(35), common_message(99)},
          {}, {}, restart_modem),
      row("stats_debug_block", kPayload, {common_request(20)}, {"7 1 0", "7 1 1"}, {{8, 1, 4}}),
      row("stats_log_ids", kPayload, {common_request(27)}, {"7 1 0"}, {{8, 2, 249}}),
      row("rf_setting", kPayload, {common_request(0), common_request(1)}, {"3 0 1 2", "3 3 0 4 1"}),
      row("raw_request", kPayload, {common_request(20)}, {"6 4 20"}, {}),

      // The platform's services.
      row("uim_sim_type", kResponse, messages(kUim, {0x7A}), {"5 10 2 1"}),
      row("uim_eid", kResponse, messages(kUim, {0x65}), {"5 10 3 1"}, {{8, 1, 1}, {12, 4, 16}}),
      row("uim_card_status", kResponse, messages(kUim, {0x2F}), {"5 10 4 1"},
          {{1306, 1, 1}, {1340, 4, 7}, {1344, 4, 2}}),
      row("uim_open_channel", kResponse, messages(kUim, {0x42}), {"5 10 5 1"}, {{8, 1, 1}}),
      row("uim_close_channel", kResponse, messages(kUim, {0x3F}), {}, {}, close_channel),
      row("uim_apdu", kResponse, messages(kUim, {0x3B}), {"5 10 5 1"}, {{8, 1, 1}, {12, 4, 1024}}),
      row("sar", kResponse, messages(kSar, {1, 2}), {"5 7 3", "5 5"}, {{8, 1, 1}, {12, 4, 20}}),
      row("nas", kResponse, messages(kNas, {0x21, 0x85}), {"12 0", "12 1"}),
      row("pdc_response", kResponse, messages(kPdc, {0x22, 0x23, 0x27, 0x2B}), {"10 1 1", "10 0 3"},
          {}, activate_config),
      row("pdc_indication", kIndication, messages(kPdc, {kAny}), {"10 1 1"},
          {{6, 1, 1}, {10, 4, 124}, {138, 1, 1}, {142, 4, 124}}, activate_config,
          indications_of(kPdc)),

      // The statistics service.
      row("vs_response", kResponse, messages(kVs, {0x0003, 0x0207}), {"9 0 0", "9 7 1"}),
      row("vs_indication", kIndication, messages(kVs, {0x0003}), {"9 0 0"}, {}, nullptr,
          indications_of(kVs)),
      row("vs_blob", kStatsBlob, messages(kVs, {0x0207}), stats_commands()),

      // DIAG.
      row("diag_callback", kDiag, {}, {"5 0 0 0 10000 1"}, {}),
      row("diag_dci", kDiag, {}, {"5 0 1 0 10000 1"}, {}),
      row("diag_without_result", kDiag, {}, {}, {}, send_diag_without_result),

      // Texts.
      row("command_line", kFunction, {}, {}, {}, run_lines,
          {text("4\n1\n0\n550"), text("4\n5\n0\n/f\n1\n2"), text("5\n0\n0\n0\n100\n75"),
           text("6\n4\n0x14"), text("3\n0\n1\n-2"), text("5\n10\n1\n1"), text("7\n0\n1"),
           text("8\nAT$\"`\\"), text("9\n31\n2"), text("10\n1\n3"), text("11\n4\n1"),
           text("12\n0")}),
      row("modem_conf", kFunction, {}, {}, {}, read_modem_conf,
          {text("fault.uim = result:3\neid = none\nstats.0x52.0 = 01 02 # blob\n"),
           text("vs.indication.203 = 0102\nstats.log_ids = 0x1100, 7\npdc.ind = late\n")}),
      row("property_file", kFunction, {}, {}, {}, read_properties,
          {text("persist.radio.default_data_sub=1\r\ndebug.device.x=7\n\n=\n"),
           text("persist.radio.all_pdc_no_rsp_count=3\n")}),
  };
}

}  // namespace

const std::vector<Decoder>& decoders() {
  static const std::vector<Decoder>& all = *new std::vector<Decoder>(make_decoders());
  return all;
}

bool answers(const Decoder& row, const MessageKey& request) {
  const auto fits = [](uint32_t wanted, uint32_t value) {
    return wanted == kAny || wanted == value;
  };
  return std::ranges::any_of(row.messages, [&](const MessageKey& key) {
    return key.service == request.service && fits(key.msg_id, request.msg_id) &&
           fits(key.kind, request.kind);
  });
}

}  // namespace kiv::fuzz
