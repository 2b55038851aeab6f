// Answers to the flows of the device API. Input: the flow ("q" query, "r" report, "l" password
// login), then up to four answers (answers.h).
#include "account/account_data.h"
#include "core/error_code.h"
#include "deviceapi/zomi_account_login.h"
#include "deviceapi/zomi_account_query_info.h"
#include "deviceapi/zomi_report_info.h"
#include "fuzz/answers.h"
#include "fuzz/property.h"

namespace {

using nodelink::Quick;

void CheckFailed() {
  fuzz::Check(nodelink::LastErrorCode() != nodelink::kSuccess, "a failure has a code");
}

void Query() {
  Json::Value output(Json::objectValue);
  if (nodelink::ZomiAccountQueryInfo(output, nodelink::Refresh::kYes, Quick::kYes) < 0) {
    CheckFailed();
    fuzz::Check(fuzz::IsRecordOldOrGone(), "a failed query changes nothing or logs out");
    return;
  }
  nodelink::AccountData account;
  fuzz::Check(nodelink::ReadAccountData(account) == 0 && account.last_query_time > 0,
              "a good query is in the record");
  fuzz::Check(
      output["auth_key"] == "key" && output["email"].asString() == account.zomi_id.substr(0, 2047),
      "what is given out is what is in the record");
}

void Report() {
  if (nodelink::ReportDeviceInfo() < 0) CheckFailed();
}

void Login() {
  Json::Value result;
  if (nodelink::ZomiAccountLogin("anna", "secret", result, Quick::kYes) < 0) {
    CheckFailed();
    fuzz::Check(fuzz::IsRecordOldOrGone(), "a failed login changes nothing");
    return;
  }
  fuzz::Check(result.isObject() && result.isMember("id") && result.isMember("auth_key"),
              "a login gives the server's answer");
}

void Run(const std::string& flow) {
  if (flow == "r") return Report();
  return flow == "l" ? Login() : Query();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto parts = fuzz::Parts(data, size, 5);
  fuzz::MakeDevice();
  fuzz::SetAnswers({parts.begin() + 1, parts.end()});
  (void)fuzz::Succeeds([&] { Run(parts[0]); });
  fuzz::Check(fuzz::AreTokensWhole(), "a token file is the old one or whole");
  return 0;
}
