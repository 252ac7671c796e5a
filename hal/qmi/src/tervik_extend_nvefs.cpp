#include "tervik_extend_nvefs.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <mutex>

#include "tervik_extend_api.h"
#include "tervik_extend_nvefs_msg.h"
#include "tervik_utils_cmn.h"

namespace {

constexpr uint32_t EFS_WRITE_CHUNK_MAX = 414;
constexpr uint16_t EFS_FIRST_CHUNK_INS_ID = 255;
constexpr int EFS_CHUNK_COUNT_MAX = 300;
constexpr uint32_t EFS_RECEIVED_MAX = 102409;
constexpr uint32_t NV_ID_OF_ANY_SUB = 550;

// Held over whole operations; taken before the client's own lock.
std::mutex g_nvefs_mutex;

// ---- argument checks ----

struct argument_check {
  bool failed;
  const char* text;
  int code;
};

constexpr argument_check wrong_sub(uint32_t sub) {
  return {!tervik_check_sub_id(sub), "sub invalid", TERVIK_NVEFS_ERR_SUB};
}

constexpr argument_check wrong_nv_id(uint32_t nv_id) {
  static_assert(TERVIK_NV_ID_MAX == 7232);
  return {nv_id > TERVIK_NV_ID_MAX, "nv_id is out range(7232)", TERVIK_NVEFS_ERR_NV_ID};
}

constexpr argument_check no_path(const char* path) {
  return {path == nullptr, "efs_path is null", TERVIK_NVEFS_ERR_PATH};
}

constexpr argument_check wrong_path_len(uint32_t len, uint32_t max_len) {
  return {len == 0 || len > max_len, "len invalid", TERVIK_NVEFS_ERR_PATH_LEN};
}

constexpr argument_check no_buf(const uint8_t* buf) {
  return {buf == nullptr, "buf is null", TERVIK_NVEFS_ERR_BUF};
}

constexpr argument_check no_buf_len(const uint32_t* buf_len) {
  return {buf_len == nullptr, "p_buf_len is null", TERVIK_NVEFS_ERR_BUF_LEN};
}

constexpr argument_check wrong_buf_len(uint32_t len, uint32_t max_len) {
  return {len == 0 || len > max_len, "buf_len is invalid", TERVIK_NVEFS_ERR_BUF_LEN};
}

// The code of the first argument that is wrong, with its reason in the log; 0 when none is.
[[nodiscard]] int check(const char* func, uint32_t sub,
                        std::initializer_list<argument_check> arguments) {
  for (const argument_check& argument : arguments) {
    if (argument.failed) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "%s", argument.text);
      return argument.code;
    }
  }
  return 0;
}

// ---- requests and answers ----

nvefs_request make_request(nvefs_operation operation, uint32_t sub) {
  nvefs_request request = {};
  request.operation = operation;
  request.sub = static_cast<uint8_t>(sub);
  return request;
}

nvefs_request make_efs_request(const char* func, nvefs_operation operation, uint32_t sub,
                               const char* path, uint32_t path_len) {
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "path_value: %.*s", static_cast<int>(path_len),
                      path);
  nvefs_request request = make_request(operation, sub);
  request.path_len = static_cast<uint8_t>(path_len);
  memcpy(request.path, path, path_len);
  return request;
}

// What came back for one request.
struct nvefs_answer {
  int result = 0;  // of the client, mapped
  nvefs_response response = {};
  uint32_t data_carried = 0;  // bytes of response.data that the answer really has
};

// A length that the modem claims, cut to what its answer carries.
uint32_t carried_length(const nvefs_answer& answer, uint32_t claimed) {
  return std::min(claimed, answer.data_carried);
}

// Sends one request. An answer too short to hold its result counts as a failed send.
nvefs_answer exchange(const char* func, uint32_t sub, const nvefs_request& request) {
  nvefs_answer answer;
  int rsp_len = sizeof(answer.response);
  answer.result = tervik_qmi_result_map(tervik_extend_qmi_send_sync(
      REQUEST_ID_EFS, reinterpret_cast<const uint8_t*>(&request), sizeof(request),
      reinterpret_cast<uint8_t*>(&answer.response), &rsp_len));
  if (answer.result != 0) {
    return answer;
  }
  constexpr int HEADER_LEN = offsetof(nvefs_response, data);
  if (rsp_len < HEADER_LEN) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "qmi response of %d bytes is too short",
                        rsp_len);
    answer.result = TERVIK_NVEFS_ERR_SEND;
    return answer;
  }
  answer.data_carried = static_cast<uint32_t>(rsp_len - HEADER_LEN);
  return answer;
}

// Tells of an answer's failure, of the send or of the modem, and returns it; 0 when there is none.
[[nodiscard]] int failure_of(const char* func, uint32_t sub, const nvefs_answer& answer,
                             const char* consequence = "", bool positive_is_good = false) {
  if (answer.result != 0) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "tervik_extend_qmi_send_sync fail%s",
                        consequence);
    return answer.result;
  }
  const int rsp_result = answer.response.result;
  if (rsp_result == 0 || (rsp_result > 0 && positive_is_good)) {
    return 0;
  }
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "qmi response fail");
  return rsp_result;
}

// Sends one request whose two results end the operation when they are not 0.
[[nodiscard]] int exchange_checked(const char* func, uint32_t sub, const nvefs_request& request,
                                   nvefs_answer& answer, const char* consequence = "") {
  answer = exchange(func, sub, request);
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "result = %d, rsp.result = %d", answer.result,
                      answer.response.result);
  return failure_of(func, sub, answer, consequence);
}

[[nodiscard]] int exchange_checked(const char* func, uint32_t sub, const nvefs_request& request) {
  nvefs_answer answer;
  return exchange_checked(func, sub, request, answer);
}

// ---- EFS read ----

// Ends a read whose chunk does not leave room in the buffer: takes what fits, and returns the
// file's length. A length that would pass for success or for another failure is refused.
[[nodiscard]] int fill_up(const char* func, uint32_t sub, const nvefs_response& response,
                          uint8_t* buf, uint32_t received, uint32_t capacity) {
  if (capacity > received) {
    memcpy(buf + received, response.data, capacity - received);
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "abort, buf_len <= data_len_recv");
  } else {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "errro, abort, buf_len <= req.data_len_cur");
  }
  if (response.data_len_all == 0 || response.data_len_all > INT32_MAX) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "data_len_all is invalid");
    return TERVIK_NVEFS_ERR_BUF_LEN;
  }
  return static_cast<int>(response.data_len_all);
}

[[nodiscard]] int read_chunks(const char* func, uint32_t sub, nvefs_request& request, uint8_t* buf,
                              uint32_t* buf_len) {
  const uint32_t capacity = *buf_len;
  uint32_t received = 0;
  for (int read_count = 0;; ++read_count) {
    request.data_len_cur = received;
    nvefs_answer answer;
    const int failure = exchange_checked(func, sub, request, answer, ", ABORT");
    if (failure != 0) {
      return failure;
    }
    const nvefs_response& response = answer.response;
    tervik_log_print_as(
        func, LOG_CLASS_DEBUG, sub,
        "data_len_all = %d, data_len_send = %d, data_len_recv = %d, read_count = %d, "
        "data_len_cur = %d",
        response.data_len_all, response.data_len_send, received, read_count, request.data_len_cur);
    const uint32_t chunk_len = carried_length(answer, response.data_len_send);
    if (chunk_len == 0) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "abort, data_len_send <= 0");
      return TERVIK_NVEFS_ERR_BUF_LEN;
    }
    if (capacity <= received + chunk_len) {
      *buf_len = capacity;
      return fill_up(func, sub, response, buf, received, capacity);
    }
    memcpy(buf + received, response.data, chunk_len);
    received += chunk_len;
    *buf_len = received;
    if (received >= response.data_len_all || received > EFS_RECEIVED_MAX ||
        read_count + 1 == EFS_CHUNK_COUNT_MAX) {
      return 0;
    }
  }
}

// ---- EFS write ----

[[nodiscard]] int write_chunks(const char* func, uint32_t sub, nvefs_request& request,
                               const uint8_t* data, uint32_t len) {
  uint32_t sent = 0;
  request.data_len_all = len;
  request.id = EFS_FIRST_CHUNK_INS_ID;
  for (int send_count = 0; sent < len && send_count < EFS_CHUNK_COUNT_MAX; ++send_count) {
    const uint32_t left_num = len - sent;
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "left_num(%d)", left_num);
    request.data_len_send = std::min(left_num, EFS_WRITE_CHUNK_MAX);
    request.data_len_cur = sent;
    memset(request.data, 0, sizeof(request.data));
    memcpy(request.data, data + sent, request.data_len_send);
    const nvefs_answer answer = exchange(func, sub, request);
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "result = %d, rsp.result = %d, ins_id = %d",
                        answer.result, answer.response.result, answer.response.ins_id);
    const int failure = failure_of(func, sub, answer, "", true);
    if (failure != 0) {
      return failure;
    }
    request.id = answer.response.ins_id;
    sent += request.data_len_send;
    tervik_log_print_as(
        func, LOG_CLASS_DEBUG, sub,
        "data_len_all = %d, data_len_send = %d, data_len_recv = %d, send_count = %d, "
        "data_len_cur = %d",
        len, request.data_len_send, sent, send_count, request.data_len_cur);
  }
  return 0;
}

}  // namespace

int tervik_qmi_result_map(int result) {
  constexpr int OFFSET = TERVIK_NVEFS_ERR_INVALID_PARAM - TERVIK_EXTEND_INVALID_PARAM;
  const bool of_client = result >= TERVIK_EXTEND_SEND_FAILED && result < TERVIK_EXTEND_SUCCESS;
  const int mapped = of_client ? result + OFFSET : result;
  tervik_log_debug("tervik_qmi_result_map, old_result %d, new_result %d", result, mapped);
  return mapped;
}

int tervik_nv_read(uint32_t sub, uint32_t nv_id, uint8_t* buf, uint32_t* buf_len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_read, sub_id %d, nv_id: %d", sub, nv_id);
  // One item can be read from a third subscription too.
  const bool of_any_sub = sub == 2 && nv_id == NV_ID_OF_ANY_SUB;
  if (of_any_sub) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "sub cust case for tt");
  }
  int result = check(
      __func__, sub,
      {wrong_sub(of_any_sub ? 0 : sub), no_buf(buf), no_buf_len(buf_len), wrong_nv_id(nv_id)});
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_request(NVEFS_NV_READ, sub);
  request.id = static_cast<uint16_t>(nv_id);
  nvefs_answer answer;
  result = exchange_checked(__func__, sub, request, answer);
  if (result != 0) {
    return result;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "rsp.data_len_all = %d", answer.response.data_len_all);
  const uint32_t item_len = carried_length(answer, answer.response.data_len_all);
  if (item_len == 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "rsp.data_len_all is invalid");
    return TERVIK_NVEFS_ERR_BUF_LEN;
  }
  *buf_len = std::min(*buf_len, item_len);
  memcpy(buf, answer.response.data, *buf_len);
  return 0;
}

int tervik_nv_write_ex(uint32_t sub, uint32_t nv_id, const uint8_t* data, uint32_t len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_write, sub_id %d, nv_id: %d, buf_len: %d", sub,
                   nv_id, len);
  const int result = check(
      __func__, sub,
      {wrong_sub(sub), no_buf(data), wrong_buf_len(len, TERVIK_NV_DATA_MAX), wrong_nv_id(nv_id)});
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_request(NVEFS_NV_WRITE, sub);
  request.id = static_cast<uint16_t>(nv_id);
  request.data_len_all = len;
  memcpy(request.data, data, len);
  return exchange_checked(__func__, sub, request);
}

int tervik_nv_delete(uint32_t sub, uint32_t nv_id) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_delete, sub_id %d, nv_id: %d", sub, nv_id);
  const int result = check(__func__, sub, {wrong_sub(sub), wrong_nv_id(nv_id)});
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_request(NVEFS_NV_DELETE, sub);
  request.id = static_cast<uint16_t>(nv_id);
  return exchange_checked(__func__, sub, request);
}

int tervik_efs_read(uint32_t sub, const char* path, uint32_t path_len, uint8_t* buf,
                    uint32_t* buf_len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_read, sub_id %d, path_len: %d", sub, path_len);
  const int result =
      check(__func__, sub,
            {wrong_sub(sub), no_path(path), wrong_path_len(path_len, TERVIK_EFS_PATH_MAX),
             no_buf(buf), no_buf_len(buf_len)});
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_efs_request(__func__, NVEFS_EFS_READ, sub, path, path_len);
  return read_chunks(__func__, sub, request, buf, buf_len);
}

int tervik_efs_write(uint32_t sub, const char* path, uint32_t path_len, const uint8_t* data,
                     uint32_t len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_write, sub_id %d, path_len: %d, buf_len: %d",
                   sub, path_len, len);
  const int result =
      check(__func__, sub,
            {wrong_sub(sub), no_path(path), wrong_path_len(path_len, TERVIK_EFS_PATH_MAX - 1),
             no_buf(data), wrong_buf_len(len, TERVIK_EFS_DATA_MAX)});
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_efs_request(__func__, NVEFS_EFS_WRITE, sub, path, path_len);
  return write_chunks(__func__, sub, request, data, len);
}

int tervik_efs_delete(uint32_t sub, const char* path, uint32_t path_len) {
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_delete, sub_id %d, path_len: %d", sub,
                   path_len);
  const int result =
      check(__func__, sub,
            {wrong_sub(sub), no_path(path), wrong_path_len(path_len, TERVIK_EFS_PATH_MAX - 1)});
  if (result != 0) {
    return result;
  }
  const nvefs_request request = make_efs_request(__func__, NVEFS_EFS_DELETE, sub, path, path_len);
  return exchange_checked(__func__, sub, request);
}

int tervik_extend_nv_read_item(uint32_t nv_id, uint32_t sub, uint8_t* buf, uint32_t* buf_len) {
  const std::lock_guard lock(g_nvefs_mutex);
  nv_item_request request = {};
  request.always_1 = 1;
  request.nv_id = nv_id;
  request.sub = sub;
  nv_item_response response = {};
  int rsp_len = sizeof(response);
  int result =
      tervik_extend_qmi_send_sync(REQUEST_ID_NV_ITEM, reinterpret_cast<const uint8_t*>(&request),
                                  sizeof(request), reinterpret_cast<uint8_t*>(&response), &rsp_len);
  constexpr int HEADER_LEN = offsetof(nv_item_response, data);
  if (result == 0) {
    result = rsp_len < HEADER_LEN ? TERVIK_EXTEND_SEND_FAILED : response.status;
  }
  if (result != 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "nv item %u read fail, result = %d, rsp_len = %d", nv_id,
                     result, rsp_len);
    *buf_len = 0;
    return result;
  }
  const uint32_t capacity = *buf_len;
  const auto carried = static_cast<uint32_t>(rsp_len - HEADER_LEN);
  *buf_len = std::min({capacity, response.data_len, carried});
  memcpy(buf, response.data, *buf_len);
  return capacity < response.data_len ? TERVIK_NV_ITEM_CUT : 0;
}
