#include "tervik_extend_nvefs.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <mutex>

#include "tervik_extend_api.h"
#include "tervik_utils_cmn.h"

namespace {

// ---- wire records: the payloads of request classes 1 and 2, and untrusted answers ----
//
// Little-endian; every byte that an operation does not set is zero.

enum nvefs_operation : uint8_t {
  NVEFS_NV_READ = 1,
  NVEFS_NV_WRITE = 2,
  NVEFS_NV_DELETE = 3,
  NVEFS_EFS_READ = 4,
  NVEFS_EFS_WRITE = 5,
  NVEFS_EFS_DELETE = 6,
};

struct nvefs_request {
  uint8_t operation;
  uint8_t sub;
  uint16_t id;  // NV operations: the item; EFS write: the transfer (ins_id)
  uint8_t path_len;
  char path[100];
  uint8_t unused_105[3];
  uint32_t data_len_all;   // NV write: the item's length; EFS write: the file's
  uint32_t data_len_send;  // EFS write: this chunk's length
  uint32_t data_len_cur;   // EFS read and write: this chunk's offset in the file
  uint8_t data[424];
};
static_assert(sizeof(nvefs_request) == 544);
static_assert(offsetof(nvefs_request, id) == 2);
static_assert(offsetof(nvefs_request, path_len) == 4);
static_assert(offsetof(nvefs_request, path) == 5);
static_assert(offsetof(nvefs_request, data_len_all) == 0x6C);
static_assert(offsetof(nvefs_request, data_len_send) == 0x70);
static_assert(offsetof(nvefs_request, data_len_cur) == 0x74);
static_assert(offsetof(nvefs_request, data) == 0x78);

struct nvefs_response {
  uint8_t unused_0[2];
  uint16_t ins_id;         // EFS write: the transfer identifier for the next chunk
  uint32_t data_len_all;   // NV read: the item's length; EFS read: the file's
  uint32_t data_len_send;  // EFS read: this chunk's length
  uint8_t unused_12[4];
  int32_t result;
  uint8_t data[424];
};
static_assert(sizeof(nvefs_response) == 444);
static_assert(offsetof(nvefs_response, ins_id) == 2);
static_assert(offsetof(nvefs_response, data_len_all) == 4);
static_assert(offsetof(nvefs_response, data_len_send) == 8);
static_assert(offsetof(nvefs_response, result) == 16);
static_assert(offsetof(nvefs_response, data) == 20);

struct nv_item_request {
  uint32_t always_1;
  uint32_t nv_id;
  uint32_t sub;
  uint8_t unused_12[416];
};
static_assert(sizeof(nv_item_request) == 428);

struct nv_item_response {
  uint32_t unused_0;
  int32_t status;
  uint32_t unused_8[2];
  uint32_t data_len;
  uint8_t data[412];
};
static_assert(sizeof(nv_item_response) == 432);
static_assert(offsetof(nv_item_response, status) == 4);
static_assert(offsetof(nv_item_response, data_len) == 16);
static_assert(offsetof(nv_item_response, data) == 20);

// ---- one operation ----

constexpr uint32_t EFS_WRITE_CHUNK_MAX = 414;
constexpr uint16_t EFS_FIRST_CHUNK_INS_ID = 255;
constexpr int EFS_CHUNK_COUNT_MAX = 300;
constexpr uint32_t EFS_RECEIVED_MAX = 102409;
constexpr uint32_t NV_ID_OF_ANY_SUB = 550;

// Held over whole operations; taken before the client's own lock.
std::mutex g_nvefs_mutex;

// What an operation takes besides the subscription; 0 where it takes nothing of the kind.
struct operation_limits {
  uint32_t path_max;  // 0: an NV item
  uint32_t write_max;
  bool reads;
};

// By operation, from 1.
constexpr std::array<operation_limits, NVEFS_EFS_DELETE> LIMITS = {{
    {.path_max = 0, .write_max = 0, .reads = true},
    {.path_max = 0, .write_max = TERVIK_NV_DATA_MAX, .reads = false},
    {.path_max = 0, .write_max = 0, .reads = false},
    {.path_max = TERVIK_EFS_PATH_MAX, .write_max = 0, .reads = true},
    {.path_max = TERVIK_EFS_PATH_MAX - 1, .write_max = TERVIK_EFS_DATA_MAX, .reads = false},
    {.path_max = TERVIK_EFS_PATH_MAX - 1, .write_max = 0, .reads = false},
}};

// The caller's arguments, as far as the operation takes them.
struct operation_arguments {
  uint32_t nv_id = 0;
  const char* path = nullptr;
  uint32_t path_len = 0;
  const uint8_t* buf = nullptr;
  const uint32_t* read_len = nullptr;
  uint32_t write_len = 0;
};

// One operation, in the name of the function that it belongs to: its request, and what came back.
struct nvefs_call {
  nvefs_call(const tervik_log_place& place, uint32_t sub_id)
      : func(place.func), sub(sub_id), trace(place, sub_id), lock(g_nvefs_mutex) {}

  const char* const func;
  const uint32_t sub;
  const tervik_function_trace trace;
  const std::lock_guard<std::mutex> lock;
  nvefs_request request = {};
  nvefs_response response = {};
  uint32_t data_carried = 0;  // bytes of response.data that the answer really has

  [[nodiscard]] int prepare(nvefs_operation operation, const operation_arguments& args);
  [[nodiscard]] int send();
  [[nodiscard]] int read_chunks(uint8_t* buf, uint32_t* buf_len);
  [[nodiscard]] int fill_up(uint8_t* buf, uint32_t received, uint32_t capacity) const;
  [[nodiscard]] int write_chunks(const uint8_t* data, uint32_t len);

  // A length that the modem claims, cut to what its answer carries.
  uint32_t carried(uint32_t claimed) const { return std::min(claimed, data_carried); }
};

// Checks the arguments in the order of their codes and begins the request. The code of the first
// wrong one, with its reason in the log; 0 when none is.
int nvefs_call::prepare(nvefs_operation operation, const operation_arguments& args) {
  const operation_limits& limits = LIMITS[operation - 1];
  const bool efs = limits.path_max != 0;
  const bool writes = limits.write_max != 0;
  // One item can be read from a third subscription too.
  const bool any_sub = operation == NVEFS_NV_READ && sub == 2 && args.nv_id == NV_ID_OF_ANY_SUB;
  if (any_sub) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "sub cust case for tt");
  }
  const auto wrong_len = [](uint32_t len, uint32_t max) { return len == 0 || len > max; };
  static_assert(TERVIK_NV_ID_MAX == 7232);
  const struct {
    const char* reason;
    int code;
    bool failed;
  } checks[] = {
      {"sub invalid", TERVIK_NVEFS_ERR_SUB, !any_sub && !tervik_check_sub_id(sub)},
      {"efs_path is null", TERVIK_NVEFS_ERR_PATH, efs && args.path == nullptr},
      {"len invalid", TERVIK_NVEFS_ERR_PATH_LEN, efs && wrong_len(args.path_len, limits.path_max)},
      {"buf is null", TERVIK_NVEFS_ERR_BUF, (limits.reads || writes) && args.buf == nullptr},
      {"p_buf_len is null", TERVIK_NVEFS_ERR_BUF_LEN, limits.reads && args.read_len == nullptr},
      {"buf_len is invalid", TERVIK_NVEFS_ERR_BUF_LEN,
       writes && wrong_len(args.write_len, limits.write_max)},
      {"nv_id is out range(7232)", TERVIK_NVEFS_ERR_NV_ID, !efs && args.nv_id > TERVIK_NV_ID_MAX},
  };
  for (const auto& check : checks) {
    if (check.failed) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "%s", check.reason);
      return check.code;
    }
  }
  request.operation = operation;
  request.sub = static_cast<uint8_t>(sub);
  request.id = static_cast<uint16_t>(args.nv_id);
  if (efs) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "path_value: %.*s",
                        static_cast<int>(args.path_len), args.path);
    request.path_len = static_cast<uint8_t>(args.path_len);
    memcpy(request.path, args.path, args.path_len);
  }
  return 0;
}

// Sends the request and returns what failed, the send or the modem; 0 when nothing did. An answer
// too short to hold its result counts as a failed send. The modem's numbers above 0 are no failure
// where an EFS file is written.
int nvefs_call::send() {
  response = {};
  int rsp_len = sizeof(response);
  int result = tervik_qmi_result_map(tervik_extend_qmi_send_sync(
      REQUEST_ID_EFS, reinterpret_cast<const uint8_t*>(&request), sizeof(request),
      reinterpret_cast<uint8_t*>(&response), &rsp_len));
  constexpr int HEADER_LEN = offsetof(nvefs_response, data);
  if (result == 0 && rsp_len < HEADER_LEN) {
    tervik_log_print_as(func, LOG_CLASS_ERROR, sub, "qmi response of %d bytes is too short",
                        rsp_len);
    result = TERVIK_NVEFS_ERR_SEND;
  }
  const bool writes_file = request.operation == NVEFS_EFS_WRITE;
  if (writes_file) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "result = %d, rsp.result = %d, ins_id = %d",
                        result, response.result, response.ins_id);
  } else {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "result = %d, rsp.result = %d", result,
                        response.result);
  }
  if (result != 0) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "tervik_extend_qmi_send_sync fail%s",
                        request.operation == NVEFS_EFS_READ ? ", ABORT" : "");
    return result;
  }
  data_carried = static_cast<uint32_t>(rsp_len - HEADER_LEN);
  if (response.result == 0 || (response.result > 0 && writes_file)) {
    return 0;
  }
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "qmi response fail");
  return response.result;
}

int nvefs_call::read_chunks(uint8_t* buf, uint32_t* buf_len) {
  const uint32_t capacity = *buf_len;
  uint32_t received = 0;
  for (int read_count = 0;; ++read_count) {
    request.data_len_cur = received;
    const int failed = send();
    if (failed != 0) {
      return failed;
    }
    tervik_log_print_as(
        func, LOG_CLASS_DEBUG, sub,
        "data_len_all = %d, data_len_send = %d, data_len_recv = %d, read_count = %d, "
        "data_len_cur = %d",
        response.data_len_all, response.data_len_send, received, read_count, request.data_len_cur);
    const uint32_t chunk_len = carried(response.data_len_send);
    if (chunk_len == 0) {
      tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "abort, data_len_send <= 0");
      return TERVIK_NVEFS_ERR_BUF_LEN;
    }
    if (capacity <= received + chunk_len) {
      *buf_len = capacity;
      return fill_up(buf, received, capacity);
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

// Ends a read whose chunk does not leave room in the buffer: takes what fits, and returns the
// file's length. A length that would pass for success or for another failure is refused.
int nvefs_call::fill_up(uint8_t* buf, uint32_t received, uint32_t capacity) const {
  memcpy(buf + received, response.data, capacity - received);
  tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "%s",
                      capacity > received ? "abort, buf_len <= data_len_recv"
                                          : "errro, abort, buf_len <= req.data_len_cur");
  if (response.data_len_all == 0 || response.data_len_all > INT32_MAX) {
    tervik_log_print_as(func, LOG_CLASS_DEBUG, sub, "data_len_all is invalid");
    return TERVIK_NVEFS_ERR_BUF_LEN;
  }
  return static_cast<int>(response.data_len_all);
}

int nvefs_call::write_chunks(const uint8_t* data, uint32_t len) {
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
    const int failed = send();
    if (failed != 0) {
      return failed;
    }
    request.id = response.ins_id;
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
  nvefs_call call(TERVIK_LOG_PLACE, sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_read, sub_id %d, nv_id: %d", sub, nv_id);
  int result = call.prepare(NVEFS_NV_READ, {.nv_id = nv_id, .buf = buf, .read_len = buf_len});
  if (result == 0) {
    result = call.send();
  }
  if (result != 0) {
    return result;
  }
  tervik_log_print(LOG_CLASS_DEBUG, sub, "rsp.data_len_all = %d", call.response.data_len_all);
  const uint32_t item_len = call.carried(call.response.data_len_all);
  if (item_len == 0) {
    tervik_log_print(LOG_CLASS_DEBUG, sub, "rsp.data_len_all is invalid");
    return TERVIK_NVEFS_ERR_BUF_LEN;
  }
  *buf_len = std::min(*buf_len, item_len);
  memcpy(buf, call.response.data, *buf_len);
  return 0;
}

int tervik_nv_write_ex(uint32_t sub, uint32_t nv_id, const uint8_t* data, uint32_t len) {
  nvefs_call call(TERVIK_LOG_PLACE, sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_write, sub_id %d, nv_id: %d, buf_len: %d", sub,
                   nv_id, len);
  const int result = call.prepare(NVEFS_NV_WRITE, {.nv_id = nv_id, .buf = data, .write_len = len});
  if (result != 0) {
    return result;
  }
  call.request.data_len_all = len;
  memcpy(call.request.data, data, len);
  return call.send();
}

int tervik_nv_delete(uint32_t sub, uint32_t nv_id) {
  nvefs_call call(TERVIK_LOG_PLACE, sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_nv_delete, sub_id %d, nv_id: %d", sub, nv_id);
  const int result = call.prepare(NVEFS_NV_DELETE, {.nv_id = nv_id});
  return result != 0 ? result : call.send();
}

int tervik_efs_read(uint32_t sub, const char* path, uint32_t path_len, uint8_t* buf,
                    uint32_t* buf_len) {
  nvefs_call call(TERVIK_LOG_PLACE, sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_read, sub_id %d, path_len: %d", sub, path_len);
  const int result = call.prepare(
      NVEFS_EFS_READ, {.path = path, .path_len = path_len, .buf = buf, .read_len = buf_len});
  return result != 0 ? result : call.read_chunks(buf, buf_len);
}

int tervik_efs_write(uint32_t sub, const char* path, uint32_t path_len, const uint8_t* data,
                     uint32_t len) {
  nvefs_call call(TERVIK_LOG_PLACE, sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_write, sub_id %d, path_len: %d, buf_len: %d",
                   sub, path_len, len);
  const int result = call.prepare(
      NVEFS_EFS_WRITE, {.path = path, .path_len = path_len, .buf = data, .write_len = len});
  return result != 0 ? result : call.write_chunks(data, len);
}

int tervik_efs_delete(uint32_t sub, const char* path, uint32_t path_len) {
  nvefs_call call(TERVIK_LOG_PLACE, sub);
  tervik_log_print(LOG_CLASS_DEBUG, sub, "tervik_efs_delete, sub_id %d, path_len: %d", sub,
                   path_len);
  const int result = call.prepare(NVEFS_EFS_DELETE, {.path = path, .path_len = path_len});
  return result != 0 ? result : call.send();
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
