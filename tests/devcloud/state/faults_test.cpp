#include "devcloud/state/faults.h"

#include <gmock/gmock.h>

#include "devcloud/http/json_fields.h"
#include "devcloud/http/json_text.h"

namespace {

using devcloud::BadInput;
using devcloud::Database;
using devcloud::Delivery;
using devcloud::FaultBook;
using devcloud::FaultRule;
using devcloud::FaultRuleFromJson;
using std::chrono::milliseconds;

class FaultsTest : public testing::Test {
 protected:
  Database database_{":memory:"};
  FaultBook book_{database_};
};

TEST_F(FaultsTest, AppliesAsOftenAsTold) {
  book_.Add({.path = "/a", .count = 2, .status = 500});
  EXPECT_FALSE(book_.Take("GET", "/b"));
  EXPECT_TRUE(book_.Take("GET", "/a"));
  EXPECT_TRUE(book_.Take("POST", "/a"));
  EXPECT_FALSE(book_.Take("GET", "/a"));
  EXPECT_TRUE(book_.List().empty());
}

TEST_F(FaultsTest, LetsTheFirstOnesPass) {
  book_.Add({.path = "/a", .skip = 1, .count = 1, .status = 500});
  EXPECT_FALSE(book_.Take("GET", "/a"));
  EXPECT_TRUE(book_.Take("GET", "/a"));
  EXPECT_FALSE(book_.Take("GET", "/a"));
}

TEST_F(FaultsTest, TheOldestRuleThatFitsApplies) {
  book_.Add({.method = "POST", .path = "/a", .status = 501});
  book_.Add({.path = "*", .status = 502});
  EXPECT_EQ(book_.Take("POST", "/a")->status, 501);
  EXPECT_EQ(book_.Take("GET", "/a")->status, 502);
  EXPECT_EQ(book_.Take("GET", "/other")->status, 502);
}

TEST_F(FaultsTest, CanBeTakenBack) {
  const std::int64_t id = book_.Add({.path = "/a"});
  EXPECT_TRUE(book_.Remove(id));
  EXPECT_FALSE(book_.Remove(id));
  book_.Add({.path = "/a"});
  book_.Clear();
  EXPECT_FALSE(book_.Take("GET", "/a"));
}

std::string WithoutId(Json::Value json) {
  json.removeMember("id");
  return devcloud::ToCompactText(json);
}

TEST(FaultRuleTest, SurvivesTheWayThroughJson) {
  const FaultRule rule = FaultRuleFromJson(
      R"({"method":"POST","path":"/a","skip":1,"count":2,"status":302,)"
      R"("headers":[["Location","https://x/"],["X","1"]],"body":"text","delay_ms":5,)"
      R"("delivery":"slow","slow_bytes":7,"slow_ms":9,"hold":true})");
  EXPECT_EQ(rule.method, "POST");
  EXPECT_EQ(rule.skip, 1);
  EXPECT_EQ(rule.count, 2);
  EXPECT_EQ(rule.status, 302);
  ASSERT_EQ(rule.headers.size(), 2U);
  EXPECT_EQ(rule.headers[0].value, "https://x/");
  EXPECT_EQ(rule.fault.delay, milliseconds(5));
  EXPECT_EQ(rule.fault.delivery, Delivery::kSlow);
  EXPECT_EQ(rule.fault.slow_bytes, 7U);
  EXPECT_EQ(rule.fault.slow_interval, milliseconds(9));
  EXPECT_TRUE(rule.hold);
  EXPECT_EQ(ToJson(rule), ToJson(FaultRuleFromJson(WithoutId(ToJson(rule)))));
}

TEST(FaultRuleTest, ABodyThatIsNoTextGoesOutAsJson) {
  EXPECT_EQ(FaultRuleFromJson(R"({"path":"/a","body":{"code":"badsys"}})").body,
            R"({"code":"badsys"})");
}

class BadFaultTest : public testing::TestWithParam<const char*> {};

TEST_P(BadFaultTest, IsRefused) { EXPECT_THROW((void)FaultRuleFromJson(GetParam()), BadInput); }

INSTANTIATE_TEST_SUITE_P(
    Texts, BadFaultTest,
    testing::Values("", "[]", "{", "{}", R"({"path":"a"})", R"({"path":1})",
                    R"({"path":"/a","count":0})", R"({"path":"/a","count":1.5})",
                    R"({"path":"/a","status":99})", R"({"path":"/a","delivery":"late"})",
                    R"({"path":"/a","delay_ms":-1})", R"({"path":"/a","hold":1})",
                    R"({"path":"/a","typo":1})", R"({"path":"/a","headers":{}})",
                    R"({"path":"/a","headers":[["A"]]})",
                    R"({"path":"/a","headers":[["A","x\r\nB: y"]]})",
                    R"({"path":"/a","headers":[["A B","x"]]})", R"({"path":"/a"} x)"));

}  // namespace
