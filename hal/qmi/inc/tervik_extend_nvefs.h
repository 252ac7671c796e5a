// NV items and EFS files of the modem: read, write, delete, for one subscription, over the
// extension client. One operation at a time: a mutex of this module is held for the whole of it,
// every chunk of a long file included. Any thread. Lengths and chunks in the modem's answers are
// untrusted: they are cut to what the answer carries and to the caller's buffer.
#pragma once

#include <cstdint>

// Results of all operations, besides 0 and the modem's own rsp.result.
inline constexpr int TERVIK_NVEFS_ERR_INVALID_PARAM = -101;  // of the client: -1
inline constexpr int TERVIK_NVEFS_ERR_NO_CLIENT = -102;      // of the client: -2
inline constexpr int TERVIK_NVEFS_ERR_SEND = -103;           // of the client: -3
inline constexpr int TERVIK_NVEFS_ERR_SUB = -104;
inline constexpr int TERVIK_NVEFS_ERR_PATH = -105;
inline constexpr int TERVIK_NVEFS_ERR_PATH_LEN = -106;
inline constexpr int TERVIK_NVEFS_ERR_BUF = -107;
inline constexpr int TERVIK_NVEFS_ERR_BUF_LEN = -108;
inline constexpr int TERVIK_NVEFS_ERR_NV_ID = -109;

// Result of tervik_extend_nv_read_item when the caller's buffer was smaller than the item.
inline constexpr int TERVIK_NV_ITEM_CUT = 0x0FFFF001;

inline constexpr uint32_t TERVIK_NV_ID_MAX = 7232;
inline constexpr uint32_t TERVIK_NV_DATA_MAX = 424;
inline constexpr uint32_t TERVIK_EFS_PATH_MAX = 100;  // read; write and delete take one byte less
inline constexpr uint32_t TERVIK_EFS_DATA_MAX = 102410;

// Maps the extension client's -1, -2, -3 to -101, -102, -103; any other value passes through.
[[nodiscard]] int tervik_qmi_result_map(int result);

// Reads NV item `nv_id` (0 to 7232). `*buf_len` is the capacity of `buf`, then the bytes stored.
[[nodiscard]] int tervik_nv_read(uint32_t sub, uint32_t nv_id, uint8_t* buf, uint32_t* buf_len);
// Writes an NV item of 1 to 424 bytes.
[[nodiscard]] int tervik_nv_write_ex(uint32_t sub, uint32_t nv_id, const uint8_t* data,
                                     uint32_t len);
[[nodiscard]] int tervik_nv_delete(uint32_t sub, uint32_t nv_id);

// Reads the EFS file whose path is the `path_len` bytes (1 to 100) at `path`. `*buf_len` is the
// capacity of `buf`, then the bytes stored. A file that does not leave room in the buffer fills it
// and its length is the (positive) result.
[[nodiscard]] int tervik_efs_read(uint32_t sub, const char* path, uint32_t path_len, uint8_t* buf,
                                  uint32_t* buf_len);
// Writes an EFS file of 1 to 102410 bytes; path of 1 to 99 bytes.
[[nodiscard]] int tervik_efs_write(uint32_t sub, const char* path, uint32_t path_len,
                                   const uint8_t* data, uint32_t len);
[[nodiscard]] int tervik_efs_delete(uint32_t sub, const char* path, uint32_t path_len);

// Reads an NV item through request class 1, for the eSIM test; tervik_nv_read uses class 2. `buf`
// and `buf_len` are not null; `*buf_len` is the capacity, then the bytes stored (at most 412); 0 is
// stored on failure. Returns 0, TERVIK_NV_ITEM_CUT, the client's result or the modem's status word.
[[nodiscard]] int tervik_extend_nv_read_item(uint32_t nv_id, uint32_t sub, uint8_t* buf,
                                             uint32_t* buf_len);
