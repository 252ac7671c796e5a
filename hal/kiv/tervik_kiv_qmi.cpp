#include "tervik_kiv_qmi.h"

#include <array>
#include <memory>
#include <new>

#include "tervik_extend_cmn.h"
#include "tervik_kiv_test_args.h"
#include "tervik_utils_outcome.h"

namespace {

constexpr unsigned SCAN_TIMEOUT_MS = 10000;
constexpr nas_scan_scope_enum_v01 DEFAULT_SCAN_SCOPE{};

constexpr command_argument ARLIST = unused("arlist", 0, INT_MAX);

// A scan of the default scope as a row's function.
template <int (*scan)(nas_scan_scope_enum_v01 scan_scope)>
int default_scan() {
  return scan(DEFAULT_SCAN_SCOPE);
}

constexpr auto COMMANDS = std::to_array<category_command>({
    {0, "tervik_send_nas_perform_network_scan_req_msg_v01",
     command_of<default_scan<tervik_send_nas_perform_network_scan_req_msg_v01>>,
     "/* nas_perform_network_scan_req_msg_v01 */", takes(ARLIST)},
    {1, "tervik_send_nas_perform_incremental_network_scan_req_msg_v01",
     command_of<default_scan<tervik_send_nas_perform_incremental_network_scan_req_msg_v01>>,
     "/* nas_perform_incremental_network_scan_req_msg_v01 */", takes(ARLIST)},
});

// Sends a scan request with no optional field present; its results are not looked at. The notice
// repeats the name of the scan's function.
template <typename Request, typename Response>
[[nodiscard]] int send_scan(const char* func, int msg_id, nas_scan_scope_enum_v01 scan_scope) {
  tervik_log_notice_as(func, "%s, scan_scope = %d", func, static_cast<int>(scan_scope));
  const Request request = {};
  const std::unique_ptr<Response> response(new (std::nothrow) Response{});
  const int result = tervik_send_nas_qmi_req_msg(msg_id, &request, sizeof(request), response.get(),
                                                 sizeof(Response), SCAN_TIMEOUT_MS);
  if (result != 0) {
    tervik_log_error_as(func, "qmi_client_send_msg_sync fail, qmi_client_error = %d", result);
  } else {
    tervik_tell_answer(response->resp, "the modem refuses the scan");
  }
  return result;
}

}  // namespace

constexpr command_category TERVIK_QMI_CATEGORY = {
    .number = 12, .title = "qmi option cmd", .commands = COMMANDS};

int tervik_send_nas_perform_network_scan_req_msg_v01(nas_scan_scope_enum_v01 scan_scope) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  return send_scan<nas_perform_network_scan_req_msg_v01, nas_perform_network_scan_resp_msg_v01>(
      __func__, QMI_NAS_PERFORM_NETWORK_SCAN_REQ_MSG_V01, scan_scope);
}

int tervik_send_nas_perform_incremental_network_scan_req_msg_v01(
    nas_scan_scope_enum_v01 scan_scope) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE);
  return send_scan<nas_perform_incremental_network_scan_req_msg_v01,
                   nas_perform_incremental_network_scan_resp_msg_v01>(
      __func__, QMI_NAS_PERFORM_INCREMENTAL_NETWORK_SCAN_REQ_MSG_V01, scan_scope);
}

int tervik_test_qmi_do(int argc, char** argv) {
  tervik_run_category(TERVIK_LOG_PLACE, TERVIK_QMI_CATEGORY, argc, argv);
  return 0;
}

void tervik_test_qmi_show_help(int category) {
  tervik_print_help_block(TERVIK_LOG_PLACE, TERVIK_QMI_CATEGORY, category);
}
