#include "qcril_qmi_util.h"

#include <array>

#include "ril_logger.h"
#include "tervik_utils_cmn.h"

namespace {

constexpr int RIL_SUCCESS = 0;
constexpr int RIL_INTERNAL_ERROR = 39;
constexpr int RIL_UNMAPPED_ERROR = 40;

struct mapped_error {
  int qmi_error;
  int ril_result;
};

// The QMI errors that have a RIL result of their own.
constexpr std::array<mapped_error, 28> ERRORS = {{
    {0, 0},   {1, 38},  {2, 37},  {4, 7},   {13, 63}, {16, 61}, {17, 44},
    {19, 44}, {23, 64}, {24, 54}, {25, 6},  {26, 0},  {48, 44}, {50, 59},
    {51, 42}, {52, 46}, {53, 60}, {58, 57}, {60, 54}, {70, 54}, {71, 6},
    {73, 58}, {74, 61}, {83, 39}, {90, 46}, {91, 14}, {95, 62}, {97, 65},
}};

}  // namespace

int qcril_qmi_util_convert_qmi_response_codes_to_ril_result(int transport_result,
                                                            const qmi_result* response) {
  constexpr int SERVICE_GONE = -2;
  constexpr int QMI_RESULT_FAILURE = 1;
  if (transport_result != 0 && transport_result != SERVICE_GONE) {
    return RIL_INTERNAL_ERROR;
  }
  constexpr int LEVEL_NOTICE = 5;
  qti::ril::logger::Logger::log(LEVEL_NOTICE, "util", qti::ril::logger::qcril_get_thread_name(),
                                __func__, __LINE__, "ctx check 0");
  if (response == nullptr || response->result == 0) {
    return RIL_SUCCESS;
  }
  if (response->result != QMI_RESULT_FAILURE) {
    return RIL_INTERNAL_ERROR;
  }
  const mapped_error* const row = find_row(ERRORS, &mapped_error::qmi_error, response->error);
  return row != nullptr ? row->ril_result : RIL_UNMAPPED_ERROR;
}
