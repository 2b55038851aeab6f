// Who may read what, and where secrets may not turn up.
#include <json/reader.h>
#include <json/value.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <utility>

#include "lab/flow.h"
#include "tests/e2e/device_fixture.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constexpr char kTrace[] = "/var/tmp/trace";
constexpr char kProbe[] = "/var/tmp/probe";

Json::Value ParseObject(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) ||
      !value.isObject()) {
    return Json::Value(Json::objectValue);
  }
  return value;
}

// The secrets that requests and answers carried.
std::set<std::string> SecretsIn(const std::vector<devcloud::LogEntry>& entries) {
  std::set<std::string> secrets;
  const std::regex field(
      "(?:^|&)(?:passwd|api_key|auth_key|access_token|refresh_token|code|code_verifier|hs_token)="
      "([^&]+)");
  for (const devcloud::LogEntry& entry : entries) {
    const std::string& body = entry.request.body;
    for (std::sregex_iterator match(body.begin(), body.end(), field), end; match != end; ++match) {
      secrets.insert((*match)[1]);
    }
    const Json::Value answer = ParseObject(entry.answer);
    for (const char* name :
         {"api_key", "auth_key", "access_token", "refresh_token", "id_token", "grant_code"}) {
      secrets.insert(answer[name].asString());
    }
  }
  secrets.erase("");
  return secrets;
}

class LeastPrivilege : public DeviceTest {
 protected:
  // Words before each of the device's programs, for instance a tracer.
  void RunBehind(std::vector<std::string> prefix) { prefix_ = std::move(prefix); }

  lab::ProcessResult RunProgram(const std::string& program, const std::vector<std::string>& options,
                                const std::string& input = "") {
    std::vector<std::string> words = prefix_;
    words.push_back("/usr/kivo/bin/" + program);
    words.insert(words.end(), options.begin(), options.end());
    return lab::RunProcess(words, {.stdin_text = input});
  }

  lab::ProcessResult Nodelink(const std::string& option) {
    return RunProgram("nodelink", {option});
  }

  lab::ProcessResult LogInByPassword(const std::string& password = kPassword) {
    return RunProgram("nodelink-login", {"--password", kEmail}, password + "\n");
  }

  lab::ProcessResult LogInByBrowser() {
    return lab::Start(lab::BrowserLogin(lab::kAnna), prefix_)->Wait();
  }

  // Every flow once, as it should go.
  void LiveALife() {
    EXPECT_EQ(LogInByPassword().exit_status, 0);
    EXPECT_EQ(Nodelink("--report_info").exit_status, 0);
    AgeTokens(7200);
    EXPECT_EQ(Nodelink("--report_info").exit_status, 0);
    EXPECT_THAT(Nodelink("--query_account").out, HasSubstr(kEmail));
    EXPECT_EQ(Nodelink("--notify_logout").exit_status, 0);
    EXPECT_EQ(Nodelink("--update").exit_status, 0);
  }

  void EndIt() {
    EXPECT_EQ(LogInByBrowser().exit_status, 0);
    EXPECT_EQ(Nodelink("--logout").out, "");
  }

  void Fault(const std::string& path, int status, const std::string& body) {
    devcloud::FaultRule rule;
    rule.path = path;
    rule.status = status;
    rule.body = body;
    cloud_.faults().Add(rule);
  }

 private:
  std::vector<std::string> prefix_;
};

std::string ModeAndOwner(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return "missing";
  std::ostringstream text;
  text << std::oct << (status.st_mode & 07777U) << std::dec << " " << status.st_uid << ":"
       << status.st_gid;
  return text.str();
}

class Umask : public LeastPrivilege, public testing::WithParamInterface<const char*> {};

TEST_P(Umask, ChangesNoModeOfAFile) {
  std::filesystem::remove("/usr/kivo/etc/cloudservice");
  RunBehind({"sh", "-c", std::string("umask ") + GetParam() + "; exec \"$0\" \"$@\""});
  LiveALife();
  for (const char* path : {kRecord, kTokens, kApiKeyFile, kNotices}) {
    EXPECT_EQ(ModeAndOwner(path), "600 0:0") << path;
  }
  EXPECT_EQ(ModeAndOwner(kReportJob), "644 0:0");
  EXPECT_EQ(ModeAndOwner("/usr/kivo/etc/cloudservice"), "700 0:0");
  EXPECT_EQ(ModeAndOwner("/usr/kivo/etc/veltrix-account/private"), "700 0:0");
  for (const char* name : {"query_info", "login_get_token", "login_renew_token", "login_save_token",
                           "login_exchange_token"}) {
    EXPECT_EQ(ModeAndOwner(std::string("/tmp/account_") + name + ".lock"), "666 0:0") << name;
  }
  EndIt();
  EXPECT_EQ(ModeAndOwner(kEvents), "600 0:0");
}

INSTANTIATE_TEST_SUITE_P(Masks, Umask, testing::Values("0", "022", "077"),
                         [](const auto& mask) { return std::string("Mask") + mask.param; });

#ifndef __SANITIZE_ADDRESS__  // its leak checker and a tracer exclude each other
class Traced : public LeastPrivilege {
 protected:
  // The lines of the trace of all that LiveALife and EndIt do, as long as `calls` are concerned.
  std::vector<std::string> Trace(const std::string& calls) {
    RunBehind({"strace", "-f", "-A", "-v", "-s", "65536", "-o", kTrace, "-e", "trace=" + calls,
               "--", "sh", "-c", "umask 0; exec \"$0\" \"$@\""});
    LiveALife();
    EndIt();
    std::istringstream file(test_files::Read(kTrace));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }
};

// Under no mask at all, so that each mode is the program's own doing.
TEST_F(Traced, SecretsAreBornPrivate) {
  int made = 0;
  const std::regex making("openat?\\(.*O_CREAT.*, 0([0-7]+)\\)");
  const std::regex changing("chmod(at)?\\(.*, 0([0-7]+)");
  for (const std::string& line :
       Trace("open,openat,openat2,creat,mkdir,mkdirat,chmod,fchmod,fchmodat")) {
    std::smatch mode;
    const bool lock = line.find("\"/tmp/account_") != std::string::npos;
    if (!lock && std::regex_search(line, mode, making)) {
      ++made;
      EXPECT_EQ(mode[1], "600") << line;
    }
    // The report's job is everybody's to read, and holds no secret.
    if (std::regex_search(line, mode, changing) && mode[2] != "600") {
      EXPECT_EQ(mode[2], "644") << line;
      EXPECT_THAT(line, Not(HasSubstr("veltrix-account")));
    }
    EXPECT_THAT(line, Not(HasSubstr("creat(")));
  }
  EXPECT_GT(made, 10);
}

TEST_F(Traced, NoSecretIsInAnyCommandLineOrEnvironment) {
  const auto lines = Trace("execve,execveat");
  auto secrets = SecretsIn(Requests());
  secrets.insert(kPassword);
  EXPECT_GT(secrets.size(), 10U);
  EXPECT_THAT(lines, Contains(HasSubstr("/bin/rm -f")));
  EXPECT_THAT(lines, Contains(HasSubstr("kivohosnotify")));
  for (const std::string& line : lines) {
    for (const std::string& secret : secrets) {
      EXPECT_THAT(line, Not(HasSubstr(secret)));
    }
  }
}
#endif

// A line that may quote a secret, and why.
struct Exception {
  const char* begin;
  const char* reason;
};

constexpr Exception kExceptions[] = {
    {"pkce_client Failed to PkceLogin by [", "quotes code, verifier and the server's answer"},
    {"pkce_client Failed to RenewToken by [", "quotes ten characters and the server's answer"},
    {"account_pkce_service Failed to ExchangeAuthKey by [", "quotes the access token"},
    {"user Failed to set zomi config for hs_auth_key:", "quotes the value that was not written"},
};

bool IsException(const std::string& line) {
  return std::any_of(std::begin(kExceptions), std::end(kExceptions),
                     [&](const Exception& entry) { return line.starts_with(entry.begin); });
}

class Secrets : public LeastPrivilege {
 protected:
  // Each request of each flow fails once in each of these ways.
  void FailEverywhere() {
    for (const std::string& path : lab::RequestPaths()) {
      for (const auto& [status, body] : {std::pair{200, "<html>"}, {200, "{}"}, {500, "[]"}}) {
        Fault(path, status, body);
        TryAll();
        cloud_.faults().Clear();
      }
    }
  }

  void TryAll() {
    LinkDevice();
    test_files::Write(kRecord, test_files::Read(kRecord) + "zomiID=\"" + kEmail + "\"\n", 0600);
    unlink(kApiKeyFile);
    Nodelink("--query_account");
    LogInByPassword();
    Nodelink("--report_info");
    if (test_files::Exists(kTokens)) AgeTokens(7200);
    Nodelink("--logout");
    RunProgram("nodelink-login", {"--browser"}, "a-code-of-no-use\n");
  }

  void ExpectNoneLogged() {
    auto secrets = SecretsIn(Requests());
    secrets.insert({kPassword, "another secret"});
    ASSERT_GT(secrets.size(), 10U);
    for (const std::string& line : Log()) {
      for (const std::string& secret : secrets) {
        EXPECT_TRUE(line.find(secret) == std::string::npos || IsException(line)) << line;
      }
    }
  }
};

TEST_F(Secrets, AreNotLoggedWhenAllGoesWell) {
  LiveALife();
  EndIt();
  for (const std::string& line : Log()) {
    EXPECT_FALSE(IsException(line)) << line;
  }
  ExpectNoneLogged();
}

TEST_F(Secrets, AreNotLoggedWhenServersFail) {
  FailEverywhere();
  EXPECT_EQ(LogInByPassword("another secret").exit_status, 1);
  EXPECT_THAT(Log(), testing::SizeIs(testing::Ge(50)));
  ExpectNoneLogged();
}

TEST_F(Secrets, AreNotLoggedWhenTheServersAreNotTrustedOrAway) {
  cloud_.SetTls({.certificate = devcloud::CertificateKind::kExpired});
  TryAll();
  cloud_.Stop();
  TryAll();
  for (const std::string& line : Log()) {
    EXPECT_FALSE(IsException(line)) << line;
    EXPECT_THAT(line, Not(HasSubstr(kPassword)));
    EXPECT_THAT(line, Not(HasSubstr(RecordValue("hs_auth_key").value_or("?"))));
  }
}

// Nothing of the device's may pass into programs of others.
class Children : public LeastPrivilege {
 protected:
  // A program that says which descriptors it has and with what it was called.
  static std::string Probe() {
    return std::string(
               "#!/bin/bash\nfor fd in /proc/$$/fd/*; do echo \"${fd##*/} "
               "$(readlink \"$fd\")\"; done >>") +
           kProbe + "\necho \"$0 $*\" >>" + kProbe + "\n";
  }

  static void ExpectStreamsOnly() {
    std::istringstream lines(test_files::Read(kProbe));
    const std::regex descriptor("([0-9]+) (.*)");
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
      if (!std::regex_match(line, match, descriptor)) continue;
      const bool shells_own = match[2] == kProbe || match[2].str().starts_with("pipe:") ||
                              match[2].str().ends_with("/probe-plugin") || match[1] == "255";
      EXPECT_TRUE(shells_own || match[2] == "/dev/null") << line;
    }
  }

  // As a careless caller would start the program: with descriptors of its own open.
  void LeakDescriptors() {
    test_files::Write("/etc/callers-secret", "x", 0600);
    RunBehind({"bash", "-c",
               "exec 5</etc/callers-secret 6>/etc/callers-log 77</etc/callers-secret; "
               "exec \"$0\" \"$@\""});
  }
};

TEST_F(Children, GetNoDescriptors) {
  for (const char* action : {"login", "logout"}) {
    const std::string folder = std::string("/usr/kivo/lib/plugin/zomi/") + action;
    std::filesystem::create_directories(folder);
    test_files::Write(folder + "/probe-plugin", Probe(), 0755);
  }
  test_files::Write("/usr/kivo/bin/kivohosnotify", Probe(), 0755);
  LeakDescriptors();
  LiveALife();
  EndIt();
  EXPECT_THAT(test_files::Read(kProbe), HasSubstr("login/probe-plugin 5\n"));
  EXPECT_THAT(test_files::Read(kProbe), HasSubstr("login/probe-plugin 4\n"));
  EXPECT_THAT(test_files::Read(kProbe), HasSubstr("logout/probe-plugin 4\n"));
  EXPECT_THAT(test_files::Read(kProbe), HasSubstr("kivohosnotify -e false"));
  ExpectStreamsOnly();
}

TEST_F(Children, TheShellGetsNoDescriptors) {
  LeakDescriptors();
  LiveALife();
  test_files::Write("/etc/shell", Probe() + "exec /bin/bash \"$@\"\n", 0755);
  const std::string shell = std::filesystem::canonical("/bin/sh");
  ASSERT_EQ(mount("/etc/shell", shell.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(Nodelink("--logout").out, "");
  ASSERT_EQ(umount(shell.c_str()), 0);
  EXPECT_THAT(test_files::Read(kProbe), HasSubstr("-c /bin/rm -f /usr/kivo/etc/"));
  EXPECT_FALSE(test_files::Exists(kTokens));
  ExpectStreamsOnly();
}

}  // namespace
