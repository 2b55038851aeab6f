#include "tests/deviceapi/sender_fixture.h"

#include "devcloud/api/device_token.h"

nodelink::SzHash SenderTest::MakeParams() const {
  nodelink::SzHash params(KLIBCSzHashAlloc(1024));
  for (const auto& [name, value] : params_) {
    EXPECT_EQ(KLIBCSzHashSetValue(params.get(), name.c_str(), value.c_str()), 0);
  }
  return params;
}

Outcome SenderTest::Send() {
  const nodelink::SzHash params = MakeParams();
  nodelink::DeviceApiRequest request{};
  request.host = host_.c_str();
  request.path = path_.c_str();
  request.params = params.get();
  account_id_.copy(request.account_id, sizeof request.account_id - 1);
  account_password_.copy(request.account_password, sizeof request.account_password - 1);
  request.use_get = use_get_;
  request.quick = quick_;
  nodelink::SetLastErrorCode(kUntouchedCode);
  if (failing_call_ != 0) platform().FailNthCallOverall(failing_call_);
  nodelink::DeviceApiResponse response{};
  Outcome outcome;
  outcome.result = nodelink::DeviceApiSend(&request, &response);
  outcome.code = nodelink::LastErrorCode();
  outcome.transfer_result = response.transfer_result;
  outcome.http_status = response.http_status;
  if (response.body != nullptr) outcome.body = response.body;
  nodelink::DeviceApiResponseFree(&response);
  return outcome;
}

Outcome SenderTest::SendFailing(std::uint32_t code) {
  const Outcome outcome = Send();
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.code, code);
  EXPECT_EQ(outcome.body, std::nullopt);
  return outcome;
}

std::string SenderTest::Prefix(const std::string& serial) const {
  return "hs_sn=" + serial +
         "&hs_token=" + devcloud::DeviceToken(serial, account_id_, account_password_);
}
