// What the object layer asks of the device's platform: who it is, its API key, and telling its
// administrators.
#pragma once

#include <map>
#include <string>

namespace nodelink {

// Nothing is kept: each call asks the platform again. Failures are logged.
class HosService {
 public:
  // At most 35 characters. Throws ZomiException with kNoSerialNumber.
  static std::string GetSerialNumber();

  // "aa:bb:cc:dd:ee:ff". Throws ZomiException with kNoMacAddress.
  static std::string GetMacAddress();

  // Empty when the platform cannot tell.
  static std::string GetUserAgent();

  // The device's key at the vendor's cloud service, at most 1023 characters; GetApiKey registers
  // one when the device has none. Throw ZomiException with the code of the cloud-service library's
  // error.
  static std::string GetApiKey();
  static std::string RegisterApiKey();

  // Sends the administrators the notification `tag`; `params` gives the value of each placeholder
  // of its text. Never throws; failures are logged only.
  static void notify(const std::string& tag, const std::map<std::string, std::string>& params);
};

}  // namespace nodelink
