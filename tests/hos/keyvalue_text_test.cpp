#include "hos/linux/keyvalue_text.h"

#include <gtest/gtest.h>

namespace hos_linux {
namespace {

TEST(KeyValueText, EveryCutOfAFileIsReadWithoutHarm) {
  const std::string text = "# head\n a = \"1 \"2\" \" \r\nb=\"\"\n\n=x\n\"\nc=\"";
  for (std::size_t length = 0; length <= text.size(); ++length) {
    const std::string_view cut = std::string_view(text).substr(0, length);
    for (const char* key : {"a", "b", "c", "", "\"", "# head"}) {
      if (const auto value = FindValue(cut, key, "=")) {
        EXPECT_LE(value->size(), length);
      }
    }
    EXPECT_EQ(FindValue(WithLine(cut, "new", "new=\"v\"\n"), "new", "="), "v");
  }
}

TEST(KeyValueText, AnEmptyKeyOrSeparatorFindsNothing) {
  EXPECT_EQ(FindValue("=x\n", "", "="), std::nullopt);
  EXPECT_EQ(FindValue("a=x\n", "a", ""), std::nullopt);
}

TEST(KeyValueText, AnUnfinishedQuoteIsPartOfTheValue) {
  EXPECT_EQ(FindValue("a=\"x\n", "a", "="), "\"x");
  EXPECT_EQ(FindValue("a=x\"y\n", "a", "="), "x\"y");
}

TEST(KeyValueText, ALineFormatMayHoldAPerCentSign) {
  EXPECT_EQ(MakeLine("%s=\"%s\" # 100%%\n", "a", "b"), "a=\"b\" # 100%\n");
  EXPECT_EQ(MakeLine("%s=%d\n", "a", "b"), std::nullopt);
}

}  // namespace
}  // namespace hos_linux
