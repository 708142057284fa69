// The authentication flavours none and system.
#include "rpc/auth/auth.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "rpc/auth/a_none.h"
#include "rpc/auth/a_unix.h"
#include "rpc/auth/auth_choice.h"
#include "tests/fakes.h"
#include "tests/work.h"
#include "tests/xdr_streams.h"

namespace {

struct Destroyer {
  void operator()(AUTH* auth) const { auth->ops->destroy(auth); }
};
using Auth = std::unique_ptr<AUTH, Destroyer>;

std::string marshalled(AUTH* auth) {
  TestStream out(1000);
  EXPECT_TRUE(auth->ops->marshal(auth, out.get()));
  return out.hex();
}

class AuthSystem : public testing::Test {
 protected:
  AuthSystem() {
    fakes::now = 0x76543210;
    const gid_t groups[] = {7, 8};
    auth_.reset(__brix_authsys_create("box", 0xFFFFFFFE, 5, 2, groups));
  }
  ~AuthSystem() override {
    fakes::now = 0;
    auth_.reset();
    EXPECT_EQ(fakes::pieces_held(), held_);
  }

  bool validate(int32_t flavour, const char* hex) {
    std::string body = from_hex(hex);
    opaque_auth verifier = {flavour, reinterpret_cast<uint8_t*>(body.data()),
                            static_cast<uint32_t>(body.size())};
    return auth_->ops->validate(auth_.get(), &verifier);
  }

  const long held_ = fakes::pieces_held();
  Auth auth_;
};

// What is marshalled at `time`.
std::string full(const std::string& time = "76543210") {
  return "0000000100000020" + time +
         "00000003626F7800FFFFFFFE000000050000000200000007000000080000000000000000";
}

TEST_F(AuthSystem, NoneIsOneForAllAndBothTellTheirMethod) {
  AUTH* none = auth_create_default();
  in_threads(4, [none](int) { EXPECT_EQ(__brix_authnone_create(), none); });
  for (AUTH* auth : {none, auth_.get()}) {
    int32_t method = 0;
    EXPECT_TRUE(auth->ops->control(auth, 2, &method) && method == (auth == none ? 1 : 2));
    EXPECT_FALSE(auth->ops->control(auth, 3, &method) || auth->ops->control(auth, 2, nullptr) ||
                 auth->ops->needs_refresh(auth, true, nullptr) || auth->ops->refresh(auth));
  }
  CLIENT without = {};
  EXPECT_FALSE(authfallback(&without));
  none->ops->destroy(none);
  EXPECT_EQ(marshalled(none), std::string(32, '0')) << "it stays for others";
}

TEST_F(AuthSystem, SendsAndBoundsItsParameters) {
  EXPECT_EQ(marshalled(auth_.get()), full());
  const gid_t groups[18] = {};
  for (auto [name, count, made] :
       {std::tuple{255U, 17U, true}, {256U, 0U, false}, {0U, 18U, false}}) {
    auth_.reset(__brix_authsys_create(std::string(name, 'n').c_str(), 0, 0, count, groups));
    EXPECT_EQ(auth_ != nullptr, made) << name << " " << count;
  }
  auth_.reset();
  for (int granted = 0; auth_ == nullptr; ++granted) {
    fakes::FailingMalloc failing(granted);
    errno = 0;
    auth_.reset(__brix_authsys_create("", 0, 0, 0, groups));
    ASSERT_EQ(auth_ == nullptr ? ENOMEM : 0, errno);
  }
}

TEST(AuthDebug, TellsOfEveryHandle) {
  for (int level : {2, 3}) {
    const auto create = [] { Auth(__brix_authsys_create("", 0, 0, 0, nullptr)); };
    EXPECT_EQ(printed(level, create).ends_with("authenticated using AUTH_UNIX\n"), level == 3);
  }
}

TEST_F(AuthSystem, TakesAShortCredentialUntilItIsRefused) {
  AUTH* handle = auth_.get();
  const char kShort[] = "00000002 00000003 41424300";
  EXPECT_TRUE(validate(kAuthNone, kShort));
  EXPECT_EQ(marshalled(handle), full());
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(validate(kAuthShort, kShort));
  EXPECT_EQ(marshalled(handle), "0000000200000003414243000000000000000000");
  fakes::now = 0x76543211;
  EXPECT_TRUE(handle->ops->refresh(handle));
  EXPECT_EQ(marshalled(handle), full("76543211"));
  EXPECT_FALSE(handle->ops->refresh(handle));
  // One that does not decode is dropped, as is the one before it.
  for (const char* broken : {"", "00000002", "00000002 00000003 4142", "00000002 00007FE9"}) {
    EXPECT_TRUE(validate(kAuthShort, kShort) && validate(kAuthShort, broken));
    EXPECT_EQ(marshalled(handle), full("76543211")) << broken;
  }
  EXPECT_TRUE(validate(kAuthShort, kShort));
  fakes::FailingMalloc nothing(0);
  EXPECT_FALSE(handle->ops->refresh(handle));
  EXPECT_EQ(handle->credential.flavour, kAuthShort) << "stays";
}

TEST_F(AuthSystem, TellsTheProcess) {
  if (machine::skip_outside()) return;
  if (!machine::has_users()) return MachineTest::skip("the host lends no groups");
  std::thread([] {
    for (size_t count : {3U, 16U, 17U}) {
      std::vector<gid_t> groups(count, 7);
      // The bare system call changes this thread alone.
      ASSERT_EQ(syscall(SYS_setgroups, count, groups.data()), 0);
      if (count > 16) groups.clear();  // more than can be sent are none
      groups.push_back(getegid());
      const Auth own(__brix_authsys_create_default());
      const Auth same(__brix_authsys_create(machine::kHostName, getuid(), getgid(),
                                            static_cast<uint32_t>(groups.size()), groups.data()));
      EXPECT_EQ(marshalled(own.get()), marshalled(same.get()));
    }
  }).join();
}

}  // namespace
