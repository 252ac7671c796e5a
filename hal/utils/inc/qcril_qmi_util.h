// Converts the outcome of a QMI request to the RIL's result codes. Any thread.
#pragma once

#include <cstdint>

// The standard outcome in a QMI response: result 0 success, 1 failure with the error's number.
struct qcril_qmi_response {
  int32_t result;
  int32_t error;
};

// 0 for a success (QMI error 26 counts as one), else a RIL result. `response` may be null.
[[nodiscard]] int qcril_qmi_util_convert_qmi_response_codes_to_ril_result(
    int transport_result, const qcril_qmi_response* response);
