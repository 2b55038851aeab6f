// What a broken or hostile server, file or command line can do: nothing but a failure.
#include <sys/stat.h>

#include <filesystem>

#include "tests/e2e/device_fixture.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::SizeIs;

class HostileInput : public DeviceTest {
 protected:
  HostileInput() { LinkDevice(); }

  // The next query is answered by `rule`; it must fail and leave the record as it is.
  void ExpectHarmless(devcloud::FaultRule rule) {
    rule.path = kQueryPath;
    const auto id = cloud_.faults().Add(rule);
    const std::string before = test_files::Read(kRecord);
    const auto result = Run({"--query_account"});
    EXPECT_EQ(result.out, "Query account failed");
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(test_files::Read(kRecord), before);
    cloud_.faults().Remove(id);
  }

  static devcloud::FaultRule Answer(const std::string& body, int status = 200) {
    devcloud::FaultRule rule;
    rule.status = status;
    rule.body = body;
    return rule;
  }

  static devcloud::FaultRule Delivered(devcloud::Delivery delivery) {
    devcloud::FaultRule rule;
    rule.fault.delivery = delivery;
    return rule;
  }
};

TEST_F(HostileInput, AnswersThatAreNoProfileAreRefused) {
  for (const char* body :
       {"", "null", "[]", "{}", "5", "\"good\"", "<html>", "{\"code\":\"good\"}", "{\"code\":{}}",
        "{\"code\":\"good\"} {}", "\xff\xfe", "{\"code\":\"good\",\"email\":{}}"}) {
    SCOPED_TRACE(body);
    ExpectHarmless(Answer(body));
  }
}

TEST_F(HostileInput, DeepNestingIsNoJson) {
  ExpectHarmless(Answer(std::string(200'000, '[')));
  EXPECT_THAT(Log(), Contains(HasSubstr("zomi_account_query_info Failed to parse json: [[[")));
}

TEST_F(HostileInput, OtherStatusesAreNoAnswers) {
  for (const int status : {201, 204, 301, 401, 403, 404, 500, 503}) {
    SCOPED_TRACE(status);
    ExpectHarmless(Answer("{\"code\":\"badauth\"}", status));
  }
}

TEST_F(HostileInput, BrokenDeliveriesAreNoAnswers) {
  for (const auto delivery :
       {devcloud::Delivery::kDrop, devcloud::Delivery::kTruncate, devcloud::Delivery::kEndless}) {
    ExpectHarmless(Delivered(delivery));
  }
}

TEST_F(HostileInput, ARedirectInTheClearIsNotFollowed) {
  devcloud::FaultRule rule = Answer("", 302);
  rule.headers = {{"Location", "http://account.veltrix.example/device/api/user/query"}};
  ExpectHarmless(rule);
}

TEST_F(HostileInput, ARedirectLoopEnds) {
  devcloud::FaultRule rule = Answer("", 307);
  rule.headers = {{"Location", "https://account.veltrix.example/device/api/user/query"}};
  ExpectHarmless(rule);
}

// A line break in a value would be a second key of the record.
TEST_F(HostileInput, AProfileWithALineBreakChangesNothing) {
  const std::string before = test_files::Read(kRecord);
  account_.full_name = "Anna\"\nhs_auth_key=\"stolen";
  Update(account_);
  EXPECT_EQ(Run({"--query_account"}).out, "Query account failed");
  EXPECT_EQ(test_files::Read(kRecord), before);
  EXPECT_THAT(Log(), Contains(HasSubstr("user Failed to set zomi config for full_name:Anna")));
  EXPECT_THAT(Log(), Contains(HasSubstr("Failed to set user: System error [code=19]")));
}

TEST_F(HostileInput, QuotesInAProfileComeBackAsTheyAre) {
  account_.full_name = R"(Anna "the" O'Hara = \)";
  Update(account_);
  EXPECT_THAT(Run({"--query_account"}).out, HasSubstr(R"("full_name":"Anna \"the\" O'Hara = \\")"));
}

TEST_F(HostileInput, ARecordOfRubbishIsReadAsFarAsItGoes) {
  test_files::Write(
      kRecord, std::string("\0\xff=\n=\"\n\"\"\nzomiID=\"x\n", 17) + std::string(9000, 'a'), 0600);
  EXPECT_EQ(Run({"--query_account", "--cache"}).signal, 0);
}

TEST_F(HostileInput, ALinkInTheLockFilesPlaceIsNotFollowed) {
  test_files::Write("/etc/victim", "as it was");
  std::filesystem::create_symlink("/etc/victim", "/tmp/account_query_info.lock");
  EXPECT_EQ(Run({"--query_account"}).out, "Query account failed");
  EXPECT_EQ(test_files::Read("/etc/victim"), "as it was");
  EXPECT_THAT(Requests(), SizeIs(0));
  EXPECT_THAT(Log(), Contains("file_lock Failed to open file: /tmp/account_query_info.lock"));
}

TEST_F(HostileInput, AFifoInTheLockFilesPlaceDoesNotHang) {
  ASSERT_EQ(mkfifo("/tmp/account_query_info.lock", 0666), 0);
  EXPECT_FALSE(Run({"--query_account"}).timed_out);
}

TEST_F(HostileInput, UnknownOptionsAreIgnored) {
  const auto result = Run({"--no-such-option", "word", "-q", "--", "-r"});
  EXPECT_THAT(result.out, HasSubstr(kEmail));
  EXPECT_THAT(result.err, HasSubstr("unrecognized option"));
}

}  // namespace
