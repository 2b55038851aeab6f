#include "tests/e2e/https_flow.h"

#include <unistd.h>

#include <ctime>
#include <utility>

namespace {

constexpr char kBadAddress[] = "127.0.0.2";
constexpr char kTokenTexts[] =
    R"("access_token":"access-secret","id_token":"id-secret","refresh_token":"refresh-secret")";

// Every host at home, but `bad` where the bad server listens.
void MoveHost(const std::string& bad) {
  std::string text = "127.0.0.1 localhost\n";
  for (const std::string& host : devcloud::DefaultHosts()) {
    text += (host == bad ? kBadAddress : "127.0.0.1") + (" " + host) + "\n";
  }
  test_files::Write("/etc/hosts", text);
}

void WriteTokens(long age) {
  test_files::Write(kTokens,
                    std::string("{") + kTokenTexts + ",\"expires_in\":3600,\"created_at\":" +
                        std::to_string(std::time(nullptr) - age) + "}\n",
                    0600);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const HttpsFlow& flow) { return out << flow.Name(); }

std::string HttpsFlow::Name() const {
  return flow.name == request.name ? flow.name : flow.name + "_" + request.name;
}

const std::vector<HttpsFlow>& HttpsFlows() {
  static const std::vector<HttpsFlow> all = [] {
    std::vector<HttpsFlow> flows;
    for (const lab::Flow& flow : lab::Flows()) {
      for (const lab::Request& request : flow.requests) {
        if (request.unreached) flows.push_back({flow, request});
      }
    }
    return flows;
  }();
  return all;
}

BadHost::BadHost(const std::string& host, const devcloud::TlsSettings& tls)
    : server_({.address = kBadAddress, .port = 443, .tls = tls},
              [this](const devcloud::Request&) { return Answer(); }) {
  MoveHost(host);
}

void BadHost::SetAnswer(devcloud::Response answer, std::function<void()> look) {
  const std::lock_guard lock(mutex_);
  answer_ = std::move(answer);
  look_ = std::move(look);
}

devcloud::Response BadHost::Answer() {
  const std::lock_guard lock(mutex_);
  if (look_) look_();
  return answer_;
}

HttpsFlowTest::HttpsFlowTest() : bad_(GetParam().request.host(), Tls({})) {
  LinkDevice();
  record_ = test_files::Read(kRecord) + "zomiID=\"" + kEmail + "\"\nlast_query_time=\"0\"\n";
  // What the identity server says to those flows that get past it.
  devcloud::FaultRule rule;
  rule.path = kTokenPath;
  rule.status = 200;
  rule.body = std::string("{") + kTokenTexts + ",\"expires_in\":3600}";
  cloud_.faults().Add(rule);
}

void HttpsFlowTest::Prepare() {
  test_files::Write(kRecord, record_, 0600);
  for (const char* path : {kTokens, kApiKeyFile, kReportJob}) unlink(path);
  const lab::Stored stored = GetParam().flow.stored;
  if (stored == lab::Stored::kNothing) return;
  test_files::Write(kApiKeyFile, "api-key-secret\n", 0600);
  if (stored != lab::Stored::kNoTokens) {
    WriteTokens(stored == lab::Stored::kExpiredTokens ? 7200 : 0);
  }
}

// Whoever signs in by browser says what no server knows.
lab::ProcessResult HttpsFlowTest::RunFlow(const std::vector<std::string>& prefix) {
  const lab::Command& command = GetParam().flow.command;
  std::vector<std::string> words = prefix;
  words.insert(words.end(), command.words.begin(), command.words.end());
  return lab::RunProcess(words,
                         {.stdin_text = command.by_browser ? "code-secret\n" : command.input()});
}

// Without what a browser login has stored before it comes to the request in question.
std::string HttpsFlowTest::State() {
  const bool stores_tokens = GetParam().request.path == std::string_view(lab::kExchangePath);
  return test_files::Read(kRecord) + "|" + (stores_tokens ? "" : test_files::Read(kTokens)) + "|" +
         test_files::Read(kApiKeyFile) + "|" + test_files::Read(kReportJob);
}

void HttpsFlowTest::ExpectFailure(const lab::ProcessResult& result) {
  const lab::Command& command = GetParam().flow.command;
  EXPECT_FALSE(result.timed_out);
  EXPECT_TRUE(command.failed.Fits(result))
      << "status " << result.exit_status << ", signal " << result.signal << "\n"
      << result.out.substr(0, 200) << result.err.substr(0, 200);
  EXPECT_TRUE(!command.by_browser || result.out.starts_with("Open this address")) << result.out;
}
