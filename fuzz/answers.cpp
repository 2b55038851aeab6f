#include "fuzz/answers.h"

#include <unistd.h>

#include <boost/lexical_cast/bad_lexical_cast.hpp>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "account/account_files.h"
#include "core/error_code.h"
#include "core/json.h"
#include "core/json_value.h"
#include "core/zomi_exception.h"
#include "deviceapi/zomi_https_req_send.h"
#include "fuzz/property.h"
#include "klibc/string.h"
#include "lab/files.h"
#include "pkce/http_request.h"
#include "pkce/pkce_config.h"
#include "tests/fake_hos/fake_hos.h"

namespace fuzz {
namespace {

constexpr char kTokenPath[] = "/usr/kivo/etc/veltrix-account/private/login_token.json";
constexpr std::size_t kMostRequests = 12;

constexpr char kRecord[] =
    "zomiID=\"anna@example.com\"\nzomiIDSerial=\"77\"\nhs_auth_key=\"key\"\nemail=\"x\"\n";

constexpr char kLoginConfig[] =
    R"({"client_id":"c","scope":"openid $sn$ $mac$","token_endpoint_path":"/token",)"
    R"("login_redirect_path":"/back"})";

struct Answer {
  char kind;
  std::string body;
};

struct Network {
  std::vector<std::string> answers;
  std::size_t requests = 0;

  Answer Next() {
    const std::size_t place = std::min(requests++, answers.size() - 1);
    const std::string& answer = answers[place];
    return answer.empty() ? Answer{'-', ""} : Answer{answer.front(), answer.substr(1)};
  }
};

Network& network() {
  static Network the_network{{""}};
  return the_network;
}

// 0 when nothing came back.
int StatusOf(const Answer& answer) {
  switch (answer.kind) {
    case '2': return 200;
    case '4': return 401;
    case '5': return 500;
    default: return 0;
  }
}

int RunCommand(const fake_hos::ExecRun& run) {
  if (run.path == "/bin/sh") unlink(kTokenPath);
  return 0;
}

bool IsTokenFile(const std::string& text) {
  Json::Value tokens;
  if (!nodelink::json::fromString(text, tokens)) return false;
  for (const char* name : {"access_token", "id_token", "refresh_token", "created_at"}) {
    if (!nodelink::json::TextMember(tokens, name)) return false;
  }
  return true;
}

bool Runs(const std::function<void()>& flow) {
  try {
    flow();
    return true;
  } catch (const nodelink::ZomiException& failure) {
    Check(failure.code() != nodelink::kSuccess, "a failure has a code");
  } catch (const boost::bad_lexical_cast&) {
    // A token file whose times are no numbers.
  }
  return false;
}

}  // namespace

void SetAnswers(std::vector<std::string> answers) { network() = {std::move(answers), 0}; }

std::size_t RequestCount() { return network().requests; }

void MakeDevice() { MakeDevice(kFirstTokens); }

void MakeDevice(const std::string& tokens) {
  fake_hos::platform().Reset();
  fake_hos::platform().exec = RunCommand;
  test_files::Write(nodelink::account_files::kRecord, kRecord);
  test_files::Write(nodelink::kPkceLoginConfigPath, kLoginConfig);
  test_files::Write(kTokenPath, tokens);
}

std::string Record() { return test_files::Read(nodelink::account_files::kRecord); }

std::string Tokens() { return test_files::Read(kTokenPath); }

bool IsRecordOldOrGone() {
  const std::string record = Record();
  return record == kRecord ||
         (record.empty() && access(nodelink::account_files::kRecord, F_OK) != 0);
}

bool AreTokensWhole() {
  const std::string tokens = Tokens();
  return tokens == kFirstTokens || access(kTokenPath, F_OK) != 0 || IsTokenFile(tokens);
}

bool Succeeds(const std::function<void()>& flow) {
  const bool success = Runs(flow);
  Check(fake_hos::platform().live_objects() == 0, "nothing of the platform's is kept");
  Check(RequestCount() <= kMostRequests, "no answer makes a flow ask on and on");
  return success;
}

}  // namespace fuzz

namespace nodelink {

HttpAnswer Post(const HttpRequest&) {
  const fuzz::Answer answer = fuzz::network().Next();
  HttpAnswer result;
  result.status = fuzz::StatusOf(answer);
  if (result.status == 0) {
    result.error_code = 1;
    result.error_message = "no transfer";
  } else {
    result.text = answer.body;
  }
  return result;
}

int DeviceApiSend(const DeviceApiRequest*, DeviceApiResponse* response) {
  *response = DeviceApiResponse{};
  const fuzz::Answer answer = fuzz::network().Next();
  if (answer.kind != '2' || answer.body.empty()) {
    SetLastErrorCode(kRequestNotSent);
    return -1;
  }
  response->http_status = fuzz::StatusOf(answer);
  response->body = strdup(answer.body.c_str());
  KLIBCStrTrimSpace(response->body);
  return 0;
}

}  // namespace nodelink
