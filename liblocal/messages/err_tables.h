// The table of error types: the name of each type, and the text and severity of each of
// its codes. The error records (errinfo.h) use it.
//
// The built-in types (1 SYSTEM, 2 RPC, 3 RAP, 4 WISS, 5 Vaultmere, 6 Jukebox,
// 7 File index, 8 Media DB, 9 Jobs) are registered once per process, on first
// use, and read without a lock from then on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

constexpr int32_t kErrTypeSystem = 1;
constexpr int32_t kErrTypeRpc = 2;
constexpr int32_t kErrTypeRap = 3;
constexpr int32_t kErrTypeJobs = 9;

/// The text of an error that no table has.
constexpr const char* kErrDefaultText = "Unknown error";

constexpr int32_t kErrTypeSlots = 11;     //!< Slots 0 to 10. Records use the types 1 to 10.
constexpr size_t kErrTypeNameSize = 132;  //!< Bytes of a name, terminator included.
constexpr int32_t kRpcErrorCodes = 28;    //!< RPC call status codes 0 to 27.

/// One type. `texts` and `severities` have `max_code` + 1 elements each.
struct err_type {
  std::atomic<int32_t> max_code;  //!< 0: the slot is unused.
  char name[kErrTypeNameSize];
  const char* const* texts;
  const int32_t* severities;
};

/// The texts of the RPC call status codes, for the RPC runtime, too. Null until
/// init_rpc_errlist.
extern char* rpc_errlist[kRpcErrorCodes];

/// Builds `rpc_errlist`, on its first call only. Thread safe.
void init_rpc_errlist();

/// Registers `type` (0 to 10; any other number is ignored) with codes up to `max_code`, or
/// replaces it. The name is copied, cut to 131 characters. The arrays, of `max_code` + 1
/// elements, are not copied and must last until the process's last error.
///
/// Not thread safe: call it before a second thread exists. To replace a built-in type call
/// it after the first err_setall, which registers those.
void err_settype(int32_t type, int32_t max_code, const char* name, const char* const* texts,
                 const int32_t* severities);

/// Registers the built-in types, on its first call only. Thread safe.
void err_tables_init();

/// The type, when `type` is 1 to 10 and its slot is used; else null. Thread safe.
[[nodiscard]] const err_type* err_type_of(int32_t type);

/// Frees the copied catalog texts and puts the default texts into the tables. Only for the
/// end of the process: no thread may use the tables meanwhile, nor afterwards a record that
/// was set before.
void err_unsetall();
