// Every indication that the product receives, sent 0, 1, 2 and 1000 times before a request, between
// it and its response, after the response, after the time-out, and while the client is released:
// the request has its own outcome, and so has the next one.
#include <algorithm>
#include <functional>
#include <thread>

#include "pdc_utils.h"
#include "platform/modem/extension_service.h"
#include "platform/modem/vs_service.h"
#include "platform/qmi/bus_state.h"
#include "platform/qmi/qmi_idl_codec.h"
#include "tervik_extend_api.h"
#include "tervik_extend_cmn.h"
#include "tervik_extend_idl.h"
#include "tervik_mbn_utils.h"
#include "tervik_utils_cmn.h"
#include "tests/support/log_capture.h"
#include "tests/support/state_directory_fixture.h"
#include "vs_client.h"

namespace kiv::test {
namespace {

using namespace kiv::platform;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

enum Moment { kBefore, kBetween, kAfter, kAfterTimeOut, kAtRelease };

int request_pdc(uint16_t id) {
  pdc_config_pdc_info config{};
  if (id == QMI_PDC_GET_SELECTED_CONFIG_REQ_V01) return pdc_get_current_config_ex(&config, 1, 0);
  if (id == QMI_PDC_SET_SELECTED_CONFIG_REQ_V01) return pdc_select_config_ex(&config, 1, 0);
  if (id == QMI_PDC_ACTIVATE_CONFIG_REQ_V01) return pdc_activate_config_ex(2, 0, 0, 0);
  return pdc_deactivate_config_ex(0, 1);
}

int request_vs(uint16_t) {
  const vs_set_feature_status_req request{2, 1, 1, 1, 0};
  vs_set_feature_status_resp response{};
  return vs_client_send_msg_sync(VS_SET_FEATURE_STATUS, &request, sizeof request, &response,
                                 sizeof response);
}

const struct Client {
  const char* name;
  qmi_idl_service_object_type idl;
  Service (*make)(const ModemConf& conf);  // null: the PDC service, which accepts every request
  void (*open)();
  int (*request)(uint16_t id);  // the request whose outcome that indication is, or any
  void (*release)();
  int timed_out;     // the request's result then
  const char* logs;  // one line of each indication that arrives
} kClients[] = {
    {"Extension", tervik_extend_get_service_object_internal_v01(1, 1, 6), make_extension_service,
     [] { EXPECT_NE(tervik_extend_qmi_client_open(), nullptr); },
     [](uint16_t) { return tervik_nvefs_sync(); }, tervik_extend_qmi_init_force, -3, nullptr},
    {"Vs", vs_get_service_object_internal_v01(1, 2, 6), make_vs_service,
     [] { EXPECT_EQ((vs_init(nullptr), vs_client_init([](auto...) {})), 1u); }, request_vs,
     [] { vs_client_release(); }, -3, "vs_client_ind_hdlr"},
    {"Pdc", pdc_get_service_object_internal_v01(1, 18, 6), nullptr,
     [] { EXPECT_EQ(tervik_mbn_init(1), 0); }, request_pdc, pdc_clean_ex, -1,
     "qmi_pdc_unsol_ind_cb_ex"},
};

void PrintTo(const Client& client, std::ostream* out) {
  *out << client.name;
}

class IndicationStorm : public StateDirectoryTest, public ::testing::WithParamInterface<Client> {
 protected:
  const Client& client = GetParam();
  const bool is_pdc = client.make == nullptr;
  const uint32_t service_id = client.idl->service_id;
  std::atomic<size_t> arriving{0};

  void send(uint16_t id, size_t times, uint8_t error = 0) {
    if (times == 0) return;
    const qmi_idl_message* message = find_message(*client.idl, QMI_IDL_INDICATION, id);
    Bytes record(message->c_struct_len);
    record[0] = error;
    if (is_pdc && id == QMI_PDC_GET_SELECTED_CONFIG_IND_V01) record[4] = record[8] = 1;
    const Bytes encoded = encode_message(*message, record).value();
    for (size_t sent = 0; sent < times; ++sent) send_indication(service_id, id, encoded);
    const std::lock_guard lock(bus_state().mutex);
    for (const auto& [handle, each] : bus_state().handles) {
      if (each->publication == bus_state().services[service_id]) arriving += times;
    }
  }

  void settle() {
    for (bool done = false; !done; std::this_thread::sleep_for(1ms)) {
      const std::lock_guard lock(bus_state().mutex);
      done = bus_state().deliveries.empty() && bus_state().in_callback == nullptr;
    }
  }

  bool some_request_waits() const {
    const std::lock_guard lock(g_pdc_info_ex.mutex);
    return std::ranges::any_of(g_pdc_info_ex.waiters, &pdc_req_waiter::is_waiting);
  }

  void storm(uint16_t id, Moment moment, size_t times) {
    SCOPED_TRACE(::testing::Message() << id << " at " << moment << ": " << times);
    const bool is_outcome = is_pdc && find_message(*client.idl, QMI_IDL_REQUEST, id) != nullptr;
    const bool in_time = moment == kBetween || moment == kAfter;
    const bool times_out = moment == kAfterTimeOut || (is_outcome && in_time && times == 0);
    const Service modem = is_pdc ? nullptr : client.make({});
    std::function<void(uint16_t)> at_request = [](uint16_t) {};
    bool silent = false;
    publish_service(service_id, [&](uint16_t request, std::span<const uint8_t> bytes) {
      at_request(request);
      if (is_pdc) return ServiceReply::response(Bytes(8));
      return silent ? ServiceReply::silence() : modem(request, bytes);
    });
    client.open();
    const LogCapture log;
    arriving = 0;
    silent = times_out;
    at_request = [&](uint16_t request) {
      if (moment == kBetween || moment == kAtRelease) send(id, times);
      if (moment == kBetween) settle();
      const bool comes_later = times_out || moment == kAfter;
      if (is_pdc && !comes_later && !(is_outcome && in_time)) send(request, 1);
    };
    if (moment == kBefore) send(id, times);
    settle();
    int result = 1;
    std::atomic<bool> done{false};
    std::thread requester([&] {
      result = client.request(id);
      done = true;
    });
    if (moment == kAfter) {
      while (!done && !(is_pdc && some_request_waits())) std::this_thread::sleep_for(1ms);
      send(id, times);
      if (is_pdc && !is_outcome) send(QMI_PDC_DEACTIVATE_CONFIG_IND_V01, 1);
    }
    requester.join();
    EXPECT_EQ(result, times_out ? client.timed_out : 0);
    silent = false;
    if (moment == kAfterTimeOut || moment == kAtRelease) send(id, times);
    const auto arrived = [&] {
      if (client.logs == nullptr) return arriving.load();
      return static_cast<size_t>(std::ranges::count_if(log.lines(), [this](const LogLine& line) {
        return line.text.find(client.logs) != std::string::npos;
      }));
    };
    const bool released = moment == kAtRelease;
    if (released) client.release();
    const size_t before_release = arrived();
    settle();
    EXPECT_EQ(arrived(), released ? before_release : arriving.load());
    if (released) client.open();
    for (const uint8_t error : {uint8_t{7}, uint8_t{0}}) {
      at_request = [&](uint16_t request) { send(request, is_pdc ? 1 : 0, error); };
      EXPECT_EQ(client.request(id), is_pdc && error != 0 ? -1 : 0);
      settle();
    }
    client.release();
  }
};

TEST_P(IndicationStorm, LeavesEachRequestItsOutcome) {
  tervik_hal_set_shell_print_mask(0);
  tervik_log_error("masks are loaded");
  for (const qmi_idl_message& message : client.idl->indications) {
    for (const Moment moment : {kBefore, kBetween, kAfter, kAfterTimeOut, kAtRelease}) {
      for (const size_t times : {0u, 1u, 2u, 1000u}) storm(message.id, moment, times);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kiv, IndicationStorm, ::testing::ValuesIn(kClients),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace kiv::test
