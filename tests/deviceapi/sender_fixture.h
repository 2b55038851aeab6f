// The fixture of the sender's tests: one request, sent to the test's own server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/error_code.h"
#include "core/platform_owner.h"
#include "deviceapi/zomi_https_req_send.h"
#include "tests/deviceapi/account_server.h"

// What a send came to.
struct Outcome {
  int result = 0;
  std::uint32_t code = 0;  // the last error code after it
  std::int32_t transfer_result = 0;
  long http_status = 0;
  std::optional<std::string> body;
};

class SenderTest : public DeviceApiTest {
 protected:
  Outcome Send();

  // Sends and expects it to fail with `code`, without a body.
  Outcome SendFailing(std::uint32_t code = nodelink::kRequestNotSent);

  // What stands before the parameters of the hash: the device's serial number and token.
  [[nodiscard]] std::string Prefix(const std::string& serial = "FAKE123456789") const;

  // The URL that the request goes to.
  [[nodiscard]] std::string Url() const { return host_ + "/" + path_; }

  std::string host_ = server_.Url();
  std::string path_ = "device/api/report";
  fake_hos::Pairs params_ = {{"id", "42"}};
  std::string account_id_;
  std::string account_password_;
  int use_get_ = 0;
  int quick_ = 0;
  int failing_call_ = 0;  // the platform call of the sender that fails, of whatever name

 private:
  [[nodiscard]] nodelink::SzHash MakeParams() const;
};
