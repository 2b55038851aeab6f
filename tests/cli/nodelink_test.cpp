#include "cli/nodelink.h"

#include <getopt.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "core/error_code.h"
#include "core/zomi_exception.h"
#include "pkce/pkce_config.h"
#include "tests/cli/usage.h"
#include "tests/support/platform_fixture.h"
#include "tests/support/test_name.h"

const char* const kUsage =
    "Usage: nodelink (Version 25556)\n"
    "  -r, --report_info      Report HS version info to Veltrix\n"
    "  -n, --notify_logout    Notify user zomi is logged out\n"
    "  -q, --query_account    Query user account info\n"
    "  -c, --cache            Using cache when query_account\n"
    "  -l, --logout           Logout user account\n"
    "  -u, --update           Update crond job\n"
    "  -h, --help             Show help\n";

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::time_t kNow = 1'700'000'000;
constexpr char kAccountJson[] =
    R"({"activated":true,"auth_key":"key","country":"CH","critical_release":false,)"
    R"("disabled":false,"email":"ann@example.com","enews":false,"enews_local_promotion":false,)"
    R"("full_name":"Zo)"
    "\xc3\xab"
    R"( \"Ann\"","notify_language":"ger","timezone":"Zurich"})"
    "\n";

// Takes what is written to a standard stream while it lives.
class Capture {
 public:
  explicit Capture(std::FILE* stream)
      : stream_(stream), file_(memfd_create("captured", MFD_CLOEXEC)), old_(dup(fileno(stream))) {
    if (std::fflush(stream_) != 0 || dup2(file_.get(), fileno(stream_)) < 0) {
      throw std::runtime_error("cannot capture the output");
    }
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  ~Capture() { dup2(old_.get(), fileno(stream_)); }

  std::string Text() {
    (void)std::fflush(stream_);
    return test_files::Read("/proc/self/fd/" + std::to_string(file_.get()));
  }

 private:
  std::FILE* stream_;
  base::UniqueFd file_;
  base::UniqueFd old_;
};

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome Nodelink(std::vector<std::string> options) {
  options.insert(options.begin(), "nodelink");
  std::vector<char*> argv(options.size() + 1, nullptr);
  std::transform(options.begin(), options.end(), argv.begin(),
                 [](std::string& option) { return option.data(); });
  optind = 0;  // the parser starts anew
  Capture out(stdout);
  Capture err(stderr);
  const int status = RunCommand(static_cast<int>(options.size()), argv.data());
  return {status, out.Text(), err.Text()};
}

// A linked device whose record is fresh, and whose daemon has nothing to report. A logout fails for
// want of the client's configuration.
class NodelinkTest : public PlatformTest {
 protected:
  NodelinkTest() {
    LastQueried(1);
    platform().device.scemd_states[1] = 2;
    std::filesystem::remove(kPkceLoginConfigPath);
    hooks().time = [] { return kNow; };
    hooks().curl_perform = [this](CURL*) {
      ++requests_;
      return CURLE_COULDNT_CONNECT;
    };
  }

  static void LastQueried(std::time_t age) {
    WriteRecord(
        "zomiID=\"ann@example.com\"\nhs_auth_key=\"key\"\nfull_name=\"Zo\xc3\xab \"Ann\"\"\n"
        "country=\"CH\"\ntimezone=\"Zurich\"\nnotify_language=\"ger\"\nactivated=\"yes\"\n"
        "last_query_time=\"" +
        std::to_string(kNow - age) + "\"\n");
  }

  // Every flow that ran, by what it did.
  static std::string FlowsOf(const Outcome& outcome) {
    const std::vector<std::pair<const char*, bool>> flows = {
        {"report", platform().call_count("KIVOScemdStatusGet") > 0},
        {"notify", !platform().exec_runs.empty()},
        {"query", outcome.out.starts_with("{")},
        {"logout", outcome.out.starts_with("Failed to logout: ")},
        {"update", platform().crond_lists.contains("zomi")},
        {"usage", outcome.out == kUsage}};
    std::string text;
    for (const auto& [name, ran] : flows) {
      text.append(ran ? (text.empty() ? "" : " ") : "").append(ran ? name : "");
    }
    return text;
  }

  static std::string FlowsOf(const std::vector<std::string>& options) {
    const auto device = platform().device;
    platform().Reset();
    platform().device = device;
    const Outcome outcome = Nodelink(options);
    EXPECT_EQ(outcome.status, 0);
    return FlowsOf(outcome);
  }

  int requests_ = 0;
};

// ---- Options.

struct LongOption {
  std::string name;
  const char* flow;
};

void PrintTo(const LongOption& option, std::ostream* out) { *out << option.name; }

class LongOptionTest : public NodelinkTest, public testing::WithParamInterface<LongOption> {};

TEST_P(LongOptionTest, IsKnownByEachOfItsPrefixesWithOneHyphenOrTwo) {
  for (std::size_t length = 1; length <= GetParam().name.size(); ++length) {
    for (const std::string hyphens : {"-", "--"}) {
      const std::string option = hyphens + GetParam().name.substr(0, length);
      EXPECT_EQ(FlowsOf({option}), GetParam().flow) << option;
    }
  }
}

TEST_P(LongOptionTest, MayBeRepeated) {
  EXPECT_EQ(FlowsOf({"--" + GetParam().name, "-" + GetParam().name}), GetParam().flow);
}

TEST_P(LongOptionTest, TakesNoArgument) {
  const Outcome outcome = Nodelink({"--" + GetParam().name + "=1"});
  EXPECT_EQ(FlowsOf(outcome), "usage");
  EXPECT_EQ(outcome.err,
            "nodelink: option '--" + GetParam().name + "' doesn't allow an argument\n");
}

INSTANTIATE_TEST_SUITE_P(
    Table, LongOptionTest,
    testing::Values(LongOption{"report_info", "report"}, LongOption{"notify_logout", "notify"},
                    LongOption{"query_account", "query"}, LongOption{"cache", "usage"},
                    LongOption{"logout", "logout"}, LongOption{"update", "update"},
                    LongOption{"help", "usage"}));

struct CommandLine {
  std::vector<std::string> options;
  const char* flow;
};

void PrintTo(const CommandLine& line, std::ostream* out) {
  std::string text;
  for (const std::string& option : line.options) {
    text += (text.empty() ? "" : ",") + TestName(option);
  }
  *out << (text.empty() ? "no_options" : text);
}

class CommandLineTest : public NodelinkTest, public testing::WithParamInterface<CommandLine> {};

TEST_P(CommandLineTest, RunsExactlyOneFlow) {
  EXPECT_EQ(FlowsOf(GetParam().options), GetParam().flow);
}

INSTANTIATE_TEST_SUITE_P(
    Precedence, CommandLineTest,
    testing::Values(CommandLine{{"-q", "-r"}, "report"}, CommandLine{{"-r", "-n"}, "report"},
                    CommandLine{{"-u", "-l", "-c", "-q", "-n", "-r", "-h"}, "report"},
                    CommandLine{{"-q", "-n"}, "notify"}, CommandLine{{"-n", "-q", "-c"}, "notify"},
                    CommandLine{{"-u", "-l", "-q", "-n", "-h"}, "notify"},
                    CommandLine{{"-l", "-q"}, "query"}, CommandLine{{"-u", "-q", "-c"}, "query"},
                    CommandLine{{"-u", "-l"}, "logout"}, CommandLine{{"-c", "-l"}, "logout"},
                    CommandLine{{"-h", "-u"}, "update"}, CommandLine{{"-c", "-u"}, "update"},
                    CommandLine{{"-h", "-q"}, "query"}));

INSTANTIATE_TEST_SUITE_P(
    NothingToDo, CommandLineTest,
    testing::Values(CommandLine{{}, "usage"}, CommandLine{{"-h"}, "usage"},
                    CommandLine{{"--cache"}, "usage"}, CommandLine{{"-c", "-h"}, "usage"},
                    CommandLine{{"--bogus"}, "usage"}, CommandLine{{"word"}, "usage"},
                    CommandLine{{""}, "usage"}, CommandLine{{"-"}, "usage"},
                    CommandLine{{"--"}, "usage"}, CommandLine{{"--", "--query_account"}, "usage"},
                    CommandLine{{"-qc"}, "usage"}, CommandLine{{"-Q"}, "usage"},
                    CommandLine{{"--query_accounts"}, "usage"},
                    CommandLine{{"--query-account"}, "usage"}, CommandLine{{"%s%n"}, "usage"},
                    CommandLine{{"--" + std::string(100'000, 'q')}, "usage"}));

INSTANTIATE_TEST_SUITE_P(UnknownWordsAreIgnored, CommandLineTest,
                         testing::Values(CommandLine{{"--bogus", "-q"}, "query"},
                                         CommandLine{{"word", "-q"}, "query"},
                                         CommandLine{{"-q", "--bogus=1", "word"}, "query"},
                                         CommandLine{{"-x", "-u", "-y"}, "update"}));

TEST_F(NodelinkTest, UsageIsPrintedToTheByte) {
  const Outcome outcome = Nodelink({});
  EXPECT_EQ(outcome.out, kUsage);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(platform().all_calls(), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(NodelinkTest, ParserComplainsOfUnknownOptionsOnStandardError) {
  EXPECT_EQ(Nodelink({"--bogus"}).err, "nodelink: unrecognized option '--bogus'\n");
  EXPECT_EQ(Nodelink({"-x"}).err, "nodelink: unrecognized option '-x'\n");
}

// ---- Report.

TEST_F(NodelinkTest, ReportIsSkippedInDaemonStateTwo) {
  const Outcome outcome = Nodelink({"--report_info"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
  EXPECT_THAT(platform().calls(), ElementsAre(fake_hos::Call{"KIVOScemdStatusGet", {"1"}}));
  EXPECT_EQ(requests_, 0);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(NodelinkTest, ReportIsSkippedWhenTheDaemonsStateIsUnknown) {
  platform().device.scemd_states[1] = 0;
  platform().FailNext("KIVOScemdStatusGet");
  EXPECT_EQ(Nodelink({"--report_info"}).status, 0);
  EXPECT_THAT(platform().calls(), testing::SizeIs(1));
  EXPECT_THAT(LogWithPriorities(), ElementsAre("user.err nodelink KIVOScemdStatusGet failed"));
}

TEST_F(NodelinkTest, ReportOfADeviceWithoutAnAccountSucceeds) {
  platform().device.scemd_states[1] = 1;
  RemoveRecord();
  const Outcome outcome = Nodelink({"--report_info"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(requests_, 0);
}

TEST_F(NodelinkTest, FailedReportIsLoggedAndTheOneFailingExit) {
  platform().device.scemd_states[1] = -1;
  platform().FailAlways("KLIBGetSerialNumber");
  const Outcome outcome = Nodelink({"--report_info"});
  EXPECT_EQ(outcome.status, -1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(LogWithPriorities(),
              testing::Contains("user.err nodelink Failed to report Zomi info, code=8"));
}

// ---- Notice.

constexpr char kLinkIntoTheAccountTab[] =
    "<a data-kivo-app=\"KIVO.WEB.AdminCenter.Application\" "
    "data-kivo-fn=\"KIVO.WEB.AdminCenter.InfoCenter.Main\" data-kivo-tab=\"account\">";

TEST_F(NodelinkTest, NoticeIsOneRunOfThePlatformsCommand) {
  EXPECT_EQ(Nodelink({"--notify_logout"}).out, "");
  EXPECT_THAT(
      platform().exec_runs,
      ElementsAre(fake_hos::ExecRun{
          "/usr/kivo/bin/kivohosnotify",
          0xBB,
          {"-e", "false", "-c", "KIVO.WEB.AdminCenter.Application", "@administrators",
           "zomi:zomi_center", "zomi:notify_hs_migrated", kLinkIntoTheAccountTab, "</a>"}}));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(NodelinkTest, DeviceWithoutAnAccountSendsNoNotice) {
  for (const char* record : {"", "zomiID=\"\"\nhs_auth_key=\"key\"\n"}) {
    WriteRecord(record);
    EXPECT_EQ(Nodelink({"--notify_logout"}).status, 0);
  }
  RemoveRecord();
  EXPECT_EQ(Nodelink({"--notify_logout"}).status, 0);
  EXPECT_THAT(platform().exec_runs, IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(NodelinkTest, NoticeThatCannotBeSentIsLogged) {
  platform().FailNext("KLIBCExecl");
  EXPECT_EQ(Nodelink({"--notify_logout"}).status, 0);
  EXPECT_THAT(LogWithPriorities(),
              ElementsAre("user.err nodelink Fail to exec /usr/kivo/bin/kivohosnotify"));
}

TEST_F(NodelinkTest, ExitStatusOfTheNoticeIsNotLookedAt) {
  platform().exec_status = 1;
  EXPECT_EQ(Nodelink({"--notify_logout"}).status, 0);
  EXPECT_THAT(Log(), IsEmpty());
}

// ---- Query.

TEST_F(NodelinkTest, QueryPrintsTheAccountAsOneLineOfJson) {
  const Outcome outcome = Nodelink({"--query_account"});
  EXPECT_EQ(outcome.out, kAccountJson);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(NodelinkTest, QueryWithCacheDoesNotAskTheServerForADay) {
  LastQueried(86'399);
  EXPECT_EQ(Nodelink({"--query_account", "--cache"}).out, kAccountJson);
  EXPECT_EQ(Nodelink({"--cache", "--query_account"}).out, kAccountJson);
  EXPECT_EQ(requests_, 0);
}

TEST_F(NodelinkTest, QueryWithoutCacheAsksTheServerAfterFiveMinutes) {
  LastQueried(300);
  const Outcome outcome = Nodelink({"--query_account"});
  EXPECT_EQ(requests_, 1);
  EXPECT_EQ(outcome.out, "Query account failed");
  EXPECT_EQ(outcome.status, 0);
}

// The quick flag would shorten this.
TEST_F(NodelinkTest, QueryHasTheFullTimeLimit) {
  LastQueried(300);
  long limit = 0;
  hooks().curl_setopt = [&](CURLoption option, const interpose::CurlValue& value) {
    if (option == CURLOPT_TIMEOUT) limit = std::get<long>(value);
    return std::nullopt;
  };
  (void)Nodelink({"--query_account"});
  EXPECT_EQ(limit, 120);
}

TEST_F(NodelinkTest, FailedQueryStillExitsWithZero) {
  platform().FailAlways("KLIBCFileGetKeys");
  const Outcome outcome = Nodelink({"--query_account", "--cache"});
  EXPECT_EQ(outcome.out, "Query account failed");
  EXPECT_EQ(outcome.status, 0);
}

TEST_F(NodelinkTest, QueryWithAnyFailingCallPrintsAnAccountOrTheFailure) {
  for (int n = 1;; ++n) {
    platform().Reset();
    platform().FailNthCallOverall(n);
    const Outcome outcome = Nodelink({"--query_account", "--cache"});
    if (!platform().nth_call_fired()) break;
    EXPECT_THAT(outcome.out, testing::AnyOf("Query account failed", StartsWith("{\"activated\"")))
        << "failed platform call number " << n << ": " << platform().nth_call().ToText();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(platform().live_objects(), 0) << n;
  }
}

// ---- Logout.

TEST_F(NodelinkTest, FailedLogoutIsPrintedWithoutALineEndOfItsOwn) {
  hooks().backtrace = [](void**, int) { return 0; };
  const Outcome outcome = Nodelink({"--logout"});
  EXPECT_EQ(outcome.out, "Failed to logout: Wrong JSON format [code=2]\n- empty\n\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(HasRecord());
}

TEST_F(NodelinkTest, LogoutWithoutAnAccountClearsTheDeviceAndPrintsNothing) {
  RemoveRecord();
  test_files::Write(kPkceLoginConfigPath, "{\"client_id\": \"login\", \"scope\": \"openid\"}");
  const Outcome outcome = Nodelink({"--logout"});
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(requests_, 0);
  EXPECT_THAT(platform().plugin_runs, ElementsAre(fake_hos::PluginRun{"zomi", "zomi/logout", 4}));
  EXPECT_EQ(platform().call_count("ConfigManager::Remove"), 1U);
}

// ---- Update.

TEST_F(NodelinkTest, UpdateWritesTheJobAndPrintsNothing) {
  const Outcome outcome = Nodelink({"--update"});
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(platform().crond_lists["zomi"][0]["crontab"].asString(), "~ 9~16 * * 1~5");
}

TEST_F(NodelinkTest, FailedUpdateIsPrintedWithoutALineEndOfItsOwn) {
  hooks().backtrace = [](void**, int) { return 0; };
  platform().OnCall("KLIBCFileGetKeyValue", [](const fake_hos::Call& call) {
    if (call.args.at(1) == "report_cron_timestring") throw ZomiException(kSystemError);
  });
  const Outcome outcome = Nodelink({"--update"});
  EXPECT_EQ(outcome.out, "Failed to update crond: System error [code=6]\n- empty\n\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST_F(NodelinkTest, OtherExceptionsAreNotCaught) {
  platform().OnCall("KLIBCFileGetKeyValue",
                    [](const fake_hos::Call&) { throw std::runtime_error("other"); });
  EXPECT_THROW((void)Nodelink({"--update"}), std::runtime_error);
}

}  // namespace
}  // namespace nodelink
