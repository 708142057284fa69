// The table of error types: what each kind of error is called, its texts and how
// severe each of its codes is. The error records (errinfo.h) draw on it.
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

constexpr const char* kErrDefaultText = "Unknown error";  // of what no table covers

constexpr int32_t kErrTypeSlots = 11;     // slots 0 to 10; records know the types 1 to 10
constexpr size_t kErrTypeNameSize = 132;  // terminator included
constexpr int32_t kRpcErrorCodes = 28;    // RPC call status codes 0 to 27

/// One type. `texts` and `severities` have `max_code` + 1 elements each.
struct err_type {
  std::atomic<int32_t> max_code;  // 0: the slot is unused
  char name[kErrTypeNameSize];
  const char* const* texts;
  const int32_t* severities;
};

/// The texts of the RPC call status codes; null until init_rpc_errlist has built
/// them. The RPC runtime reads them too.
extern char* rpc_errlist[kRpcErrorCodes];

/// Builds `rpc_errlist`, on its first call only. Thread safe.
void init_rpc_errlist();

/// Registers `type` (0 to 10; any other number is ignored) with codes up to
/// `max_code`. The name is copied, cut to 131 characters; the arrays, of
/// `max_code` + 1 elements, are not and must outlive the process's last error.
/// A type that is registered already is replaced.
///
/// Not thread safe: call it before a second thread exists. A built-in type is
/// replaced only after the first err_setall, which registers them.
void err_settype(int32_t type, int32_t max_code, const char* name, const char* const* texts,
                 const int32_t* severities);

/// Registers the built-in types, on its first call only. Thread safe.
void err_tables_init();

/// The type, when `type` is 1 to 10 and its slot is used; else null. Thread safe.
[[nodiscard]] const err_type* err_type_of(int32_t type);

/// Frees the texts that the tables took from the catalog; from then on they have the
/// default texts. Only for the end of the process: no thread may use the tables
/// meanwhile, nor afterwards a record that was set before.
void err_unsetall();
