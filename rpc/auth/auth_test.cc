#include "rpc/auth/auth.h"

#include "rpc/auth/a_none.h"
#include "rpc/auth/a_unix.h"
#include "tests/xdr_streams.h"

using namespace fakes;

namespace {

std::string marshalled(AUTH* auth) {
  TestStream out(1000);
  EXPECT_TRUE(auth->ops->marshal(auth, out.get()));
  return out.hex();
}

class AuthSystem : public testing::Test {
 protected:
  AuthSystem() {
    now = 0x76543210;
    const gid_t groups[] = {7, 8};
    auth_.reset(__brix_authsys_create("box", 0xFFFFFFFE, 5, 2, groups));
    auth_->verifier.body = static_cast<uint8_t*>(malloc(1));  // owned from here on
  }
  ~AuthSystem() override {
    now = 0;
    auth_.reset();
    EXPECT_EQ(pieces_held(), held_);
  }

  // The full credential, of that time.
  static std::string full(const std::string& time = "76543210") {
    return "0000000100000020" + time +
           "00000003626F7800FFFFFFFE000000050000000200000007000000080000000000000000";
  }
  bool validate(int32_t flavour, const char* hex = kShort) {
    std::string body = from_hex(hex);
    opaque_auth verifier = {flavour, reinterpret_cast<uint8_t*>(body.data()),
                            static_cast<uint32_t>(body.size())};
    return auth_->ops->validate(auth_.get(), &verifier);
  }
  bool refresh() { return auth_->ops->refresh(auth_.get()); }

  static constexpr char kShort[] = "00000002 00000003 41424300";
  const long held_ = pieces_held();
  std::unique_ptr<AUTH, void (*)(AUTH*)> auth_{nullptr,
                                               [](AUTH* auth) { auth->ops->destroy(auth); }};
};

TEST_F(AuthSystem, SendsItsParameters) {
  EXPECT_EQ(marshalled(auth_.get()), full());
  expect_carried<authsys_parms>(xdr_filter<__brix_xdr_authunix_parms>, full().substr(16, 64));
}

TEST_F(AuthSystem, KnowsItsMethodAsNoneDoes) {
  for (AUTH* auth : {__brix_authnone_create(), auth_.get()}) {
    SCOPED_TRACE(auth->credential.flavour);
    int32_t method = 0;
    EXPECT_TRUE(auth->ops->control(auth, 2, &method));
    EXPECT_EQ(method, auth->credential.flavour + 1);
    EXPECT_FALSE(auth->ops->control(auth, 3, &method));
    EXPECT_FALSE(auth->ops->control(auth, 2, nullptr));
    EXPECT_FALSE(auth->ops->needs_refresh(auth, false, nullptr));
  }
}

TEST_F(AuthSystem, BoundsItsParameters) {
  const gid_t groups[18] = {};
  const std::string name(256, 'n');
  refuse_each_allocation([&](auto& memory) {
    auth_.reset(__brix_authsys_create(name.c_str() + 1, 0, 0, 17, groups));
    EXPECT_EQ(auth_ == nullptr, memory.failed());
  });
  EXPECT_EQ(__brix_authsys_create(name.c_str(), 0, 0, 0, groups), nullptr);
  EXPECT_EQ(__brix_authsys_create("", 0, 0, 18, groups), nullptr);
}

TEST_F(AuthSystem, UsesAShortCredential) {
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(validate(2));  // a short credential
  EXPECT_EQ(marshalled(auth_.get()), "0000000200000003414243000000000000000000");
  now = 0x76543211;
  EXPECT_TRUE(refresh());
  EXPECT_TRUE(validate(kAuthNone));
  EXPECT_EQ(marshalled(auth_.get()), full("76543211"));
  EXPECT_FALSE(refresh());
}

TEST_F(AuthSystem, DropsABrokenShortCredential) {
  for (const char* broken : {"", "00000002 00000003 4142", "00000002 00007FE9"}) {
    EXPECT_TRUE(validate(2));
    EXPECT_TRUE(validate(2, broken));
    EXPECT_EQ(marshalled(auth_.get()), full()) << broken;
  }
}

}  // namespace
