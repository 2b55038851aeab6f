// --query_account and --cache: what is asked, printed, stored and logged.
#include <sys/stat.h>

#include <filesystem>
#include <memory>

#include "tests/e2e/device_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class AccountQuery : public DeviceTest {
 protected:
  void ExpectFailure(const lab::ProcessResult& result) {
    EXPECT_EQ(result.out, "Query account failed");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exit_status, 0);
  }
};

TEST_F(AccountQuery, AsksTheServerOverVerifiedTlsAndStoresTheProfile) {
  const devcloud::Link link = LinkDevice();
  const auto result = Run({"--query_account"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out,
            R"({"activated":true,"auth_key":")" + link.auth_key +
                R"(","country":"CH","critical_release":false,"disabled":false,)"
                R"("email":"anna@example.org","enews":false,"enews_local_promotion":false,)"
                R"("full_name":"Anna Müller","notify_language":"ger",)"
                R"("timezone":"Europe/Zurich"})"
                "\n");
  EXPECT_EQ(RecordValue("zomiID"), kEmail);
  EXPECT_EQ(RecordValue("critical_version_list"), "7.1,7.3");
  EXPECT_EQ(RecordValue("critical_version_domain"), "7.1,7.2,7.3");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(AccountQuery, SendsExactlyThisForm) {
  const devcloud::Link link = LinkDevice();
  Run({"--query_account"});
  const auto requests = Requests();
  ASSERT_THAT(requests, SizeIs(1));
  const devcloud::Request& request = requests[0].request;
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, kQueryPath);
  EXPECT_EQ(request.HeaderOr("Host"), "account.veltrix.example");
  EXPECT_EQ(request.HeaderOr("User-Agent"), "zomi HOS/7.2.1 (NL224)");
  EXPECT_THAT(request.body,
              testing::MatchesRegex("hs_sn=NL00000001A&hs_token=[0-9a-f]+&id=" + link.user_id +
                                    "&auth_key=" + link.auth_key + "&serial_no=NL00000001A"));
}

TEST_F(AccountQuery, LeavesTheRecordToRootAlone) {
  LinkDevice();
  chmod(kRecord, 0644);
  Run({"--query_account"});
  struct stat status {};
  ASSERT_EQ(stat(kRecord, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(status.st_uid, 0U);
  EXPECT_EQ(status.st_gid, 0U);
}

TEST_F(AccountQuery, AnswersFromTheRecordForFiveMinutes) {
  LinkDevice();
  const auto first = Run({"--query_account"});
  const auto second = Run({"--query_account"});
  EXPECT_EQ(second.out, first.out);
  EXPECT_THAT(Requests(), SizeIs(1));
  SetLastQueryAge(300);
  Run({"-q"});
  EXPECT_THAT(Requests(), SizeIs(2));
}

TEST_F(AccountQuery, AnswersFromTheCacheForADayWhenAllowed) {
  LinkDevice();
  Run({"--query_account", "--cache"});
  EXPECT_THAT(Requests(), SizeIs(1)) << "never queried: asked although the cache is allowed";
  SetLastQueryAge(80000);
  Run({"--query_account", "--cache"});
  EXPECT_THAT(Requests(), SizeIs(1));
  SetLastQueryAge(86400);
  Run({"-q", "-c"});
  EXPECT_THAT(Requests(), SizeIs(2));
}

TEST_F(AccountQuery, ManyAtOnceMakeOneRequest) {
  LinkDevice();
  std::vector<std::unique_ptr<lab::BackgroundProcess>> queries;
  queries.reserve(16);
  for (int index = 0; index < 16; ++index) {
    queries.push_back(std::make_unique<lab::BackgroundProcess>(
        std::vector<std::string>{"/usr/kivo/bin/nodelink", "--query_account"}));
  }
  for (const auto& query : queries) {
    EXPECT_THAT(query->Wait().out, HasSubstr(kEmail));
  }
  EXPECT_THAT(Requests(), SizeIs(1));
}

TEST_F(AccountQuery, RefusedCredentialsEndTheLink) {
  LinkDevice();
  test_files::Write("/etc/probe", "");
  std::filesystem::create_directories("/usr/kivo/lib/plugin/zomi/logout");
  test_files::Write("/usr/kivo/lib/plugin/zomi/logout/10-tell",
                    "#!/bin/sh\necho \"$1\" > /etc/probe\n", 0755);
  SetState("badauth");
  ExpectFailure(Run({"--query_account"}));
  EXPECT_FALSE(test_files::Exists(kRecord));
  EXPECT_EQ(test_files::Read("/etc/probe"), "4\n");
  EXPECT_THAT(Log(), ElementsAre("zomi_account_query_info Logged out Zomi due to authentication "
                                 "failure."));
}

TEST_F(AccountQuery, RefusedCredentialsKeepTheRecordWhenThePluginsCannotBeTold) {
  LinkDevice();
  std::filesystem::create_directories("/usr/kivo/lib/plugin/zomi/logout");
  test_files::Write("/usr/kivo/lib/plugin/zomi/logout/10-tell", "#!/bin/sh\nexit 1\n", 0755);
  SetState("badauth");
  ExpectFailure(Run({"--query_account"}));
  EXPECT_TRUE(test_files::Exists(kRecord));
  EXPECT_THAT(Log(), ElementsAre("zomi_account_query_info Logged out Zomi due to authentication "
                                 "failure.",
                                 "zomi_config_remove KLIBPluginAction failed, action=4"));
}

struct Verdict {
  const char* word;
  unsigned int code;
};

class AccountQueryVerdict : public AccountQuery, public testing::WithParamInterface<Verdict> {};

TEST_P(AccountQueryVerdict, FailsWithTheWordsCodeAndKeepsTheRecord) {
  LinkDevice();
  const std::string before = test_files::Read(kRecord);
  SetState(GetParam().word);
  ExpectFailure(Run({"--query_account"}));
  EXPECT_EQ(test_files::Read(kRecord), before);
  EXPECT_THAT(Log(), ElementsAre(testing::AllOf(
                         HasSubstr("zomi_account_query_info Failed to query device/api/user/query"),
                         HasSubstr("code=" + std::to_string(GetParam().code)))));
}

INSTANTIATE_TEST_SUITE_P(EveryWord, AccountQueryVerdict,
                         testing::Values(Verdict{"badparam", 1}, Verdict{"badsys", 6},
                                         Verdict{"badnetwork", 15}, Verdict{"account_inused", 16},
                                         Verdict{"serial_exceed_max_account_register", 17},
                                         Verdict{"account_unverified", 18},
                                         Verdict{"account_not_found", 25},
                                         Verdict{"apikey_not_found", 26},
                                         Verdict{"apikey_expired", 27},
                                         Verdict{"something_new", 24}),
                         [](const auto& verdict) { return verdict.param.word; });

TEST_F(AccountQuery, AUserIdCountsAsSuccess) {
  LinkDevice();
  SetState("account_userid");
  EXPECT_THAT(Run({"--query_account"}).out, HasSubstr(kEmail));
}

TEST_F(AccountQuery, AnUnverifiedCertificateIsRefused) {
  LinkDevice();
  for (const auto kind :
       {devcloud::CertificateKind::kExpired, devcloud::CertificateKind::kNotYetValid,
        devcloud::CertificateKind::kWrongName, devcloud::CertificateKind::kUnknownAuthority,
        devcloud::CertificateKind::kSelfSigned}) {
    devcloud::TlsChoice choice;
    choice.certificate = kind;
    cloud_.SetTls(choice);
    ExpectFailure(Run({"--query_account"}));
  }
  EXPECT_THAT(Requests(), IsEmpty());
}

TEST_F(AccountQuery, EffectiveIdsOfAServiceAccountAreRaisedAndRestored) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the leak checker cannot look into a process with other effective ids";
#endif
  LinkDevice();
  std::vector<std::string> command = {"/usr/bin/setpriv", "--euid",       "1026", "--egid", "100",
                                      "--clear-groups",   "/usr/bin/true"};
  if (lab::RunProcess(command).exit_status != 0) {
    GTEST_SKIP() << "the lab of an ordinary user has no other users";
  }
  command.back() = "/usr/kivo/bin/nodelink";
  command.emplace_back("--query_account");
  const auto result = lab::RunProcess(command);
  EXPECT_THAT(result.out, HasSubstr(kEmail)) << result.err;
  EXPECT_THAT(Log(), testing::Contains("user WARNING: setresuid(-1, 0, -1)"));
}

}  // namespace
