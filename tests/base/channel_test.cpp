#include "base/channel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/unique_fd.h"

namespace {

using base::Deadline;
using base::ReceiveFrame;
using base::SendFrame;
using base::UniqueFd;

class ChannelTest : public testing::Test {
 protected:
  ChannelTest() { MakePair(); }

  void MakePair() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::runtime_error("no socket pair");
    }
    near_ = UniqueFd(ends[0]);
    far_ = UniqueFd(ends[1]);
  }

  void Put(const std::string& bytes) const {
    EXPECT_EQ(send(far_.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

  static Deadline Now() { return std::chrono::steady_clock::now(); }

  UniqueFd near_;
  UniqueFd far_;
};

TEST_F(ChannelTest, CarriesFramesInTheirOrder) {
  EXPECT_TRUE(SendFrame(near_.get(), "one"));
  EXPECT_TRUE(SendFrame(near_.get(), ""));
  EXPECT_TRUE(SendFrame(near_.get(), std::string("\0two", 4)));
  EXPECT_EQ(ReceiveFrame(far_.get(), 4), "one");
  EXPECT_EQ(ReceiveFrame(far_.get(), 0), "");
  EXPECT_EQ(ReceiveFrame(far_.get(), 4), std::string("\0two", 4));
}

TEST_F(ChannelTest, CarriesMoreThanASocketHolds) {
  const std::string large(8 * 1024 * 1024, 'x');
  std::thread sender([&] { EXPECT_TRUE(SendFrame(near_.get(), large)); });
  EXPECT_EQ(ReceiveFrame(far_.get(), large.size()), large);
  sender.join();
}

TEST_F(ChannelTest, LongFramesAreRefusedUnread) {
  Put("\x05");
  Put(std::string(3, '\0'));
  EXPECT_FALSE(ReceiveFrame(near_.get(), 4, Now()));
  EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(ChannelTest, ADeadlineEndsWaitingForEachPartOfAFrame) {
  const std::string frame("\x02\0\0\0xy", 6);
  for (std::size_t length = 0; length < frame.size(); ++length) {
    MakePair();
    Put(frame.substr(0, length));
    EXPECT_FALSE(ReceiveFrame(near_.get(), 4, Now())) << length;
    EXPECT_EQ(errno, ETIMEDOUT) << length;
  }
}

TEST_F(ChannelTest, ADeadlineEndsWaitingForAReader) {
  EXPECT_FALSE(SendFrame(near_.get(), std::string(8 * 1024 * 1024, 'x'),
                         std::chrono::steady_clock::now() + std::chrono::milliseconds(50)));
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(ChannelTest, EveryTruncatedFrameIsNone) {
  const std::string frame("\x02\0\0\0xy", 6);
  for (std::size_t length = 0; length < frame.size(); ++length) {
    MakePair();
    Put(frame.substr(0, length));
    far_ = UniqueFd();
    EXPECT_FALSE(ReceiveFrame(near_.get(), 4)) << length;
    EXPECT_EQ(errno, EPIPE) << length;
  }
}

// Nor is this process killed.
TEST_F(ChannelTest, NobodyIsThereToSendTo) {
  far_ = UniqueFd();
  EXPECT_FALSE(SendFrame(near_.get(), "text"));
  EXPECT_EQ(errno, EPIPE);
}

class ChannelOfAProcess : public ChannelTest {
 protected:
  // A process that has ended, though this one holds its end of the channel open.
  static UniqueFd EndedProcess(pid_t& child) {
    child = fork();
    if (child == 0) _exit(0);
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  }
};

TEST_F(ChannelOfAProcess, EndsWithIt) {
  pid_t child = -1;
  const UniqueFd process = EndedProcess(child);
  ASSERT_TRUE(process);
  EXPECT_FALSE(ReceiveFrame(near_.get(), 4, std::nullopt, process.get()));
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(ChannelOfAProcess, StillHoldsWhatWasSaidBefore) {
  pid_t child = -1;
  Put(std::string("\x02\0\0\0xy", 6));
  const UniqueFd process = EndedProcess(child);
  ASSERT_TRUE(process);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_EQ(ReceiveFrame(near_.get(), 4, std::nullopt, process.get()), "xy");
}

}  // namespace
