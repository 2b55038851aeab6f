#include "deviceapi/zomi_account_query_info.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "account/account_files.h"
#include "base/unique_fd.h"
#include "core/error_code.h"
#include "core/json.h"
#include "devcloud/api/device_token.h"
#include "lab/users.h"
#include "tests/deviceapi/account_server.h"
#include "tests/deviceapi/row_text.h"
#include "tests/support/child.h"
#include "tests/support/session_fixture.h"

namespace {

using devcloud::Request;
using devcloud::Response;
using fake_hos::Call;
using nodelink::Quick;
using nodelink::Refresh;
using nodelink::ZomiAccountQueryInfo;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::int64_t kOldQuery = kNow - 10'000;
constexpr char kLockPath[] = "/tmp/account_query_info.lock";
constexpr char kFile[] = "zomi_account_query_info ";
constexpr char kInsufficient[] = "Server returned insufficient data. resp=";

struct Outcome {
  int result = 0;
  std::uint32_t code = 0;
  Json::Value output;
};

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(nodelink::json::fromString(text, value));
  return value;
}

Json::Value GoodAnswer() {
  return Parsed(R"({
    "code": "good",
    "email": "anna@example.org",
    "full_name": "Anna \"A\" Ex=ample",
    "country": "DE",
    "timezone": "Europe/Berlin",
    "notify_language": "ger",
    "activated": true,
    "disabled": false,
    "enews": true,
    "enews_local_promotion": false,
    "critical_release": true,
    "critical_version_list": {"c": true, "b": false, "a": true},
    "realname_validation_pass": true,
    "report_cron_timestring": "5 4 * * 1"
  })");
}

// What the answer above leaves in the record, in the order in which it is written.
fake_hos::Pairs GoodWrites() {
  return {{"zomiID", "anna@example.org"},
          {"full_name", "Anna \"A\" Ex=ample"},
          {"country", "DE"},
          {"timezone", "Europe/Berlin"},
          {"notify_language", "ger"},
          {"activated", "yes"},
          {"disabled", "no"},
          {"enews", "yes"},
          {"enews_local_promotion", "no"},
          {"critical_release", "yes"},
          {"critical_version_list", "a,c"},
          {"critical_version_domain", "a,b,c"},
          {"realname_validation_pass", "yes"},
          {"report_cron_timestring", "5 4 * * 1"},
          {"last_query_time", std::to_string(kNow)}};
}

std::string Compact(const Json::Value& value) { return nodelink::json::toString(value); }

// The value of `key` in a record's text; "(none)" when it has no such line.
std::string ValueIn(const std::string& record, const std::string& key) {
  const std::string begin = "\n" + key + "=\"";
  const std::size_t at = ("\n" + record).find(begin);
  if (at == std::string::npos) return "(none)";
  const std::size_t from = at + begin.size() - 1;
  return record.substr(from, record.find("\"\n", from) - from);
}

class QueryTest : public DeviceApiTest {
 protected:
  QueryTest() {
    hooks().time = [] { return kNow; };
    hooks().usleep = [](useconds_t) {};
    ServerConfigFails() = false;
    std::filesystem::remove_all(kLockPath);
    WriteOldRecord(kOldQuery);
    server_.Answer(200, Compact(GoodAnswer()));
  }

  ~QueryTest() override { ServerConfigFails() = false; }

  [[nodiscard]] std::string OldRecord(const std::string& last_query_time) const {
    return "# kept\naccount_host=\"" + server_.Url() +
           "\"\nzomiID=\"old@example.org\"\nzomiIDSerial=\"SER 1\"\nhs_auth_key=\"KEY&1\"\n"
           "full_name=\"Old Name\"\nactivated=\"no\"\ncountry=\"AT\"\n"
           "report_cron_timestring=\"1 2 3 4 5\"\nlast_query_time=\"" +
           last_query_time + "\"\nother=\"stays\"\n";
  }

  void WriteOldRecord(std::int64_t last_query_time) {
    old_record_ = OldRecord(std::to_string(last_query_time));
    WriteRecord(old_record_);
  }

  static Outcome Query(Refresh refresh = Refresh::kYes, Quick quick = Quick::kNo) {
    nodelink::SetLastErrorCode(kUntouchedCode);
    Outcome outcome;
    outcome.output = Json::objectValue;
    outcome.result = ZomiAccountQueryInfo(outcome.output, refresh, quick);
    outcome.code = nodelink::LastErrorCode();
    return outcome;
  }

  // Queries, and expects a failure that leaves the record and the output as they were.
  void ExpectFailure(std::uint32_t code) {
    const Outcome outcome = Query();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.code, code);
    EXPECT_EQ(outcome.output, Json::Value(Json::objectValue));
    EXPECT_EQ(ReadRecord(), old_record_);
  }

  void ExpectFailure(std::uint32_t code, const std::string& line) {
    ExpectFailure(code);
    EXPECT_THAT(Log(), ElementsAre(kFile + line));
  }

  [[nodiscard]] std::size_t Requests() const { return server_.requests().size(); }

  std::string old_record_;
};

// --- when the server is asked ----------------------------------------------------------------

struct AgeRow {
  std::string last_query_time;  // as it stands in the record
  bool asks_with_refresh;
  bool asks_without;
};

void PrintTo(const AgeRow& row, std::ostream* out) { *out << row.last_query_time; }

AgeRow Ago(std::int64_t seconds, bool asks_with_refresh, bool asks_without) {
  return {std::to_string(kNow - seconds), asks_with_refresh, asks_without};
}

class AgeTest : public QueryTest, public testing::WithParamInterface<AgeRow> {
 protected:
  AgeTest() { WriteRecord(OldRecord(GetParam().last_query_time)); }

  void ExpectAsked(Refresh refresh, bool asked) {
    const Outcome outcome = Query(refresh);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.code, 0U);
    EXPECT_EQ(Requests(), asked ? 1U : 0U);
    EXPECT_EQ(outcome.output["email"], asked ? "anna@example.org" : "old@example.org");
    EXPECT_EQ(ValueIn(ReadRecord(), "last_query_time"),
              asked ? std::to_string(kNow) : GetParam().last_query_time);
  }
};

TEST_P(AgeTest, WithRefresh) { ExpectAsked(Refresh::kYes, GetParam().asks_with_refresh); }

TEST_P(AgeTest, FromTheCache) { ExpectAsked(Refresh::kNo, GetParam().asks_without); }

constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
constexpr auto kMost = std::numeric_limits<std::int64_t>::max();

INSTANTIATE_TEST_SUITE_P(
    Ages, AgeTest,
    testing::Values(Ago(0, false, false), Ago(1, false, false), Ago(299, false, false),
                    Ago(300, true, false), Ago(301, true, false), Ago(86'399, true, false),
                    Ago(86'400, true, true), Ago(86'401, true, true), Ago(-1, false, false),
                    Ago(-299, false, false), Ago(-300, true, false), Ago(-86'399, true, false),
                    Ago(-86'400, true, true), AgeRow{"0", true, true}, AgeRow{"", true, true},
                    AgeRow{"yesterday", true, true}, AgeRow{std::to_string(kMost), true, true},
                    AgeRow{std::to_string(kLeast), true, true},
                    AgeRow{"99999999999999999999999", true, true}),
    kRowNumber);

TEST_F(QueryTest, ANowBeforeTheEpochIsNoTrouble) {
  hooks().time = [] { return static_cast<std::time_t>(kLeast); };
  WriteOldRecord(kMost);
  EXPECT_EQ(Query(Refresh::kNo).result, 0);
  EXPECT_EQ(Requests(), 1U);
}

TEST_F(QueryTest, ASecondQueryIsAnsweredFromTheRecord) {
  const Outcome first = Query();
  const Outcome second = Query();
  EXPECT_EQ(second.result, 0);
  EXPECT_EQ(second.output, first.output);
  EXPECT_EQ(Requests(), 1U);
}

TEST_F(QueryTest, AFailedQueryIsTriedAgainByTheNext) {
  server_.Answer(500, "");
  EXPECT_EQ(Query().result, -1);
  server_.Answer(200, Compact(GoodAnswer()));
  EXPECT_EQ(Query().result, 0);
  EXPECT_EQ(Requests(), 2U);
}

// --- what is asked --------------------------------------------------------------------------

std::string Prefix() {
  return "hs_sn=FAKE123456789&hs_token=" + devcloud::DeviceToken("FAKE123456789", "", "");
}

TEST_F(QueryTest, TheFormIsIdKeyAndSerialNumber) {
  EXPECT_EQ(Query().result, 0);
  const Request request = server_.OnlyRequest();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/device/api/user/query");
  EXPECT_EQ(request.body, Prefix() + "&id=SER%201&auth_key=KEY%261&serial_no=FAKE123456789");
}

TEST_F(QueryTest, TheFormIsMadeWithRoomFor1024Bytes) {
  EXPECT_EQ(Query().result, 0);
  EXPECT_THAT(platform().calls("KLIBCSzHashAlloc"), Contains(Call{"KLIBCSzHashAlloc", {"1024"}}));
}

TEST_F(QueryTest, ALongSerialNumberIsCutAt35Characters) {
  platform().device.serial_number = std::string(50, 'S');
  EXPECT_EQ(Query().result, 0);
  EXPECT_THAT(server_.OnlyRequest().body, testing::EndsWith("&serial_no=" + std::string(35, 'S')));
}

struct QuickRow {
  Quick quick;
  const char* seconds;
};

void PrintTo(const QuickRow& row, std::ostream* out) { *out << row.seconds; }

class QuickTest : public QueryTest, public testing::WithParamInterface<QuickRow> {};

TEST_P(QuickTest, TheFlagSetsTheTimeLimits) {
  EXPECT_EQ(Query(Refresh::kYes, GetParam().quick).result, 0);
  const std::string seconds = GetParam().seconds;
  EXPECT_THAT(Options(),
              testing::IsSupersetOf({"TIMEOUT=" + seconds, "CONNECTTIMEOUT=" + seconds}));
}

INSTANTIATE_TEST_SUITE_P(Flags, QuickTest,
                         testing::Values(QuickRow{Quick::kNo, "120"}, QuickRow{Quick::kYes, "15"}));

class DefaultHostTest : public PlatformTest {
 protected:
  DefaultHostTest() { server_.Answer(200, Compact(GoodAnswer())); }

  AccountServer server_{443};
};

TEST_F(DefaultHostTest, AMissingRecordAsksTheAccountHostWithAnEmptyId) {
  Json::Value output(Json::objectValue);
  EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kNo, Quick::kNo), 0);
  const Request request = server_.OnlyRequest();
  EXPECT_EQ(request.HeaderOr("Host"), "account.veltrix.example");
  EXPECT_EQ(request.body, Prefix() + "&id=&auth_key=&serial_no=FAKE123456789");
  EXPECT_EQ(output["email"], "anna@example.org");
  EXPECT_EQ(output["auth_key"], "");
  struct stat status {};
  ASSERT_EQ(stat(nodelink::account_files::kRecord, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(DefaultHostTest, TheTestSwitchAsksTheTestHost) {
  test_files::Write("/etc.defaults/kivoinfo.conf", "kivopkg_server=\"test\"\n");
  Json::Value output(Json::objectValue);
  EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kYes, Quick::kNo), 0);
  EXPECT_EQ(server_.OnlyRequest().HeaderOr("Host"), "account.test.veltrix.example");
}

// --- what is written ------------------------------------------------------------------------

std::vector<Call> WriteCalls(const fake_hos::Pairs& writes) {
  std::vector<Call> calls;
  for (const auto& [key, value] : writes) {
    calls.push_back(
        {"KLIBCFileSetKeyValue", {nodelink::account_files::kRecord, key, value, "%s=\"%s\"\n"}});
  }
  return calls;
}

TEST_F(QueryTest, TheAnswerIsWrittenInItsOrder) {
  EXPECT_EQ(Query().result, 0);
  EXPECT_EQ(platform().calls("KLIBCFileSetKeyValue"), WriteCalls(GoodWrites()));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(QueryTest, OtherKeysOfTheRecordStay) {
  EXPECT_EQ(Query().result, 0);
  const std::string record = ReadRecord();
  EXPECT_THAT(record, StartsWith("# kept\naccount_host=\"" + server_.Url() + "\"\n"));
  EXPECT_EQ(ValueIn(record, "other"), "stays");
  EXPECT_EQ(ValueIn(record, "zomiIDSerial"), "SER 1");
  EXPECT_EQ(ValueIn(record, "hs_auth_key"), "KEY&1");
  for (const auto& [key, value] : GoodWrites()) {
    EXPECT_EQ(ValueIn(record, key), value) << key;
  }
}

TEST_F(QueryTest, TheTimeOfTheQueryIsThatOfTheAnswer) {
  std::atomic<std::int64_t> now = kNow;
  hooks().time = [&now] { return now.load(); };
  server_.Handle([&now](const Request&) {
    now += 90;
    return Response{.body = Compact(GoodAnswer())};
  });
  EXPECT_EQ(Query().result, 0);
  EXPECT_EQ(ValueIn(ReadRecord(), "last_query_time"), std::to_string(kNow + 90));
}

TEST_F(QueryTest, TheOutputIsTheProfile) {
  EXPECT_EQ(Query().output, Parsed(R"({
    "auth_key": "KEY&1",
    "email": "anna@example.org",
    "full_name": "Anna \"A\" Ex=ample",
    "country": "DE",
    "timezone": "Europe/Berlin",
    "notify_language": "ger",
    "activated": true,
    "disabled": false,
    "enews": true,
    "critical_release": true,
    "enews_local_promotion": false
  })"));
}

TEST_F(QueryTest, TheOutputOfTheCacheIsTheRecordWithItsDefaults) {
  WriteRecord("zomiID=\"a@b\"\nenews=\"true\"\ndisabled=\"1\"\nlast_query_time=\"" +
              std::to_string(kNow) + "\"\n");
  EXPECT_EQ(Query().output, Parsed(R"({
    "auth_key": "", "email": "a@b", "full_name": "", "country": "", "timezone": "",
    "notify_language": "", "activated": false, "disabled": false, "enews": true,
    "critical_release": false, "enews_local_promotion": false
  })"));
  EXPECT_EQ(Requests(), 0U);
}

struct Versions {
  const char* answer;
  const char* list;
  const char* domain;
};

void PrintTo(const Versions& row, std::ostream* out) { *out << RowText(row.answer); }

class VersionsTest : public QueryTest, public testing::WithParamInterface<Versions> {};

TEST_P(VersionsTest, AreSplitIntoTheTrueOnesAndAll) {
  Json::Value answer = GoodAnswer();
  answer["critical_version_list"] = Parsed(GetParam().answer);
  server_.Answer(200, Compact(answer));
  EXPECT_EQ(Query().result, 0);
  EXPECT_EQ(ValueIn(ReadRecord(), "critical_version_list"), GetParam().list);
  EXPECT_EQ(ValueIn(ReadRecord(), "critical_version_domain"), GetParam().domain);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, VersionsTest,
    testing::Values(Versions{R"({"a": true, "b": false, "c": true})", "a,c", "a,b,c"},
                    Versions{"{}", "", ""}, Versions{R"({"a": false, "b": false})", "", "a,b"},
                    Versions{R"({"only": true})", "only", "only"},
                    Versions{R"({"b": true, "a": true, "B": false})", "a,b", "B,a,b"},
                    Versions{R"({"": true, "a": true})", ",a", ",a"},
                    Versions{R"({"x,y": true, "a": false})", "x,y", "a,x,y"}),
    kRowNumber);

// --- answers that lack something, or have it otherwise ----------------------------------------

class AnswerTest : public QueryTest {
 protected:
  void AnswerWith(const char* member, const Json::Value& value) {
    Json::Value answer = GoodAnswer();
    answer[member] = value;
    text_ = Compact(answer);
    server_.Answer(200, text_);
  }

  void AnswerWithout(const char* member) {
    Json::Value answer = GoodAnswer();
    answer.removeMember(member);
    text_ = Compact(answer);
    server_.Answer(200, text_);
  }

  void ExpectInsufficient() { ExpectFailure(nodelink::kBadResponse, kInsufficient + text_); }

  // Queries, expects success, and gives the value that the record holds then.
  std::string Stored(const char* key) {
    EXPECT_EQ(Query().result, 0);
    return ValueIn(ReadRecord(), key);
  }

  std::string text_;
};

class RequiredMemberTest : public AnswerTest, public testing::WithParamInterface<const char*> {};

TEST_P(RequiredMemberTest, Missing) {
  AnswerWithout(GetParam());
  ExpectInsufficient();
}

TEST_P(RequiredMemberTest, AList) {
  AnswerWith(GetParam(), Parsed(R"(["good", true])"));
  ExpectInsufficient();
}

TEST_P(RequiredMemberTest, AnObject) {
  AnswerWith(GetParam(), Parsed(R"({"x": "y"})"));
  ExpectInsufficient();
}

const char* Name(const testing::TestParamInfo<const char*>& test) { return test.param; }

INSTANTIATE_TEST_SUITE_P(Members, RequiredMemberTest,
                         testing::Values("code", "email", "full_name", "country", "timezone",
                                         "notify_language", "activated", "disabled", "enews",
                                         "critical_release", "enews_local_promotion",
                                         "critical_version_list"),
                         Name);

TEST_F(AnswerTest, AMissingMemberCountsBeforeTheStatusWord) {
  text_ = R"({"code":"badsys"})";
  server_.Answer(400, text_);
  ExpectInsufficient();
}

struct TextMember {
  const char* member;
  const char* key;
};

void PrintTo(const TextMember& row, std::ostream* out) { *out << row.member; }

class TextMemberTest : public AnswerTest, public testing::WithParamInterface<TextMember> {};

TEST_P(TextMemberTest, ANumberIsStoredAsItsText) {
  AnswerWith(GetParam().member, Json::Int64{-42});
  EXPECT_EQ(Stored(GetParam().key), "-42");
}

TEST_P(TextMemberTest, ABooleanIsStoredAsItsText) {
  AnswerWith(GetParam().member, true);
  EXPECT_EQ(Stored(GetParam().key), "true");
}

TEST_P(TextMemberTest, AnEmptyTextIsStored) {
  AnswerWith(GetParam().member, "");
  EXPECT_EQ(Stored(GetParam().key), "");
}

TEST_P(TextMemberTest, NullIsAnEmptyText) {
  AnswerWith(GetParam().member, Json::nullValue);
  EXPECT_EQ(Stored(GetParam().key), "");
}

TEST_P(TextMemberTest, ALineBreakIsRefused) {
  AnswerWith(GetParam().member, "Eve\nhs_auth_key=\"stolen");
  ExpectFailure(nodelink::kAccountNotWritten);
}

TEST_P(TextMemberTest, ANulIsRefused) {
  AnswerWith(GetParam().member, std::string("Eve\0x", 5));
  ExpectFailure(nodelink::kAccountNotWritten);
}

INSTANTIATE_TEST_SUITE_P(
    Members, TextMemberTest,
    testing::Values(TextMember{"email", "zomiID"}, TextMember{"full_name", "full_name"},
                    TextMember{"country", "country"}, TextMember{"timezone", "timezone"},
                    TextMember{"notify_language", "notify_language"},
                    TextMember{"report_cron_timestring", "report_cron_timestring"}),
    [](const auto& test) { return test.param.member; });

class FlagMemberTest : public AnswerTest, public testing::WithParamInterface<const char*> {};

TEST_P(FlagMemberTest, IsStoredAsYesOrNo) {
  AnswerWith(GetParam(), true);
  EXPECT_EQ(Stored(GetParam()), "yes");
  WriteRecord(old_record_);
  AnswerWith(GetParam(), false);
  EXPECT_EQ(Stored(GetParam()), "no");
}

TEST_P(FlagMemberTest, ATextCountsAsMissing) {
  AnswerWith(GetParam(), "true");
  ExpectInsufficient();
}

TEST_P(FlagMemberTest, NullIsFalse) {
  AnswerWith(GetParam(), Json::nullValue);
  EXPECT_EQ(Stored(GetParam()), "no");
}

TEST_P(FlagMemberTest, AHugeNumberIsTrue) {
  AnswerWith(GetParam(), 1e300);
  EXPECT_EQ(Stored(GetParam()), "yes");
}

INSTANTIATE_TEST_SUITE_P(Members, FlagMemberTest,
                         testing::Values("activated", "disabled", "enews", "critical_release",
                                         "enews_local_promotion"),
                         Name);

class BadVersionsTest : public AnswerTest, public testing::WithParamInterface<const char*> {};

TEST_P(BadVersionsTest, CountAsMissing) {
  AnswerWith("critical_version_list", Parsed(GetParam()));
  ExpectInsufficient();
}

INSTANTIATE_TEST_SUITE_P(Values, BadVersionsTest,
                         testing::Values("\"a,b\"", "7", "true", "[]",
                                         R"({"a": true, "b": "true"})", R"({"a": 1})",
                                         R"({"a": {"b": true}})"),
                         kRowNumber);

TEST_F(AnswerTest, NullAsTheVersionsIsNoVersion) {
  AnswerWith("critical_version_list", Json::nullValue);
  EXPECT_EQ(Stored("critical_version_list"), "");
  EXPECT_EQ(Stored("critical_version_domain"), "");
}

TEST_F(AnswerTest, NullAsAVersionIsFalse) {
  AnswerWith("critical_version_list", Parsed(R"({"a": null, "b": true})"));
  EXPECT_EQ(Stored("critical_version_list"), "b");
  EXPECT_EQ(Stored("critical_version_domain"), "a,b");
}

TEST_F(AnswerTest, NullAsTheVerdictIsAnUnknownWord) {
  AnswerWith("code", Json::nullValue);
  ExpectFailure(nodelink::kGenericError);
}

TEST_F(AnswerTest, WithoutAScheduleTheStoredOneStays) {
  AnswerWithout("report_cron_timestring");
  EXPECT_EQ(Stored("report_cron_timestring"), "1 2 3 4 5");
  fake_hos::Pairs writes = GoodWrites();
  writes.erase(writes.end() - 2);
  EXPECT_EQ(platform().calls("KLIBCFileSetKeyValue"), WriteCalls(writes));
}

TEST_F(AnswerTest, AScheduleThatIsNoTextCountsAsMissing) {
  AnswerWith("report_cron_timestring", Parsed(R"({"minute": 5})"));
  EXPECT_EQ(Stored("report_cron_timestring"), "1 2 3 4 5");
}

TEST_F(AnswerTest, WithoutTheRealNameCheckItReadsAsFailed) {
  AnswerWithout("realname_validation_pass");
  EXPECT_EQ(Stored("realname_validation_pass"), "no");
}

TEST_F(AnswerTest, ARealNameCheckThatIsNoBooleanReadsAsFailed) {
  AnswerWith("realname_validation_pass", "yes");
  EXPECT_EQ(Stored("realname_validation_pass"), "no");
}

TEST_F(AnswerTest, ALineBreakInAVersionNameIsRefused) {
  AnswerWith("critical_version_list", Parsed(R"({"7\nhs_auth_key=\"x": true})"));
  ExpectFailure(nodelink::kAccountNotWritten);
}

TEST_F(AnswerTest, TheRefusedLineBreakIsLogged) {
  AnswerWith("full_name", "Eve\nzomiID=\"x");
  ExpectFailure(nodelink::kAccountNotWritten);
  EXPECT_THAT(Log(), ElementsAre("user Failed to set zomi config for full_name:Eve\nzomiID=\"x",
                                 StartsWith(std::string(kFile) +
                                            "Failed to set user: System error [code=19]\n")));
}

// A text that no one could have meant must not stand between the device and its next query.
class LargeAnswerTest : public AnswerTest {
 protected:
  void ExpectTheNextQueryWorks() {
    (void)Query();
    hooks().time = [] { return kNow + 1000; };
    server_.Answer(200, Compact(GoodAnswer()));
    ClearLog();
    const Outcome outcome = Query();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.code, 0U);
    EXPECT_EQ(outcome.output["full_name"], "Anna \"A\" Ex=ample");
    EXPECT_THAT(Log(), IsEmpty());
  }
};

TEST_F(LargeAnswerTest, ANameThatFillsIt) {
  AnswerWith("full_name", std::string(1024 * 1024 - 600, 'n'));
  ExpectTheNextQueryWorks();
}

TEST_F(LargeAnswerTest, AVersionNameThatFillsIt) {
  Json::Value versions;
  versions[std::string(1024 * 1024 - 600, 'v')] = true;  // stored in two keys
  AnswerWith("critical_version_list", versions);
  ExpectTheNextQueryWorks();
}

// --- answers that are no JSON object ----------------------------------------------------------

struct BadText {
  std::string text;
};

void PrintTo(const BadText& row, std::ostream* out) { *out << RowText(row.text); }

class NoJsonTest : public QueryTest, public testing::WithParamInterface<BadText> {};

TEST_P(NoJsonTest, IsTheWrongFormat) {
  server_.Answer(200, GetParam().text);
  ExpectFailure(nodelink::kWrongJsonFormat);
  EXPECT_THAT(Log(), ElementsAre(StartsWith(std::string(kFile) + "Failed to parse json: " +
                                            GetParam().text.substr(0, 1000))));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, NoJsonTest,
    testing::Values(BadText{"<html>busy</html>"}, BadText{"{"}, BadText{R"({"code":"good")"},
                    BadText{R"({"code":"good"} {"code":"good"})"}, BadText{"good"},
                    BadText{"%s%n%d"}, BadText{"{'code':'good'}"},
                    BadText{std::string(50'000, '[')},
                    BadText{R"({"code":)" + std::string(50'000, '[')},
                    BadText{R"({"a":)" + std::string(5'000, '[') + std::string(5'000, ']') + "}"}),
    kRowNumber);

TEST_F(QueryTest, WhiteSpaceAloneIsNoJson) {
  server_.Answer(200, " \r\n");
  ExpectFailure(nodelink::kWrongJsonFormat, "Failed to parse json: ");
}

class NoObjectTest : public QueryTest, public testing::WithParamInterface<const char*> {};

TEST_P(NoObjectTest, HasNoMembers) {
  server_.Answer(200, GetParam());
  ExpectFailure(nodelink::kBadResponse, std::string(kInsufficient) + GetParam());
}

INSTANTIATE_TEST_SUITE_P(Texts, NoObjectTest,
                         testing::Values("{}", "[]", R"(["code","good"])", "\"good\"", "0", "-1e99",
                                         "true", "null", R"([{"code":"badauth"}])"),
                         kRowNumber);

// --- status words ---------------------------------------------------------------------------

struct StatusRow {
  const char* word;
  std::uint32_t code;
};

void PrintTo(const StatusRow& row, std::ostream* out) { *out << RowText(row.word); }

class StatusTest : public AnswerTest, public testing::WithParamInterface<StatusRow> {};

TEST_P(StatusTest, DecidesWhatTheQueryComesTo) {
  AnswerWith("code", GetParam().word);
  if (GetParam().code != 0) {
    ExpectFailure(GetParam().code, "Failed to query device/api/user/query, resp=" + text_ +
                                       ", code=" + std::to_string(GetParam().code));
    return;
  }
  const Outcome outcome = Query();
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.code, 0U);
  EXPECT_THAT(Log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Words, StatusTest,
    testing::Values(StatusRow{"good", 0}, StatusRow{"goodbye", 0}, StatusRow{"account_userid", 0},
                    StatusRow{"badparam", 1}, StatusRow{"badsys", 6}, StatusRow{"badnetwork", 15},
                    StatusRow{"account_inused", 16},
                    StatusRow{"serial_exceed_max_account_register", 17},
                    StatusRow{"account_unverified", 18}, StatusRow{"account_not_found", 25},
                    StatusRow{"apikey_not_found", 26}, StatusRow{"apikey_expired", 27},
                    StatusRow{"badauth2", 14}, StatusRow{"no_such_word", 24}, StatusRow{"", 24},
                    StatusRow{"Good", 24}, StatusRow{"%s%n", 24}),
    kRowNumber);

TEST_F(AnswerTest, AStatusWordThatIsANumberIsUnknown) {
  AnswerWith("code", 0);
  ExpectFailure(nodelink::kGenericError,
                "Failed to query device/api/user/query, resp=" + text_ + ", code=24");
}

TEST_F(AnswerTest, AGoodAnswerWithStatus400IsOne) {
  server_.Answer(400, Compact(GoodAnswer()));
  EXPECT_EQ(Query().result, 0);
}

// --- badauth --------------------------------------------------------------------------------

class BadAuthTest : public QueryTest {
 protected:
  BadAuthTest() { server_.Answer(400, R"({"code":"badauth"})"); }

  static constexpr char kLogoutLine[] =
      "zomi_account_query_info Logged out Zomi due to authentication failure.";
};

TEST_F(BadAuthTest, LogsTheDeviceOut) {
  bool linked_during_action = false;
  platform().OnCall("KLIBPluginAction", [&](const Call&) { linked_during_action = HasRecord(); });
  const Outcome outcome = Query();
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.code, nodelink::kNoAccount);
  EXPECT_EQ(outcome.output, Json::Value(Json::objectValue));
  EXPECT_TRUE(linked_during_action);
  EXPECT_FALSE(HasRecord());
  EXPECT_THAT(platform().plugin_runs, ElementsAre(fake_hos::PluginRun{"zomi", "zomi/logout", 4}));
  EXPECT_THAT(Log(), ElementsAre(kLogoutLine));
}

TEST_F(BadAuthTest, CountsBeforeMissingMembersAndInAWholeAnswerToo) {
  Json::Value answer = GoodAnswer();
  answer["code"] = "badauth";
  server_.Answer(200, Compact(answer));
  EXPECT_EQ(Query().code, nodelink::kNoAccount);
  EXPECT_FALSE(HasRecord());
  EXPECT_EQ(platform().call_count("KLIBCFileSetKeyValue"), 0U);
}

TEST_F(BadAuthTest, KeepsTheRecordWhenThePluginsCannotBeTold) {
  platform().FailNext("KLIBPluginAction");
  ExpectFailure(nodelink::kNoAccount);
  EXPECT_THAT(Log(),
              ElementsAre(kLogoutLine, "zomi_config_remove KLIBPluginAction failed, action=4"));
}

TEST_F(BadAuthTest, KeepsTheRecordWhenThePluginsCannotBeOpened) {
  platform().FailNext("KLIBPluginSDKInit");
  ExpectFailure(nodelink::kNoAccount);
  EXPECT_THAT(Log(), ElementsAre(kLogoutLine, "zomi_config_remove KLIBPluginSDKInit failed"));
}

TEST_F(DefaultHostTest, AfterBadAuthTheNextQueryStartsFromAnEmptyRecord) {
  WriteRecord("zomiID=\"a@b\"\nzomiIDSerial=\"S\"\nhs_auth_key=\"K\"\n");
  server_.Answer(400, R"({"code":"badauth"})");
  Json::Value output(Json::objectValue);
  EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kYes, Quick::kNo), -1);
  EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kYes, Quick::kNo), -1);
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_THAT(requests[0].body, HasSubstr("&id=S&auth_key=K&"));
  EXPECT_THAT(requests[1].body, HasSubstr("&id=&auth_key=&"));
}

// --- the lock -------------------------------------------------------------------------------

base::UniqueFd HoldLock() {
  base::UniqueFd fd(open(kLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
  EXPECT_EQ(flock(fd.get(), LOCK_EX | LOCK_NB), 0);
  return fd;
}

bool LockIsFree() {
  const base::UniqueFd fd(open(kLockPath, O_RDWR | O_CLOEXEC));
  return fd.get() >= 0 && flock(fd.get(), LOCK_EX | LOCK_NB) == 0;
}

TEST_F(QueryTest, ALockHeldElsewhereFailsAfter30Seconds) {
  const base::UniqueFd held = HoldLock();
  std::chrono::microseconds slept{0};
  const auto start = std::chrono::system_clock::time_point(std::chrono::seconds(kNow));
  hooks().system_clock_now = [&] { return start + slept; };
  hooks().usleep = [&](useconds_t length) { slept += std::chrono::microseconds(length); };
  ExpectFailure(kUntouchedCode, std::string("Failed to lock file: ") + kLockPath);
  EXPECT_GE(slept, std::chrono::seconds(30));
  EXPECT_LT(slept, std::chrono::milliseconds(30'100));
  EXPECT_EQ(Requests(), 0U);
  EXPECT_EQ(platform().calls().size(), platform().call_count("KLIBCFileLockByFile"));
}

TEST_F(QueryTest, ALockFileThatCannotBeOpenedFailsAtOnce) {
  std::filesystem::create_directory(kLockPath);
  ExpectFailure(kUntouchedCode);
  EXPECT_THAT(LogWithLines(),
              ElementsAre(std::string("file_lock:25 Failed to open file: ") + kLockPath,
                          HasSubstr(std::string(" Failed to lock file: ") + kLockPath)));
  EXPECT_THAT(platform().calls(), IsEmpty());
}

TEST_F(QueryTest, TheLockIsHeldFromTheFirstReadToTheLast) {
  std::vector<std::string> unlocked;
  for (const char* name : {"KLIBCFileGetKeys", "KLIBCFileGetKeyValue", "KLIBCFileSetKeyValue"}) {
    platform().OnCall(name, [&unlocked](const Call& call) {
      if (LockIsFree()) unlocked.push_back(call.ToText());
    });
  }
  std::atomic<bool> free_during_request = true;
  server_.Handle([&](const Request&) {
    free_during_request = LockIsFree();
    return Response{.body = Compact(GoodAnswer())};
  });
  EXPECT_EQ(Query().result, 0);
  EXPECT_THAT(unlocked, IsEmpty());
  EXPECT_FALSE(free_during_request);
  EXPECT_TRUE(LockIsFree());
}

TEST_F(QueryTest, AFailedQueryGivesTheLockBack) {
  server_.Answer(500, "");
  EXPECT_EQ(Query().result, -1);
  EXPECT_TRUE(LockIsFree());
}

TEST_F(QueryTest, ProcessesThatAskAtOnceMakeOneRequest) {
  hooks().usleep = nullptr;
  std::array<int, 2> gate{};
  ASSERT_EQ(pipe2(gate.data(), O_CLOEXEC), 0);
  std::vector<pid_t> children;
  for (int number = 0; number < 6; ++number) {
    WaitUntilOtherThreadsWait();
    children.push_back(fork());
    if (children.back() == 0) {
      close(gate[1]);
      char byte = 0;
      (void)!read(gate[0], &byte, 1);  // until the parent opens the gate
      const Outcome outcome = Query();
      _exit(outcome.result == 0 && outcome.output["email"] == "anna@example.org" ? 0 : 1);
    }
  }
  close(gate[0]);
  close(gate[1]);
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(Requests(), 1U);
}

// --- failures of the steps --------------------------------------------------------------------

class StepFailureTest : public QueryTest {
 protected:
  StepFailureTest() { platform().SetFailureTriple({0x0C04, "flash.c", 17}); }
};

TEST_F(StepFailureTest, ARecordThatCannotBeRead) {
  platform().FailNext("KLIBCFileGetKeys");
  ExpectFailure(nodelink::kNoAccount);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_EQ(Requests(), 0U);
}

TEST_F(StepFailureTest, NoAccountHost) {
  ServerConfigFails() = true;
  // The code in the line is the last one: what the query itself began with.
  ExpectFailure(nodelink::kNoServerConfig, "KIVOZOMIServerConfigGet, code=0");
  EXPECT_EQ(Requests(), 0U);
}

TEST_F(StepFailureTest, NoSerialNumber) {
  platform().FailNext("KLIBGetSerialNumber");
  ExpectFailure(nodelink::kNoSerialNumber, "Failed to get serial number, err=[0x0C04 flash.c:17]");
  EXPECT_EQ(Requests(), 0U);
}

TEST_F(StepFailureTest, NoHashForTheForm) {
  platform().FailCall("KLIBCSzHashAlloc", 2);  // the first one reads the record
  ExpectFailure(nodelink::kSystemError, "Failed to alloc https request, err=[0x0C04 flash.c:17]");
}

class FormFieldFailureTest : public StepFailureTest, public testing::WithParamInterface<int> {};

TEST_P(FormFieldFailureTest, AFieldThatCannotBeSet) {
  platform().FailCall("KLIBCSzHashSetValue", GetParam());
  ExpectFailure(nodelink::kSystemError, "Failed to alloc https request, err=[0x0C04 flash.c:17]");
}

INSTANTIATE_TEST_SUITE_P(Fields, FormFieldFailureTest, testing::Values(1, 2, 3));

TEST_F(StepFailureTest, ARequestThatIsNotAnswered) {
  server_.Answer(500, "down");
  ExpectFailure(nodelink::kRequestNotSent);
  EXPECT_THAT(Log(),
              ElementsAre("zomi_https_req_send " + server_.Url() +
                              "/device/api/user/query, Failed to request packages, "
                              "httpResponseCode=500, data=down",
                          std::string(kFile) + "Failed to send https request. err=[0x0000 :0]"));
}

TEST_F(StepFailureTest, ARequestThatCannotBeMade) {
  platform().FailNext("KLIBCSzListAlloc");  // reads the record
  ExpectFailure(nodelink::kNoAccount);
  platform().FailCall("KLIBCSzListAlloc", 2);  // lists the form
  ClearLog();
  ExpectFailure(nodelink::kRequestNotSent);
  EXPECT_THAT(Log(), ElementsAre("zomi_https_req_send out of memory, ERR=[0x0C04 flash.c:17]",
                                 std::string(kFile) +
                                     "Failed to send https request. err=[0x0C04 flash.c:17]"));
}

class WriteFailureTest : public QueryTest, public testing::WithParamInterface<int> {
 protected:
  void ExpectNotWritten() {
    const auto [key, value] = GoodWrites()[static_cast<std::size_t>(GetParam()) - 1];
    EXPECT_THAT(Log(), ElementsAre("user Failed to set zomi config for " + key + ":" + value,
                                   StartsWith(std::string(kFile) +
                                              "Failed to set user: System error [code=19]\n")));
  }
};

TEST_P(WriteFailureTest, TheRecordIsAsItWas) {
  platform().FailCall("KLIBCFileSetKeyValue", GetParam());
  ExpectFailure(nodelink::kAccountNotWritten);
  ExpectNotWritten();
  EXPECT_EQ(platform().call_count("KLIBCFileSetKeyValue"), static_cast<std::size_t>(GetParam()));
  struct stat status {};
  ASSERT_EQ(stat(nodelink::account_files::kRecord, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_P(WriteFailureTest, TheNextQueryAsksAgain) {
  platform().FailCall("KLIBCFileSetKeyValue", GetParam());
  EXPECT_EQ(Query().result, -1);
  EXPECT_EQ(Query().result, 0);
  EXPECT_EQ(Requests(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Writes, WriteFailureTest, testing::Range(1, 16));

class NewRecordFailureTest : public DefaultHostTest, public testing::WithParamInterface<int> {};

TEST_P(NewRecordFailureTest, ThereIsNoRecordAsBefore) {
  platform().FailCall("KLIBCFileSetKeyValue", GetParam());
  hooks().chmod = [](const char*, mode_t) { return 0; };
  hooks().chown = [](const char*, uid_t, gid_t) { return 0; };
  Json::Value output(Json::objectValue);
  EXPECT_EQ(ZomiAccountQueryInfo(output, Refresh::kYes, Quick::kNo), -1);
  EXPECT_EQ(nodelink::LastErrorCode(), nodelink::kAccountNotWritten);
  EXPECT_FALSE(HasRecord());
}

INSTANTIATE_TEST_SUITE_P(Writes, NewRecordFailureTest, testing::Values(1, 2, 15));

// --- privileges -----------------------------------------------------------------------------

// The query runs in a child whose effective user is not root; `saved_user` tells whether it can be.
class PrivilegeTest : public QueryTest {
 protected:
  static constexpr uid_t kUser = 1026;

  void SetUp() override {
    if (!lab::HasOtherUsers()) GTEST_SKIP() << "this sandbox has no other users";
  }

  // "RESULT CODE EMAIL" of a query by a process with these ids, where the `failing`th change of the
  // effective user is refused, 0: none; " all" behind it when there were fewer changes.
  std::string QueryWithIds(const Ids& ids, Refresh refresh, int failing) {
    int calls = 0;
    BecomeIds(ids);
    hooks().setresuid = [&](uid_t real, uid_t effective, uid_t saved) {
      if (++calls != failing) return interpose::RealSetresuid(real, effective, saved);
      errno = EPERM;
      return -1;
    };
    const Outcome outcome = Query(refresh);
    hooks().setresuid = nullptr;
    return std::to_string(outcome.result) + " " + std::to_string(outcome.code) + " " +
           outcome.output["email"].asString() + (calls < failing ? " all" : "");
  }

  std::string QueryAs(uid_t saved_user, Refresh refresh, int failing = 0) {
    return RunInChild([&] {
      return QueryWithIds({.real_user = kUser, .effective_user = kUser, .saved_user = saved_user},
                          refresh, failing);
    });
  }

  // A query as a service account with its `failing`th change refused: true when there was no such
  // change any more. What is wrong with its outcome goes to `complaints`.
  bool RefusedChangeIsTheLast(int failing, std::string& complaints) {
    WriteRecord(old_record_);
    const std::string outcome = QueryWithIds(
        {.real_user = kUser, .effective_user = kUser, .saved_user = 0}, Refresh::kYes, failing);
    BecomeIds({});
    const bool written = ValueIn(ReadRecord(), "last_query_time") == std::to_string(kNow);
    // 4: the host of the record could not be read, and there is no server at the built-in one
    const bool failed = outcome == "-1 3 " || outcome == "-1 4 " || outcome == "-1 6 " ||
                        outcome == "-1 6 anna@example.org";
    const bool right =
        outcome.starts_with("0 ") ? written : failed && (written || ReadRecord() == old_record_);
    if (!right) complaints += std::to_string(failing) + ": " + outcome + "\n";
    return outcome.ends_with(" all");
  }
};

TEST_F(PrivilegeTest, AreRaisedForTheRecord) {
  EXPECT_EQ(QueryAs(0, Refresh::kYes), "0 0 anna@example.org");
  EXPECT_EQ(ValueIn(ReadRecord(), "zomiID"), "anna@example.org");
}

TEST_F(PrivilegeTest, ThatCannotBeRaisedLeaveNoAccount) {
  EXPECT_EQ(QueryAs(kUser, Refresh::kYes), "-1 3 ");
  EXPECT_EQ(Requests(), 0U);
  EXPECT_EQ(ReadRecord(), old_record_);
  EXPECT_THAT(Log(), Contains("user Change permission failed"));
  EXPECT_THAT(Log(), Not(Contains(StartsWith(kFile))));
}

TEST_F(PrivilegeTest, LostBeforeTheOutputFailIt) {
  constexpr int kOfTheReading = 3;  // up; up and down again
  EXPECT_EQ(QueryAs(0, Refresh::kNo, kOfTheReading + 1), "-1 6 ");
  EXPECT_THAT(Log(), Contains("user Change permission failed"));
  EXPECT_THAT(Log(), Contains(StartsWith(std::string(kFile) +
                                         "Failed to get user: System error [code=6]\n")));
}

// All in one child: a process with threads, as this one is, forks as rarely as it can.
TEST_F(PrivilegeTest, EachChangeThatIsRefused) {
  const std::string complaints = RunInChild([&] {
    std::string text;
    int refused = 1;
    while (!RefusedChangeIsTheLast(refused, text)) ++refused;
    return text + (refused > 40 ? "" : "only " + std::to_string(refused) + " changes");
  });
  EXPECT_EQ(complaints, "");
}

// --- every platform call in turn --------------------------------------------------------------

class EachCallTest : public QueryTest {
 protected:
  // Fails each platform call of a query in turn; `check` judges what came of it.
  void FailEach(const std::function<void(const Outcome&)>& check, int at_least) {
    int nth = 1;
    for (;; ++nth) {
      platform().Reset();
      WriteRecord(old_record_);
      platform().FailNthCallOverall(nth);
      const Outcome outcome = Query();
      if (!platform().nth_call_fired()) break;
      SCOPED_TRACE("N=" + std::to_string(nth) + " " + platform().nth_call().ToText());
      EXPECT_EQ(platform().live_objects(), 0);
      EXPECT_TRUE(LockIsFree());
      check(outcome);
    }
    EXPECT_GT(nth, at_least);
  }
};

TEST_F(EachCallTest, OfAQueryThatAsks) {
  (void)Query();
  const std::string new_record = ReadRecord();
  FailEach(
      [&](const Outcome& outcome) {
        const std::string record = ReadRecord();
        if (outcome.result == 0) {
          EXPECT_EQ(record, new_record);
          EXPECT_EQ(outcome.code, 0U);
        } else {
          EXPECT_EQ(record, old_record_);
          EXPECT_THAT(outcome.code,
                      testing::AnyOf(nodelink::kNoAccount, nodelink::kRequestNotSent,
                                     nodelink::kSystemError, nodelink::kNoSerialNumber,
                                     nodelink::kAccountNotWritten));
        }
      },
      60);
}

TEST_F(EachCallTest, OfAQueryFromTheCache) {
  WriteOldRecord(kNow);
  FailEach(
      [&](const Outcome& outcome) {
        EXPECT_EQ(ReadRecord(), old_record_);
        EXPECT_TRUE(outcome.result == 0 || outcome.code == nodelink::kNoAccount);
      },
      20);
  EXPECT_EQ(Requests(), 0U);
}

TEST_F(EachCallTest, OfALogout) {
  server_.Answer(400, R"({"code":"badauth"})");
  FailEach(
      [&](const Outcome& outcome) {
        EXPECT_EQ(outcome.result, -1);
        EXPECT_TRUE(!HasRecord() || ReadRecord() == old_record_);
      },
      40);
}

}  // namespace
