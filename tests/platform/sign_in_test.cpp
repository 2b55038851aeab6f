#include "tools/sign_in.h"

#include <cstdint>

#include "core/error_code.h"
#include "core/zomi_exception.h"
#include "support/fail_each_call.h"
#include "support/platform_test.h"

namespace nodelink_login {
namespace {

class SignInTest : public PlatformTest {};

TEST_F(SignInTest, WithoutAChallengeThereIsNone) {
  std::uint32_t code = 0;
  FailEachCall([] {},
               [&] {
                 try {
                   (void)BeginSignIn();
                 } catch (const nodelink::ZomiException& failure) {
                   code = failure.code();
                 }
               },
               [&] { EXPECT_EQ(code, nodelink::kSystemError); });
}

}  // namespace
}  // namespace nodelink_login
