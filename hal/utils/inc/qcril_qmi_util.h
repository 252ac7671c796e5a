// Converts the outcome of a QMI request to the RIL's result codes. Any thread.
#pragma once

#include "qmi_idl.h"

// 0 for a success (QMI error 26 counts as one), else a RIL result. `response` may be null.
[[nodiscard]] int qcril_qmi_util_convert_qmi_response_codes_to_ril_result(
    int transport_result, const qmi_result* response);
