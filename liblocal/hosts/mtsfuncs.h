// Thread-safe look-ups ("mts": multi-thread safe): the resolver, the service, protocol, user and
// group databases, the time conversions and random numbers.
//
// Each wrapper keeps its result in the calling thread's block (liblvarp.h), in a place of its
// own; the result is valid until the same thread calls the same wrapper again. Null means not
// found, or longer than the wrapper's room: 8192 bytes of names and addresses for
// vx_ts_gethostbyname, 1024 for the other entries. A null name or address is found nowhere.
// Arguments may be part of an earlier result of the same wrapper. No wrapper holds a lock; all
// may be called from any thread.
#pragma once

#include <grp.h>
#include <netdb.h>
#include <pwd.h>

#include <cstdint>
#include <ctime>

/// Resolves `name` (leading white space is skipped) to its IPv4 addresses.
[[nodiscard]] hostent* vx_ts_gethostbyname(const char* name);

/// The host of `address`, `length` bytes of the address family `type`.
[[nodiscard]] hostent* vx_ts_gethostbyaddr(const void* address, socklen_t length, int type);

/// The next entry of the hosts. The position belongs to the process: threads that walk at the
/// same time share one walk.
[[nodiscard]] hostent* vx_ts_gethostent();
/// The next entry of the services, as vx_ts_gethostent.
[[nodiscard]] servent* vx_ts_getservent();

/// The protocol `name`.
[[nodiscard]] protoent* vx_ts_getprotobyname(const char* name);

/// The service `name` of `protocol` ("udp", "tcp"; null: any).
[[nodiscard]] servent* vx_ts_getservbyname(const char* name, const char* protocol);
/// The service of `port` (network byte order) and `protocol` (null: any).
[[nodiscard]] servent* vx_ts_getservbyport(int port, const char* protocol);

/// The account `name`.
[[nodiscard]] passwd* vx_ts_getpwnam(const char* name);
/// The account of the user id `user`.
[[nodiscard]] passwd* vx_ts_getpwuid(uid_t user);
/// The group of the id `group_id`.
[[nodiscard]] group* vx_ts_getgrgid(gid_t group_id);

/// `fields` (not null) as a text of 25 characters; null for a year that does not fit.
[[nodiscard]] char* vx_ts_asctime(const tm* fields);
/// `time` (not null) in local time, as vx_ts_asctime.
[[nodiscard]] char* vx_ts_ctime(const time_t* time);
/// The fields of `time` (not null) in UTC; null for a year that does not fit.
[[nodiscard]] tm* vx_ts_gmtime(const time_t* time);
/// The fields of `time` (not null) in local time; null for a year that does not fit.
[[nodiscard]] tm* vx_ts_localtime(const time_t* time);

/// Seeds the calling thread's random numbers, and the process-wide `rand`, from the
/// time, the process id, `extra` (0: none) and the thread's seed until now.
void vx_ts_srand(uint32_t extra);

/// The next of the calling thread's random numbers, 0 to 0x7fffffff. A thread that was
/// not seeded is first, with vx_ts_srand(0). Not for secrets.
[[nodiscard]] int vx_ts_rand();
