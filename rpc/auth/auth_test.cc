// The authentication flavours none and system.
#include "rpc/auth/auth.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "rpc/auth/a_none.h"
#include "rpc/auth/a_unix.h"
#include "rpc/auth/auth_choice.h"
#include "rpc/messages/rpc_prot.h"
#include "tests/threads.h"
#include "tests/xdr_streams.h"

namespace {

struct Destroyer {
  void operator()(AUTH* auth) const { auth->ops->destroy(auth); }
};
using Auth = std::unique_ptr<AUTH, Destroyer>;

std::string marshalled(AUTH* auth) {
  TestStream out(std::string(1000, 'x'), xdr_op::kEncode);
  EXPECT_TRUE(auth->ops->marshal(auth, out.get()));
  return out.hex();
}

Auth system_auth() {
  const gid_t groups[] = {7, 8};
  return Auth(__brix_authsys_create("box", 0xFFFFFFFE, 5, 2, groups));
}

// What system_auth marshals, without its time stamp (bytes 8 to 11).
std::string without_time(std::string hex) { return hex.replace(16, 8, "TTTTTTTT"); }
const std::string kFull =
    "0000000100000020TTTTTTTT00000003626F7800FFFFFFFE00000005000000020000000700000008"
    "0000000000000000";

bool validate(AUTH* auth, int32_t flavour, const char* hex) {
  std::string body = from_hex(hex);
  opaque_auth verifier = {flavour, reinterpret_cast<uint8_t*>(body.data()),
                          static_cast<uint32_t>(body.size())};
  return auth->ops->validate(auth, &verifier);
}

TEST(AuthNone, IsOneForAll) {
  AUTH* auth = auth_create_default();
  in_threads(4, [auth](int) {
    EXPECT_EQ(__brix_authnone_create(), auth);
    EXPECT_EQ(marshalled(auth), std::string(32, '0'));
  });
  auth->ops->destroy(auth);
  EXPECT_EQ(marshalled(auth), std::string(32, '0')) << "it stays for others";
}

TEST(AuthSystem, SendsItsParameters) {
  time_t before = time(nullptr);
  Auth auth = system_auth();
  std::string hex = marshalled(auth.get());
  EXPECT_EQ(without_time(hex), kFull);
  EXPECT_GE(std::stoll(hex.substr(16, 8), nullptr, 16), before);
  EXPECT_LE(std::stoll(hex.substr(16, 8), nullptr, 16), time(nullptr));
}

TEST(AuthSystem, BoundsItsParameters) {
  const gid_t groups[18] = {};
  for (auto [name, count, made] :
       {std::tuple{255U, 17U, true}, {256U, 0U, false}, {0U, 18U, false}}) {
    Auth auth(__brix_authsys_create(std::string(name, 'n').c_str(), 0, 0, count, groups));
    EXPECT_EQ(auth != nullptr, made) << name << " " << count;
  }
  for (int granted = 0;; ++granted) {
    FailingMalloc failing(granted);
    errno = 0;
    Auth auth(system_auth());
    ASSERT_EQ(auth == nullptr, failing.failed());
    if (auth != nullptr) break;
    EXPECT_EQ(errno, ENOMEM);
  }
}

TEST(AuthSystem, TakesAShortCredentialUntilItIsRefused) {
  Auth auth = system_auth();
  AUTH* handle = auth.get();
  const char kShort[] = "00000002 00000003 41424300";
  EXPECT_TRUE(validate(handle, kAuthNone, kShort));
  EXPECT_EQ(without_time(marshalled(handle)), kFull);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(validate(handle, kAuthShort, kShort));
  EXPECT_EQ(marshalled(handle), "0000000200000003414243000000000000000000");
  EXPECT_TRUE(handle->ops->refresh(handle));
  EXPECT_EQ(without_time(marshalled(handle)), kFull);
  EXPECT_FALSE(handle->ops->refresh(handle));
  // One that does not decode is dropped, as is the one before it.
  for (const char* broken : {"", "00000002", "00000002 00000003 4142", "00000002 00007FE9"}) {
    EXPECT_TRUE(validate(handle, kAuthShort, kShort));
    EXPECT_TRUE(validate(handle, kAuthShort, broken));
    EXPECT_EQ(without_time(marshalled(handle)), kFull) << broken;
  }
  EXPECT_TRUE(validate(handle, kAuthShort, kShort));
  FailingMalloc nothing(0);
  EXPECT_FALSE(handle->ops->refresh(handle));  // stays with the short one
  EXPECT_EQ(handle->credential.flavour, kAuthShort);
}

using AuthSystemDefault = LabTest;

// The supplementary groups of the calling thread, and those that are sent.
void expect_groups(const std::vector<gid_t>& supplementary, const std::vector<gid_t>& sent) {
  // The bare system call changes this thread alone.
  ASSERT_EQ(syscall(SYS_setgroups, supplementary.size(), supplementary.data()), 0);
  Auth auth(__brix_authsys_create_default());
  TestStream in({reinterpret_cast<char*>(auth->credential.body), auth->credential.length},
                xdr_op::kDecode);
  authsys_parms own = {};
  ASSERT_TRUE(__brix_xdr_authunix_parms(in.get(), &own));
  EXPECT_STREQ(own.machine_name, lab::kHostName);
  EXPECT_EQ(own.uid, static_cast<int32_t>(getuid()));
  EXPECT_EQ(own.gid, static_cast<int32_t>(getgid()));
  EXPECT_EQ(std::vector(own.groups, own.groups + own.group_count), sent);
  __brix_xdr_free(xdr_filter<__brix_xdr_authunix_parms>, &own);
}

TEST_F(AuthSystemDefault, TellsTheProcess) {
  if (!lab::has_users()) return skip("the host lends no groups");
  std::thread([] {
    expect_groups({7, 8, 9}, {7, 8, 9, getegid()});
    expect_groups(std::vector<gid_t>(17, 7), {getegid()});  // more than can be sent
  }).join();
}

}  // namespace
