#include "platform/modem/pdc_service.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "pdc_idl.h"
#include "platform/android/state_directory.h"
#include "platform/modem/service_messages.h"

namespace kiv::platform {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using ConfigId = std::vector<uint8_t>;

// Time enough for the response to be back first.
constexpr milliseconds kNormalDelay{10};
constexpr milliseconds kLateDelay{6000};
// How long an early indication has for its way before the response goes back.
constexpr milliseconds kEarlyLead{50};

constexpr auto kNotWritten = static_cast<uint32_t>(kInternalError.error);  // of an indication

// Sends the service's indications when their time has come.
class DelayedIndications {
 public:
  ~DelayedIndications();

  void send_in(milliseconds delay, const Indication& indication);

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, Indication> waiting_;
  bool ended_ = false;
  std::optional<pthread_t> thread_;
};

DelayedIndications::~DelayedIndications() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }
  if (thread_) {
    pthread_join(*thread_, nullptr);
  }
}

// A failed start is tried again with the next indication; what is queued waits for it.
void DelayedIndications::send_in(milliseconds delay, const Indication& indication) {
  const auto run_thread = [](void* indications) -> void* {
    static_cast<DelayedIndications*>(indications)->run();
    return nullptr;
  };
  const std::lock_guard lock(mutex_);
  waiting_.emplace(Clock::now() + delay, indication);
  pthread_t thread{};
  if (!thread_ && pthread_create(&thread, nullptr, run_thread, this) == 0) {
    thread_ = thread;
  }
  changed_.notify_all();
}

void DelayedIndications::run() {
  std::unique_lock lock(mutex_);
  while (!ended_) {
    const auto first = waiting_.begin();
    if (first == waiting_.end()) {
      changed_.wait(lock);
    } else if (const auto due = first->first; Clock::now() < due) {
      changed_.wait_until(lock, due);
    } else {
      const Indication indication = std::move(first->second);
      waiting_.erase(first);
      lock.unlock();
      send_indication(kPdcServiceId, indication.msg_id, indication.bytes);
      lock.lock();
    }
  }
}

struct PdcState : ServiceState {
  DelayedIndications indications{};
};

std::string id_file(uint32_t sub, const char* name) {
  return "pdc/" + std::to_string(sub) + "/" + name;
}

// An empty file is no configuration; without a file the initial one counts.
ConfigId read_id(uint32_t sub, const char* name, const ConfigId& initial) {
  const auto file = read_state_file_part(id_file(sub, name), 0, kPdcConfigIdMax);
  return file ? file->bytes : initial;
}

// 0, or the error of an indication.
uint32_t write_id(uint32_t sub, const char* name, std::span<const uint8_t> id) {
  return write_state_file(id_file(sub, name), id) == 0 ? 0 : kNotWritten;
}

// The same for an id and then for the pending one.
uint32_t write_ids(uint32_t sub, const char* name, std::span<const uint8_t> id,
                   std::span<const uint8_t> pending) {
  const uint32_t error = write_id(sub, name, id);
  return error != 0 ? error : write_id(sub, "pending", pending);
}

// An id that is too long keeps its length and loses its end.
void set_id(const ConfigId& id, uint8_t& valid, uint32_t& length, std::span<uint8_t> bytes) {
  valid = id.empty() ? 0 : 1;
  length = static_cast<uint32_t>(id.size());
  std::copy_n(id.begin(), std::min(id.size(), bytes.size()), bytes.begin());
}

// The subscription that the request means: the first one unless it names one.
template <class Request>
uint32_t subscription_of(const Request& request) {
  return request.subscription_id_valid != 0 ? request.subscription_id : 0;
}

template <class Request>
bool is_valid(const Request& request) {
  return request.config_type <= PDC_CONFIG_TYPE_MODEM_SW_V01 &&
         subscription_of(request) < kCardSlots;
}

bool is_valid(const pdc_set_selected_config_req_msg_v01& request) {
  const pdc_config_info_v01& config = request.new_config_info;
  return config.config_type <= PDC_CONFIG_TYPE_MODEM_SW_V01 && config.config_id_len != 0 &&
         config.config_id_len <= sizeof config.config_id && subscription_of(request) < kCardSlots;
}

void send_outcome(PdcState& pdc, const Indication& outcome) {
  if (pdc.conf.fault_of(kPdcServiceId).kind == ServiceFault::Kind::kSilent) {
    return;
  }
  switch (pdc.conf.pdc_indication) {
    case PdcIndication::kNever:
      break;
    case PdcIndication::kEarly:
      send_indication(kPdcServiceId, outcome.msg_id, outcome.bytes);
      std::this_thread::sleep_for(kEarlyLead);
      break;
    case PdcIndication::kLate:
      pdc.indications.send_in(kLateDelay, outcome);
      break;
    case PdcIndication::kTwice:
      pdc.indications.send_in(kNormalDelay, outcome);
      [[fallthrough]];
    case PdcIndication::kNormal:
      pdc.indications.send_in(kNormalDelay, outcome);
      break;
  }
}

// Accepts a request and sends what `carry_out` makes of it for a subscription, or refuses it.
template <class Body, class Request, class CarryOut>
pdc_result_v01 accept(PdcState& pdc, uint16_t msg_id, const Request& request, CarryOut carry_out) {
  if (!is_valid(request)) {
    return kInvalidArgument;
  }
  Body body{};
  body.indication_error = static_cast<uint32_t>(pdc.conf.pdc_ind_error);
  if (pdc.conf.pdc_ind_error == 0) {
    carry_out(subscription_of(request), body);
  }
  const auto bytes = bytes_of(std::as_const(body));
  pdc.afterwards = [&pdc, outcome = Indication{msg_id, {bytes.begin(), bytes.end()}}] {
    send_outcome(pdc, outcome);
  };
  return kDone;
}

pdc_result_v01 get_selected(PdcState& pdc, const pdc_get_selected_config_req_msg_v01& request,
                            pdc_get_selected_config_resp_msg_v01&) {
  return accept<pdc_get_selected_config_ind_msg_v01>(
      pdc, QMI_PDC_GET_SELECTED_CONFIG_IND_V01, request, [&pdc](uint32_t sub, auto& indication) {
        set_id(read_id(sub, "active", pdc.conf.pdc_active[sub]), indication.active_config_id_valid,
               indication.active_config_id_len, indication.active_config_id);
        set_id(read_id(sub, "pending", pdc.conf.pdc_pending[sub]),
               indication.pending_config_id_valid, indication.pending_config_id_len,
               indication.pending_config_id);
      });
}

pdc_result_v01 set_selected(PdcState& pdc, const pdc_set_selected_config_req_msg_v01& request,
                            pdc_set_selected_config_resp_msg_v01&) {
  return accept<pdc_set_selected_config_ind_msg_v01>(
      pdc, QMI_PDC_SET_SELECTED_CONFIG_IND_V01, request,
      [&config = request.new_config_info](uint32_t sub, auto& indication) {
        const auto id = std::span(config.config_id).first(config.config_id_len);
        indication.indication_error = write_ids(sub, "selected", id, id);
      });
}

// Activates the selected one; as long as none was selected, the one that waits, else the one that
// was active at first.
pdc_result_v01 activate(PdcState& pdc, const pdc_activate_config_req_msg_v01& request,
                        pdc_activate_config_resp_msg_v01&) {
  return accept<pdc_activate_config_ind_msg_v01>(
      pdc, QMI_PDC_ACTIVATE_CONFIG_IND_V01, request, [&](uint32_t sub, auto& indication) {
        if (request.activation_type_valid != 0 &&
            request.activation_type == PDC_ACTIVATION_REFRESH_ONLY_V01) {
          return;
        }
        const ConfigId& waiting = pdc.conf.pdc_pending[sub];
        const ConfigId& initial = waiting.empty() ? pdc.conf.pdc_active[sub] : waiting;
        indication.indication_error =
            write_ids(sub, "active", read_id(sub, "selected", initial), {});
      });
}

pdc_result_v01 deactivate(PdcState& pdc, const pdc_deactivate_config_req_msg_v01& request,
                          pdc_deactivate_config_resp_msg_v01&) {
  return accept<pdc_deactivate_config_ind_msg_v01>(
      pdc, QMI_PDC_DEACTIVATE_CONFIG_IND_V01, request, [](uint32_t sub, auto& indication) {
        indication.indication_error = write_id(sub, "active", {});
      });
}

constexpr std::tuple kMessages{
    Message{QMI_PDC_GET_SELECTED_CONFIG_REQ_V01, get_selected},
    Message{QMI_PDC_SET_SELECTED_CONFIG_REQ_V01, set_selected},
    Message{QMI_PDC_ACTIVATE_CONFIG_REQ_V01, activate},
    Message{QMI_PDC_DEACTIVATE_CONFIG_REQ_V01, deactivate},
};
constexpr std::array<qmi_idl_message, 11> kIndications{{
    describe<pdc_get_selected_config_ind_msg_v01>(QMI_PDC_GET_SELECTED_CONFIG_IND_V01),
    describe<pdc_set_selected_config_ind_msg_v01>(QMI_PDC_SET_SELECTED_CONFIG_IND_V01),
    describe<pdc_list_configs_ind_msg_v01>(QMI_PDC_LIST_CONFIGS_IND_V01),
    describe<pdc_delete_config_ind_msg_v01>(QMI_PDC_DELETE_CONFIG_IND_V01),
    describe<pdc_load_config_ind_msg_v01>(QMI_PDC_LOAD_CONFIG_IND_V01),
    describe<pdc_activate_config_ind_msg_v01>(QMI_PDC_ACTIVATE_CONFIG_IND_V01),
    describe<pdc_get_config_info_ind_msg_v01>(QMI_PDC_GET_CONFIG_INFO_IND_V01),
    describe<pdc_get_default_config_info_ind_msg_v01>(QMI_PDC_GET_DEFAULT_CONFIG_INFO_IND_V01),
    describe<pdc_deactivate_config_ind_msg_v01>(QMI_PDC_DEACTIVATE_CONFIG_IND_V01),
    describe<pdc_validate_config_ind_msg_v01>(QMI_PDC_VALIDATE_CONFIG_IND_V01),
    describe<pdc_set_feature_ind_msg_v01>(QMI_PDC_SET_FEATURE_IND_V01),
}};
constexpr qmi_idl_service_object kServiceObject =
    service_object<kMessages>(kPdcServiceId, 18, kIndications);

}  // namespace

Service make_pdc_service(const ModemConf& conf) {
  return make_service<kMessages, PdcState>(kPdcServiceId, conf);
}

}  // namespace kiv::platform

qmi_idl_service_object_type pdc_get_service_object_internal_v01(uint32_t idl_major_version,
                                                                uint32_t idl_minor_version,
                                                                uint32_t library_version) {
  return kiv::platform::object_of_version(kiv::platform::kServiceObject, idl_major_version,
                                          idl_minor_version, library_version);
}
