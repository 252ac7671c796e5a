#include "tests/fuzz/stage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <latch>
#include <map>
#include <optional>
#include <sstream>
#include <utility>

#include "modem_lyrax_mgr.h"
#include "nas_idl.h"
#include "pdc_utils.h"
#include "platform/diag/diag_library.h"
#include "platform/modem/diag_processor.h"
#include "platform/modem/extension_service.h"
#include "platform/modem/nas_service.h"
#include "platform/modem/pdc_service.h"
#include "platform/modem/sar_service.h"
#include "platform/modem/service_messages.h"
#include "platform/modem/uim_service.h"
#include "platform/modem/vs_service.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "sar_idl.h"
#include "tervik_extend_api.h"
#include "tervik_extend_cmn.h"
#include "tervik_kiv_at_cmd.h"
#include "tervik_kiv_smart_test.h"
#include "tervik_kiv_test_main.h"
#include "tervik_mbn_utils.h"
#include "tervik_utils_cmn.h"
#include "tests/support/extension_stub.h"
#include "uim_idl.h"
#include "vs_idl.h"

// Takes the place of fork(): no shell runs.
extern "C" pid_t __wrap_fork();
pid_t __wrap_fork() {
  return -1;
}

namespace kiv::fuzz {
namespace {

using platform::ServiceReply;

struct ServiceRow {
  platform::Service (*make)(const platform::ModemConf& conf);
  qmi_idl_service_object_type object;
};

const std::map<uint32_t, ServiceRow>& services() {
  static const std::map<uint32_t, ServiceRow> rows{
      {kExtension,
       {platform::make_extension_service, tervik_extend_get_service_object_internal_v01(1, 1, 6)}},
      {kSar, {platform::make_sar_service, sar_get_service_object_internal_v01(1, 0x0F, 6)}},
      {kUim, {platform::make_uim_service, uim_get_service_object_internal_v01(1, 0x71, 6)}},
      {kNas, {platform::make_nas_service, nas_get_service_object_internal_v01(1, 0x199, 6)}},
      {kPdc, {platform::make_pdc_service, pdc_get_service_object_internal_v01(1, 0x12, 6)}},
      {kVs, {platform::make_vs_service, vs_get_service_object_internal_v01(1, 2, 6)}},
  };
  return rows;
}

bool g_traces_shown = true;

// Every class goes to its sinks again, whatever a command has switched off.
void open_logs() {
  g_extend_qmi_trace = 1;
  g_tervik_logcat_print_mask = 0xFFFF;
  tervik_hal_set_shell_print_mask(g_traces_shown ? 0xFFFF : 0xFFFF & ~LOG_CLASS_DEBUG);
}

// A client that hears of each indication after the clients that were open before it.
class Listener {
 public:
  using Hear = std::function<void(unsigned msg_id, ByteView bytes)>;

  Listener(uint32_t service, Hear hear) : hear_(std::move(hear)) {
    if (qmi_client_init_instance(&object_of(service), QMI_CLIENT_INSTANCE_ANY, on_indication, this,
                                 &signal_, 0, &client_) != QMI_NO_ERR) {
      abort();
    }
  }
  ~Listener() { static_cast<void>(qmi_client_release(client_)); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  static void on_indication(qmi_client_type, unsigned msg_id, void* data, unsigned size,
                            void* self) {
    static_cast<Listener*>(self)->hear_(msg_id, {static_cast<const uint8_t*>(data), size});
  }

  const Hear hear_;
  qmi_client_os_params signal_;
  qmi_client_type client_ = nullptr;
};

// A decoded message, or a zeroed one.
template <class Message>
Message decoded(uint32_t service, qmi_idl_message_type type, uint16_t msg_id, ByteView encoded) {
  Message message{};
  const auto* const description = platform::find_message(object_of(service), type, msg_id);
  static_cast<void>(platform::decode_message(*description, encoded, platform::bytes_of(message)));
  return message;
}

MessageKey key_of(uint32_t service, uint16_t msg_id, ByteView request) {
  if (service != kExtension) return {service, msg_id};
  const auto message = decoded<tervik_extend_data_msg>(service, QMI_IDL_REQUEST, msg_id, request);
  if (message.id == REQUEST_ID_EFS) return nv_efs(message.payload[0]);
  if (message.id != REQUEST_ID_COMMON) return {service, msg_id, message.id << 16};
  tervik_common_request common{};
  std::memcpy(&common, message.payload, sizeof common);
  return common.always_2 == 2 ? common_message(common.type) : common_request(common.always_2);
}

// The part of a healthy response that a row takes in.
Bytes part_of(Inlet inlet, ByteView response) {
  if (inlet == Inlet::kPayload) {
    const auto message = decoded<tervik_extend_data_msg>(kExtension, QMI_IDL_RESPONSE, 2, response);
    const ByteView payload(message.payload);
    const ByteView part = payload.first(std::min<size_t>(message.len, payload.size()));
    return {part.begin(), part.end()};
  }
  if (inlet == Inlet::kStatsBlob) {
    const auto message = decoded<vs_get_stats_parameter_resp>(kVs, QMI_IDL_RESPONSE,
                                                              VS_GET_STATS_PARAMETER, response);
    return {message.entries[0].value, message.entries[0].value + message.entries[0].value_len};
  }
  return {response.begin(), response.end()};
}

// The response that has the value for the parameter that was asked for.
Bytes stats_response(ByteView request, ByteView value) {
  const auto asked =
      decoded<vs_get_stats_parameter_req>(kVs, QMI_IDL_REQUEST, VS_GET_STATS_PARAMETER, request);
  vs_get_stats_parameter_resp response{};
  response.entries_valid = 1;
  response.entries_len = 1;
  vs_stats_entry& entry = response.entries[0];
  entry = asked.entries[0];
  entry.sub = asked.sub;
  entry.value_len = static_cast<uint32_t>(std::min(value.size(), sizeof entry.value));
  std::memcpy(entry.value, value.data(), entry.value_len);
  const auto* const description =
      platform::find_message(object_of(kVs), QMI_IDL_RESPONSE, VS_GET_STATS_PARAMETER);
  return platform::encode_message(*description, platform::bytes_of(response)).value_or(Bytes{});
}

}  // namespace

const qmi_idl_service_object& object_of(uint32_t service) {
  return *services().at(service).object;
}

Bytes with_id(unsigned msg_id, ByteView encoded) {
  Bytes bytes{static_cast<uint8_t>(msg_id), static_cast<uint8_t>(msg_id >> 8)};
  bytes.insert(bytes.end(), encoded.begin(), encoded.end());
  return bytes;
}

void show_traces(bool on) {
  g_traces_shown = on;
}

void run_command(const std::string& line, char separator) {
  std::vector<std::string> words{"kiv"};
  std::istringstream split(line + separator);
  for (std::string word; std::getline(split, word, separator);) words.push_back(word);
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  open_logs();
  tervik_kiv_test_main(static_cast<int>(words.size()), argv.data());
}

Stage::Stage(const Decoder& row) : row_(row) {
  conf_.stats_not_supported = 1;  // so that the modem is asked which
  std::string directory = (std::filesystem::temp_directory_path() / "kiv-stage-XXXXXX").string();
  if (mkdtemp(directory.data()) == nullptr) abort();
  setenv("KIV_STATE_DIR", directory.c_str(), 1);
  static std::string shared_file;
  shared_file = directory + "/share_memory";
  g_share_memory_file_path = shared_file.c_str();
  g_at_device_path = "/dev/null";
  tap();
}

Stage::~Stage() {
  platform::reset_service_bus();
  platform::reset_diag_library();
  std::filesystem::remove_all(getenv("KIV_STATE_DIR"));
}

// What the product keeps of the modem before is dead then: it connects anew.
void Stage::tap() {
  tap_diag();
  for (const auto& [service, row] : services()) {
    platform::publish_service(service,
                              [this, service = service, modem = row.make(conf_)](auto... request) {
                                return answer(service, modem, request...);
                              });
  }
  open_logs();
  tervik_extend_qmi_init_force();
  uim_qmi_client_recovery();
  modem_lyrax_api_deinit();
  static_cast<void>(tervik_get_sar_dsi());
  static_cast<void>(tervik_mbn_init(1));
}

void Stage::keep(Bytes seed) {
  const std::lock_guard lock(mutex_);
  if (row_.inlet == Inlet::kStatsBlob) seed.insert(seed.begin(), selector_);
  if (std::find(recorded_.begin(), recorded_.end(), seed) == recorded_.end()) {
    recorded_.push_back(std::move(seed));
  }
}

std::vector<Bytes> Stage::record() {
  recorded_ = row_.samples;
  if (row_.inlet == Inlet::kFunction) return recorded_;
  for (const std::string& command : row_.prepare) run_command(command);
  recording_ = true;
  std::optional<Listener> listener;
  if (row_.inlet == Inlet::kIndication) {
    listener.emplace(row_.messages[0].service,
                     [this](unsigned msg_id, ByteView bytes) { keep(with_id(msg_id, bytes)); });
  }
  run_row({});
  listener.reset();
  recording_ = false;
  tap();  // a restart in the run has brought the modem's own services back
  return recorded_;
}

void Stage::feed(ByteView bytes, uint8_t filler) {
  filler_ = filler;
  bytes_.assign(bytes.begin(), bytes.end());
  if (row_.inlet != Inlet::kStatsBlob) {
    run_row(bytes_);
  } else if (!bytes.empty()) {
    const size_t command = bytes[0] % row_.commands.size();
    bytes_.erase(bytes_.begin());
    run_command(row_.commands[command]);
  }
}

void Stage::run_row(ByteView bytes) {
  for (selector_ = 0; selector_ < row_.commands.size(); ++selector_) {
    run_command(row_.commands[selector_]);
  }
  open_logs();
  if (row_.function != nullptr) row_.function(bytes);
}

ServiceReply Stage::answer(uint32_t service, const platform::Service& modem, uint16_t msg_id,
                           ByteView request) {
  if (!answers(row_, key_of(service, msg_id, request))) return modem(msg_id, request);
  if (!recording_) {
    if (row_.inlet != Inlet::kIndication) return replacement(request);
    indicate(service);
    // Zeros say accepted; the modem's own indication would come on top of this one.
    const auto& response = *platform::find_message(object_of(service), QMI_IDL_RESPONSE, msg_id);
    if (response.fields.empty()) return ServiceReply::response(Bytes(response.c_struct_len));
  }
  ServiceReply reply = modem(msg_id, request);
  if (recording_ && row_.inlet != Inlet::kIndication) keep(part_of(row_.inlet, reply.bytes));
  return reply;
}

ServiceReply Stage::replacement(ByteView request) const {
  if (row_.inlet == Inlet::kStatsBlob) {
    return ServiceReply::response(stats_response(request, bytes_));
  }
  if (row_.inlet != Inlet::kPayload) return ServiceReply::response(bytes_);
  Bytes payload(bytes_);
  payload.resize(TERVIK_EXTEND_PAYLOAD_SIZE, filler_);
  const auto length = static_cast<uint32_t>(std::min(bytes_.size(), payload.size()));
  return ServiceReply::response(
      test::encode_extension_answer({.result = 0, .len = length, .payload = payload}));
}

// Returns when the product's callbacks are through.
void Stage::indicate(uint32_t service) const {
  constexpr size_t kIdSize = 2;
  if (bytes_.size() < kIdSize) return;
  std::latch heard(2);
  const Listener listener(service, [&heard](unsigned, ByteView) { heard.count_down(); });
  for (int times = 0; times < 2; ++times) {
    platform::send_indication(service, static_cast<uint16_t>(bytes_[0] | bytes_[1] << 8),
                              {bytes_.begin() + kIdSize, bytes_.end()});
  }
  heard.wait();
}

void Stage::tap_diag() {
  using Stream = platform::DiagAnswer::Stream;
  platform::DiagModem modem = platform::make_diag_modem(conf_);
  modem.processor = [this, own = modem.processor](ByteView command) {
    std::vector<platform::DiagAnswer> answers;
    if (row_.inlet != Inlet::kDiag || recording_) {
      answers = own(command);
      for (const platform::DiagAnswer& each : answers) {
        if (recording_) keep(each.bytes);
      }
      return answers;
    }
    // The streams come to DCI clients alone; in callback mode all are responses.
    for (const Stream stream : {Stream::kDciLog, Stream::kDciEvent, Stream::kResponse}) {
      answers.push_back({.bytes = bytes_, .stream = stream});
    }
    return answers;
  };
  platform::set_diag_modem(std::move(modem));
}

}  // namespace kiv::fuzz
