// The user and group ids that the process was started with, and the switch between
// the rights of its user and those of a set-user-id start.
//
// Thread safety: the ids are captured by the first call, which happens in _vxinit;
// from then on they are only read. The switches change the whole process.
#pragma once

#include <sys/types.h>

/// Stores the ids at the start of the process; each pointer may be null.
void get_saved_uids(uid_t* real, uid_t* effective);
void get_saved_gids(gid_t* real, gid_t* effective);

/// Takes the rights of the real user for effective ones, when the process was
/// started with others: a program installed set-user-id root keeps a real id of 0,
/// from which set_privileged returns. A failure is not reported; the ids are then as
/// they were.
void set_nonprivileged();

/// Takes the effective user id 0 back, when the process was started with it and
/// with another real id.
void set_privileged();

/// 0 makes set_nonprivileged leave the ids alone; any other value, the initial
/// state, lets it change them.
void set_vxinit_uid_flag(int on);

/// 1 makes both switches tell the ids in debug lines: before the change with `Debug`
/// above 0, after it with `Debug` of 0 or more. 0 at the start.
void _vx_print_uids(int on);
