#include "tests/support/session_fixture.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <ostream>

#include "core/zomi_exception.h"
#include "kivo/zomi_server_config.h"

namespace session {

std::string TokenAnswer(const std::string& name, const std::string& more) {
  return R"({"access_token":")" + name + R"(-access","id_token":")" + name +
         R"(-id","refresh_token":")" + name + R"(-refresh")" + (more.empty() ? "" : "," + more) +
         "}";
}

std::string TokenFile(const std::string& name, std::time_t created_at, int expires_in) {
  return TokenAnswer(name, R"("expires_in":)" + std::to_string(expires_in) + R"(,"created_at":)" +
                               std::to_string(created_at));
}

std::string ProfileAnswer(const std::string& email) {
  return R"({"code":"good","email":")" + email +
         R"(","full_name":"Anna","country":"CH","timezone":"Zurich","notify_language":"ger",)"
         R"("activated":true,"disabled":false,"enews":false,"enews_local_promotion":false,)"
         R"("critical_release":true,"critical_version_list":{"a":true},)"
         R"("realname_validation_pass":true})";
}

std::ostream& operator<<(std::ostream& stream, const Thrown& thrown) {
  return stream << "code " << thrown.code << ", \"" << thrown.message << "\"";
}

Thrown Catch(const std::function<void()>& flow) {
  try {
    flow();
  } catch (const nodelink::ZomiException& failure) {
    const std::string text = failure.what();
    const std::string end = " [code=" + std::to_string(failure.code()) + "]\n";
    return {failure.code(), text.substr(0, text.find(end))};
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

const std::vector<NamedText>& TextsThatAreNoJson() {
  static const std::vector<NamedText> texts = {
      {"Empty", ""},
      {"Blank", " \r\n\t"},
      {"Html", "<!DOCTYPE html><html><body>Sign in to the network</body></html>"},
      {"Cut", R"({"access_token":"a","id_tok)"},
      {"TwoValues", "{} {}"},
      {"Deep", std::string(5000, '[') + std::string(5000, ']')},
      {"DeepObjects",
       [] {
         std::string text;
         for (int depth = 0; depth < 5000; ++depth) text += R"({"a":)";
         return text;
       }()},
      {"Percents", "%s%n%d"},
      {"ControlBytes", "\x01\x02\xff\xfe"}};
  return texts;
}

const std::vector<NamedText>& JsonThatIsNoObject() {
  static const std::vector<NamedText> texts = {
      {"Null", "null"},      {"True", "true"}, {"Number", "-9223372036854775808"},
      {"Text", R"("good")"}, {"List", "[]"},   {"ListOfObjects", R"([{"code":"good"}])"}};
  return texts;
}

const std::vector<NamedText>& JsonThatIsNoText() {
  static const std::vector<NamedText> texts = {
      {"Null", "null"}, {"Object", R"({"a":"b"})"}, {"List", R"(["a"])"}};
  return texts;
}

void PrintTo(const NamedText& text, std::ostream* stream) { *stream << text.name; }

}  // namespace session

namespace {

// "login_get_token" of the call that takes /tmp/account_login_get_token.lock.
std::string LockName(const fake_hos::Call& call) {
  const std::string prefix = "/tmp/account_";
  const std::string name = call.args[0].substr(prefix.size());
  return name.substr(0, name.find(".lock"));
}

}  // namespace

SessionTest::SessionTest() {
  UserAgentFails() = false;
  ServerConfigFails() = false;
  test_files::Write("/etc.defaults/kivoinfo.conf", "");
  std::filesystem::remove("/etc/kivoinfo.conf");
  test_files::Write(session::kLoginConfigPath, session::kLoginConfig);
  RemoveTokens();
  hooks().time = [this] { return now_; };
}

SessionTest::~SessionTest() {
  UserAgentFails() = false;
  ServerConfigFails() = false;
  for (const auto& entry : std::filesystem::directory_iterator(session::kPrivateFolder)) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(name == "user.conf" || name.ends_with("_token.json") || name == ".link.lock" ||
                name == ".login.lock")
        << name << " was left";
  }
}

void SessionTest::HoldLock(const std::string& name) {
  platform().OnCall("KLIBCFileLockByFile", [name](const fake_hos::Call& call) {
    platform().busy_lock_tries = LockName(call) == name ? 1 : 0;
  });
  const auto start = std::chrono::system_clock::now();
  hooks().system_clock_now = [now = start]() mutable {
    now += std::chrono::seconds(10);
    return now;
  };
  hooks().usleep = [](useconds_t) {};
}

std::vector<std::string> SessionTest::Locks() {
  std::vector<std::string> names;
  for (const fake_hos::Call& call : platform().calls("KLIBCFileLockByFile")) {
    names.push_back(LockName(call));
  }
  return names;
}

void SessionTest::CutTimeLimit() {
  hooks().curl_perform = [](CURL* curl) -> std::optional<CURLcode> {
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 200L);
    return std::nullopt;
  };
}

void SessionTest::WriteTokens(const std::string& content) {
  test_files::Write(session::kLoginTokens, content, 0600);
}

std::string SessionTest::ReadTokens() { return test_files::Read(session::kLoginTokens); }

bool SessionTest::HasTokens() { return access(session::kLoginTokens, F_OK) == 0; }

void SessionTest::RemoveTokens() { std::filesystem::remove(session::kLoginTokens); }

void SessionTest::LetRmWork() {
  platform().exec = [](const fake_hos::ExecRun& run) {
    if (run.path == "/bin/sh") RemoveTokens();
    return 0;
  };
}

std::vector<std::string> SessionTest::CallNames() {
  std::vector<std::string> names;
  for (const fake_hos::Call& call : platform().calls()) names.push_back(call.name);
  return names;
}

FullDisk::FullDisk() {
  getrlimit(RLIMIT_FSIZE, &old_limit_);
  signal(SIGXFSZ, SIG_IGN);
  const rlimit nothing{0, old_limit_.rlim_max};
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &nothing), 0);
}

FullDisk::~FullDisk() {
  setrlimit(RLIMIT_FSIZE, &old_limit_);
  signal(SIGXFSZ, SIG_DFL);
}

bool& UserAgentFails() {
  static bool fails = false;
  return fails;
}

bool& ServerConfigFails() {
  static bool fails = false;
  return fails;
}

extern "C" {

// The linker's --wrap sends the calls here; the first is nodelink::DeviceApiUserAgentGet.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)
int __real__ZN8nodelink21DeviceApiUserAgentGetEPci(char* buffer, int size);
int __real_KIVOZOMIServerConfigGet(KIVOZOMI_SERVER_CONFIG* config);

int __wrap__ZN8nodelink21DeviceApiUserAgentGetEPci(char* buffer, int size) {
  return UserAgentFails() ? -1 : __real__ZN8nodelink21DeviceApiUserAgentGetEPci(buffer, size);
}

int __wrap_KIVOZOMIServerConfigGet(KIVOZOMI_SERVER_CONFIG* config) {
  return ServerConfigFails() ? -1 : __real_KIVOZOMIServerConfigGet(config);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,readability-identifier-naming)
}
