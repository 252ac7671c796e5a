#include "tervik_extend_nvefs.h"

#include <algorithm>
#include <cstring>
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

// ---- argument checks, in the order of their codes; each logs its reason ----

[[nodiscard]] int check_sub(const char* func, uint32_t sub) {
  if (tervik_check_sub_id(sub)) {
    return 0;
  }
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "sub invalid");
  return TERVIK_NVEFS_ERR_SUB;
}

// One item can be read from a third subscription too.
[[nodiscard]] int check_nv_read_sub(const char* func, uint32_t sub, uint32_t nv_id) {
  if (sub == 2 && nv_id == NV_ID_OF_ANY_SUB) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "sub cust case for tt");
    return 0;
  }
  return check_sub(func, sub);
}

[[nodiscard]] int check_path(const char* func, uint32_t sub, const char* path, uint32_t path_len,
                             uint32_t max_len) {
  if (path == nullptr) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "efs_path is null");
    return TERVIK_NVEFS_ERR_PATH;
  }
  if (path_len == 0 || path_len > max_len) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "len invalid");
    return TERVIK_NVEFS_ERR_PATH_LEN;
  }
  return 0;
}

[[nodiscard]] int check_read_buffer(const char* func, uint32_t sub, const uint8_t* buf,
                                    const uint32_t* buf_len) {
  if (buf == nullptr) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "buf is null");
    return TERVIK_NVEFS_ERR_BUF;
  }
  if (buf_len == nullptr) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "p_buf_len is null");
    return TERVIK_NVEFS_ERR_BUF_LEN;
  }
  return 0;
}

[[nodiscard]] int check_write_buffer(const char* func, uint32_t sub, const uint8_t* buf,
                                     uint32_t len, uint32_t max_len) {
  if (buf == nullptr) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "buf is null");
    return TERVIK_NVEFS_ERR_BUF;
  }
  if (len == 0 || len > max_len) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "buf_len is invalid");
    return TERVIK_NVEFS_ERR_BUF_LEN;
  }
  return 0;
}

[[nodiscard]] int check_nv_id(const char* func, uint32_t sub, uint32_t nv_id) {
  if (nv_id <= TERVIK_NV_ID_MAX) {
    return 0;
  }
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "nv_id is out range(%d)", TERVIK_NV_ID_MAX);
  return TERVIK_NVEFS_ERR_NV_ID;
}

// The first failure of checks that were made in order.
template <typename... Checks>
[[nodiscard]] int first_failure(Checks... checks) {
  int result = 0;
  static_cast<void>((... || ((result = checks()) != 0)));
  return result;
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

// The outcome of an answer whose two results end the operation when they are not 0.
[[nodiscard]] int check_answer(const char* func, uint32_t sub, const nvefs_answer& answer) {
  const int rsp_result = answer.response.result;
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "result = %d, rsp.result = %d", answer.result,
                      rsp_result);
  if (answer.result != 0) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "tervik_extend_qmi_send_sync fail");
    return answer.result;
  }
  if (rsp_result != 0) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "qmi response fail");
  }
  return rsp_result;
}

// ---- EFS read ----

// The caller's buffer of an EFS read and how far it is filled.
struct efs_sink {
  uint8_t* buf;
  uint32_t capacity;
  uint32_t received;
  uint32_t* buf_len;
};

// Takes what fits of a chunk that does not leave room in the buffer.
void fill_up(const char* func, uint32_t sub, efs_sink& sink, const uint8_t* chunk) {
  *sink.buf_len = sink.capacity;
  if (sink.capacity > sink.received) {
    memcpy(sink.buf + sink.received, chunk, sink.capacity - sink.received);
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "abort, buf_len <= data_len_recv");
  } else {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "errro, abort, buf_len <= req.data_len_cur");
  }
}

// The file's length as the result of a read that did not fit. A length that would pass for success
// or for another failure is refused.
[[nodiscard]] int length_as_result(const char* func, uint32_t sub, uint32_t file_len) {
  if (file_len == 0 || file_len > INT32_MAX) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "data_len_all is invalid");
    return TERVIK_NVEFS_ERR_BUF_LEN;
  }
  return static_cast<int>(file_len);
}

[[nodiscard]] int read_chunks(const char* func, uint32_t sub, nvefs_request& request,
                              efs_sink& sink) {
  for (int read_count = 0;; ++read_count) {
    request.data_len_cur = sink.received;
    const nvefs_answer answer = exchange(func, sub, request);
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "result = %d, rsp.result = %d", answer.result,
                        answer.response.result);
    if (answer.result != 0) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "tervik_extend_qmi_send_sync fail, ABORT");
      return answer.result;
    }
    if (answer.response.result != 0) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "qmi response fail");
      return answer.response.result;
    }
    const uint32_t file_len = answer.response.data_len_all;
    tervik_log_print_as(
        func, LOG_CLASS_DEBUG, sub,
        "data_len_all = %d, data_len_send = %d, data_len_recv = %d, read_count = %d, "
        "data_len_cur = %d",
        file_len, answer.response.data_len_send, sink.received, read_count, request.data_len_cur);
    const uint32_t chunk_len = carried_length(answer, answer.response.data_len_send);
    if (chunk_len == 0) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "abort, data_len_send <= 0");
      return TERVIK_NVEFS_ERR_BUF_LEN;
    }
    if (sink.capacity <= sink.received + chunk_len) {
      fill_up(func, sub, sink, answer.response.data);
      return length_as_result(func, sub, file_len);
    }
    memcpy(sink.buf + sink.received, answer.response.data, chunk_len);
    sink.received += chunk_len;
    *sink.buf_len = sink.received;
    if (sink.received >= file_len || sink.received > EFS_RECEIVED_MAX ||
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
    if (answer.result != 0) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "tervik_extend_qmi_send_sync fail");
      return answer.result;
    }
    if (answer.response.result < 0) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "qmi response fail");
      return answer.response.result;
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
  int mapped = result;
  switch (result) {
    case TERVIK_EXTEND_INVALID_PARAM:
      mapped = TERVIK_NVEFS_ERR_INVALID_PARAM;
      break;
    case TERVIK_EXTEND_NO_CLIENT:
      mapped = TERVIK_NVEFS_ERR_NO_CLIENT;
      break;
    case TERVIK_EXTEND_SEND_FAILED:
      mapped = TERVIK_NVEFS_ERR_SEND;
      break;
    default:
      break;
  }
  tervik_log_debug("tervik_qmi_result_map, old_result %d, new_result %d", result, mapped);
  return mapped;
}

int tervik_nv_read(uint32_t sub, uint32_t nv_id, uint8_t* buf, uint32_t* buf_len) {
  const char* const func = __func__;
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_read, sub_id %d, nv_id: %d", sub, nv_id);
  int result = first_failure([&] { return check_nv_read_sub(func, sub, nv_id); },
                             [&] { return check_read_buffer(func, sub, buf, buf_len); },
                             [&] { return check_nv_id(func, sub, nv_id); });
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_request(NVEFS_NV_READ, sub);
  request.id = static_cast<uint16_t>(nv_id);
  const nvefs_answer answer = exchange(func, sub, request);
  result = check_answer(func, sub, answer);
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
  const char* const func = __func__;
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_write, sub_id %d, nv_id: %d, buf_len: %d", sub,
                   nv_id, len);
  const int result =
      first_failure([&] { return check_sub(func, sub); },
                    [&] { return check_write_buffer(func, sub, data, len, TERVIK_NV_DATA_MAX); },
                    [&] { return check_nv_id(func, sub, nv_id); });
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_request(NVEFS_NV_WRITE, sub);
  request.id = static_cast<uint16_t>(nv_id);
  request.data_len_all = len;
  memcpy(request.data, data, len);
  return check_answer(func, sub, exchange(func, sub, request));
}

int tervik_nv_delete(uint32_t sub, uint32_t nv_id) {
  const char* const func = __func__;
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_delete, sub_id %d, nv_id: %d", sub, nv_id);
  const int result = first_failure([&] { return check_sub(func, sub); },
                                   [&] { return check_nv_id(func, sub, nv_id); });
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_request(NVEFS_NV_DELETE, sub);
  request.id = static_cast<uint16_t>(nv_id);
  return check_answer(func, sub, exchange(func, sub, request));
}

int tervik_efs_read(uint32_t sub, const char* path, uint32_t path_len, uint8_t* buf,
                    uint32_t* buf_len) {
  const char* const func = __func__;
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_read, sub_id %d, path_len: %d", sub, path_len);
  const int result =
      first_failure([&] { return check_sub(func, sub); },
                    [&] { return check_path(func, sub, path, path_len, TERVIK_EFS_PATH_MAX); },
                    [&] { return check_read_buffer(func, sub, buf, buf_len); });
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_efs_request(func, NVEFS_EFS_READ, sub, path, path_len);
  efs_sink sink = {.buf = buf, .capacity = *buf_len, .received = 0, .buf_len = buf_len};
  return read_chunks(func, sub, request, sink);
}

int tervik_efs_write(uint32_t sub, const char* path, uint32_t path_len, const uint8_t* data,
                     uint32_t len) {
  const char* const func = __func__;
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_write, sub_id %d, path_len: %d, buf_len: %d",
                   sub, path_len, len);
  const int result =
      first_failure([&] { return check_sub(func, sub); },
                    [&] { return check_path(func, sub, path, path_len, TERVIK_EFS_PATH_MAX - 1); },
                    [&] { return check_write_buffer(func, sub, data, len, TERVIK_EFS_DATA_MAX); });
  if (result != 0) {
    return result;
  }
  nvefs_request request = make_efs_request(func, NVEFS_EFS_WRITE, sub, path, path_len);
  return write_chunks(func, sub, request, data, len);
}

int tervik_efs_delete(uint32_t sub, const char* path, uint32_t path_len) {
  const char* const func = __func__;
  const tervik_function_trace trace(TERVIK_LOG_PLACE, sub);
  const std::lock_guard lock(g_nvefs_mutex);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_delete, sub_id %d, path_len: %d", sub,
                   path_len);
  const int result =
      first_failure([&] { return check_sub(func, sub); },
                    [&] { return check_path(func, sub, path, path_len, TERVIK_EFS_PATH_MAX - 1); });
  if (result != 0) {
    return result;
  }
  const nvefs_request request = make_efs_request(func, NVEFS_EFS_DELETE, sub, path, path_len);
  return check_answer(func, sub, exchange(func, sub, request));
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
