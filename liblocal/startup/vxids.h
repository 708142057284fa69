// The user and group ids that the process was started with, and the switch between the
// rights of its user and those of a set-user-id start.
//
// Thread safety: the first call, in _vxinit, records the ids; from then on they are only
// read. The switches change the whole process.
#pragma once

#include <sys/types.h>

/// Stores the ids at the start of the process; each pointer may be null.
void get_saved_uids(uid_t* real, uid_t* effective);
void get_saved_gids(gid_t* real, gid_t* effective);

/// Gives up the rights that a set-user-id start lent: makes the real user the effective one
/// and root the real one, from which set_privileged returns. That works where root is the
/// owner of the program or its user. For any other owner the system refuses it, which is
/// not reported: the ids stay as they were. The rights of a set-group-id start stay, too.
void set_nonprivileged();

/// Makes root the effective user again, when the process was started with that and with
/// another real user.
void set_privileged();

/// Lets set_nonprivileged change the ids, as it does from the start, or not when `on` is 0.
void set_vxinit_uid_flag(int on);

/// Makes both switches show the ids in debug lines, or not when `on` is 0, as at the start:
/// before the change with `Debug` above 0, after it with `Debug` of 0 or more.
void _vx_print_uids(int on);
