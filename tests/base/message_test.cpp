#include "base/message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using base::MessageReader;
using base::MessageWriter;

std::string Message() { return MessageWriter().Number(-7).Text("text").Number(9).Text("").Take(); }

// Whether `message` is what Message() makes.
bool IsAsAgreed(const std::string& message) {
  MessageReader reader(message);
  return reader.Number(-7, -7) == -7 && reader.Text(4) == "text" && reader.Number(0, 9) == 9 &&
         reader.Text(0).empty() && reader.IsWhole();
}

TEST(MessageTest, IsReadAsItWasWritten) { EXPECT_TRUE(IsAsAgreed(Message())); }

TEST(MessageTest, EveryTruncationIsNone) {
  const std::string message = Message();
  for (std::size_t length = 0; length < message.size(); ++length) {
    EXPECT_FALSE(IsAsAgreed(message.substr(0, length))) << length;
  }
}

TEST(MessageTest, MoreBytesAreNone) {
  const std::string longer = Message() + '\0';
  MessageReader reader(longer);
  reader.Number(-7, -7);
  reader.Text(4);
  reader.Number(0, 9);
  reader.Text(0);
  EXPECT_TRUE(reader.IsGood());
  EXPECT_FALSE(reader.IsWhole());
}

TEST(MessageTest, TextsHoldAnyByte) {
  const std::string bytes("\0\n\xff", 3);
  const std::string message = MessageWriter().Text(bytes).Take();
  EXPECT_EQ(MessageReader(message).Text(3), bytes);
}

TEST(MessageTest, NumbersHaveAllBits) {
  const std::string message = MessageWriter().Number(INT64_MIN).Number(INT64_MAX).Take();
  MessageReader reader(message);
  EXPECT_EQ(reader.Number(INT64_MIN, 0), INT64_MIN);
  EXPECT_EQ(reader.Number(0, INT64_MAX), INT64_MAX);
}

TEST(MessageTest, NumbersBeyondTheirBoundsAreNone) {
  for (const std::int64_t number : {INT64_MIN, std::int64_t{-1}, std::int64_t{6}, INT64_MAX}) {
    const std::string message = MessageWriter().Number(number).Take();
    MessageReader reader(message);
    EXPECT_EQ(reader.Number(0, 5), 0) << number;
    EXPECT_FALSE(reader.IsGood()) << number;
  }
}

TEST(MessageTest, LengthsBeyondTheirBoundsAreNone) {
  for (const std::int64_t length :
       {INT64_MIN, std::int64_t{-1}, std::int64_t{5}, std::int64_t{0xffffffff}, INT64_MAX}) {
    const std::string message = MessageWriter().Number(length).Take() + "text and more";
    MessageReader reader(message);
    EXPECT_EQ(reader.Text(4), "") << length;
    EXPECT_FALSE(reader.IsGood()) << length;
  }
}

TEST(MessageTest, NothingIsReadAfterABadField) {
  const std::string message = MessageWriter().Number(6).Number(5).Text("text").Take();
  MessageReader reader(message);
  reader.Number(0, 5);
  EXPECT_EQ(reader.Number(0, 5), 0);
  EXPECT_EQ(reader.Text(4), "");
  EXPECT_FALSE(reader.IsWhole());
}

}  // namespace
