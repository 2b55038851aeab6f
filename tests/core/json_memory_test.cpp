// JSON when memory runs out.
#include <gtest/gtest.h>

#include <new>
#include <string>

#include "base/json_text.h"
#include "tests/core/failing_new.h"

namespace nodelink {
namespace {

// The text of `value`, or nothing when the allocation after `number` others has failed.
std::string TextWithout(int number, const Json::Value& value, bool& failed) {
  std::string text;
  test::FailNewAfter(number);
  try {
    text = base::JsonText(value);
  } catch (const std::bad_alloc&) {
    text.clear();
  }
  failed = test::StopFailingNew();
  return text;
}

TEST(JsonTextTest, IsWholeOrAnException) {
  Json::Value value;
  value["access_token"] = std::string(3000, 'a');
  value["id_token"] = std::string(3000, 'i');
  const std::string whole = base::JsonText(value);
  int failures = 0;
  for (bool failed = true; failed; failures += failed ? 1 : 0) {
    const std::string text = TextWithout(failures, value, failed);
    EXPECT_EQ(text, failed ? "" : whole) << "allocation " << failures;
  }
  EXPECT_GT(failures, 10);
}

TEST(JsonTextTest, IsCutAtItsLimit) {
  Json::Value value;
  value["list"].append("text");
  const std::string whole = base::JsonText(value, "  ");
  for (std::size_t limit = 0; limit <= whole.size() + 1; ++limit) {
    EXPECT_EQ(base::JsonText(value, "  ", limit), whole.substr(0, limit));
  }
}

}  // namespace
}  // namespace nodelink
