// The variable blocks of the runtime library itself (varp.h), the release of its process-wide
// state, and the end of the process.
#pragma once

#include <grp.h>
#include <netdb.h>
#include <pwd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "liblocal/base/text_sizes.h"
#include "liblocal/base/varp.h"

constexpr size_t kDatabaseTextSize = 1024;    //!< bytes of one database entry's texts
constexpr size_t kHostByNameTextSize = 8192;  //!< bytes of one host's names and addresses
constexpr size_t kTimeTextSize = 26;          //!< bytes of a time as text

/// An error record: type * 10000 + severity * 1000 + code, and the message.
struct vx_error_record {
  int32_t number;
  const char* text;  //!< owned only where a record's place says so
};

/// A growing buffer from the C allocators.
struct vx_text_buffer {
  char* text;
  size_t size;
};

/// What the runtime keeps for each thread, zeroed at first. Members that are owned are freed
/// with the block.
struct liblocal_t_varp {
  char strerror_text[kErrorTextSize];  //!< brix_strerror
  vx_error_record saved_error;         //!< err_save; its text is owned
  vx_error_record current_error;       //!< err_set, err_setall, err_setstr, err_dup
  char* accrued_text;                  //!< err_accrue; owned
  int32_t accruing;                    //!< 1 while printerr hands its messages to err_accrue
  char* message;                       //!< err_setstr: kMessageSize bytes; owned
  vx_text_buffer utf8_encoded;         //!< utf8encode; owned
  vx_text_buffer utf8_decoded;         //!< utf8decode; owned
  vx_text_buffer utf8_path;            //!< the last path in the locale's codeset; owned
  uint32_t random_seed;                //!< vx_ts_rand; 0 until seeded
  char asctime_text[kTimeTextSize];
  char ctime_text[kTimeTextSize];
  group grgid_entry;
  char grgid_text[kDatabaseTextSize];
  char hostbyaddr_text[kDatabaseTextSize];
  char hostbyname_text[kHostByNameTextSize];
  char hostent_text[kDatabaseTextSize];
  char protobyname_text[kDatabaseTextSize];
  char servbyname_text[kDatabaseTextSize];
  char servbyport_text[kDatabaseTextSize];
  char servent_text[kDatabaseTextSize];
  hostent hostbyaddr_entry;
  hostent hostbyname_entry;
  hostent hostent_entry;
  int hostbyaddr_error;
  int hostbyname_error;
  int hostent_error;
  protoent protobyname_entry;
  passwd pwnam_entry;
  char pwnam_text[kDatabaseTextSize];
  passwd pwuid_entry;
  char pwuid_text[kDatabaseTextSize];
  servent servbyname_entry;
  servent servbyport_entry;
  servent servent_entry;
  tm gmtime_fields;
  tm localtime_fields;
};

/// What the runtime keeps for the process.
struct liblocal_p_varp {
  std::atomic<int32_t> shutdown_stdio;  //!< 1: the standard streams are shut down at exit
};

VARP_DECLARE_THREAD_BLOCK(liblocal)
VARP_DECLARE_PROCESS_BLOCK(liblocal)

/// Has `release` called whenever a process block is released; a function that was added before
/// is not added again. A service calls it before it makes process-wide state, and before it
/// takes a lock that `release` takes. There is room for 8 functions. Thread safe.
void liblocal_add_release(void (*release)());

/// When the shutdown flag of `block` (null: the runtime's process block) is set: clears it,
/// flushes standard output and standard error and closes their descriptors. Thread safe: only
/// one of several callers does it.
void vx_shutdown_stdio(liblocal_p_varp* block);

/// vx_shutdown_stdio of the process block, then exit with `status`.
[[noreturn]] void vx_exit(int status);
