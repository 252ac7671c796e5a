// Wire records of the NV and EFS requests: the payloads of request classes 1 and 2 of the
// extension service. Little-endian; every byte that an operation does not set is zero. Records of
// answers hold untrusted bytes.
#pragma once

#include <cstddef>
#include <cstdint>

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
