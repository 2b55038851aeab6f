#include "devcloud/http/json_text.h"

#include <gtest/gtest.h>

namespace {

TEST(JsonTextTest, DeepNestingIsRefusedQuietly) {
  EXPECT_FALSE(devcloud::ParseJson(std::string(100000, '[')));
  EXPECT_FALSE(devcloud::ParseJson("{\"a\":" + std::string(100000, '{')));
}

TEST(JsonTextTest, AnyBytesBecomeValidJson) {
  Json::Value value(Json::objectValue);
  value["a"] = std::string("\xff\xc3\xab\n\0x", 6);
  const std::string text = devcloud::ToCompactText(value);
  EXPECT_TRUE(devcloud::ParseJson(text));
  EXPECT_EQ(text.find_first_not_of(R"({}":\abcdefghijklmnopqrstuvwxyz0123456789ABCDEF)"),
            std::string::npos);
}

}  // namespace
