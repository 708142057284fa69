#include "liblocal/startup/vxids.h"

#include <unistd.h>

#include "liblocal/messages/debug.h"

namespace {

constexpr uid_t kNotCaptured = static_cast<uid_t>(-1);
constexpr uid_t kUnchanged = static_cast<uid_t>(-1);
constexpr uid_t kRoot = 0;

struct Ids {
  uid_t real_user = kNotCaptured;
  uid_t effective_user = kNotCaptured;
  gid_t real_group = kNotCaptured;
  gid_t effective_group = kNotCaptured;
};

Ids saved;
bool drop_uid = true;
bool print_uids;

const Ids& saved_ids() {
  if (saved.real_user == kNotCaptured) saved = {getuid(), geteuid(), getgid(), getegid()};
  return saved;
}

void trace_before(const char* operation) {
  if (!print_uids || Debug <= 0) return;
  debugprintf("%s: saved uid %d euid %d, current uid %d euid %d\n", operation,
              static_cast<int>(saved.real_user), static_cast<int>(saved.effective_user),
              static_cast<int>(getuid()), static_cast<int>(geteuid()));
}

void trace_after(const char* operation) {
  if (!print_uids || Debug < 0) return;
  debugprintf("%s: new uid %d euid %d\n", operation, static_cast<int>(getuid()),
              static_cast<int>(geteuid()));
}

template <typename Id>
void store(Id* where, Id id) {
  if (where != nullptr) *where = id;
}

}  // namespace

void get_saved_uids(uid_t* real, uid_t* effective) {
  store(real, saved_ids().real_user);
  store(effective, saved_ids().effective_user);
}

void get_saved_gids(gid_t* real, gid_t* effective) {
  store(real, saved_ids().real_group);
  store(effective, saved_ids().effective_group);
}

void set_nonprivileged() {
  const Ids& ids = saved_ids();
  trace_before("set_nonprivileged");
  if (!drop_uid || ids.real_user == ids.effective_user) return;
  [[maybe_unused]] int result = setreuid(kRoot, ids.real_user);  // a failure is not reported
  trace_after("set_nonprivileged");
}

void set_privileged() {
  const Ids& ids = saved_ids();
  trace_before("set_privileged");
  if (ids.real_user == ids.effective_user || ids.effective_user != kRoot) return;
  [[maybe_unused]] int result = setreuid(kUnchanged, kRoot);
  trace_after("set_privileged");
}

void set_vxinit_uid_flag(int on) { drop_uid = on != 0; }

void _vx_print_uids(int on) { print_uids = on != 0; }
