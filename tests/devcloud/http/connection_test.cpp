#include "devcloud/http/connection.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>

#include "base/unique_fd.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;

TEST(ConnectionTest, APauseEndsWhenThePeerLeaves) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  base::UniqueFd peer{ends[1]};
  const base::UniqueFd never_stopping(::eventfd(0, EFD_CLOEXEC));
  const devcloud::Connection connection(base::UniqueFd{ends[0]}, never_stopping.get(), hours(1));
  EXPECT_TRUE(connection.Pause(milliseconds(1)));
  peer = base::UniqueFd();
  EXPECT_FALSE(connection.Pause(hours(1)));
}

}  // namespace
