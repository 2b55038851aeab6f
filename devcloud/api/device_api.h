// The account host's device API and the cloud-service host's key registration.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "devcloud/http/form.h"
#include "devcloud/http/router.h"
#include "devcloud/state/store.h"
#include "devcloud/state/wall_clock.h"

namespace devcloud {

class DeviceApi {
 public:
  // `store` must outlive the object.
  DeviceApi(Store& store, WallClock clock);

  // Adds the paths to the router, which must not outlive the object.
  void AddRoutes(Router& router);

  // The link that the form's "id", "auth_key" and "serial_no" prove, if they do.
  [[nodiscard]] std::optional<Link> FindProvenLink(const Form& form);

 private:
  using Method = Response (DeviceApi::*)(const Form&);

  [[nodiscard]] Response AnswerForm(const Request& request, Method method);
  [[nodiscard]] Response AnswerProvenForm(const Request& request, Method method);
  [[nodiscard]] Response Query(const Form& form);
  [[nodiscard]] Response Report(const Form& form);
  [[nodiscard]] Response PasswordLogin(const Form& form);
  [[nodiscard]] Response RegisterApiKey(const Form& form);

  [[nodiscard]] std::string JudgeApiKey(const Form& form);
  [[nodiscard]] std::string JudgeCredentials(const Form& form);
  [[nodiscard]] std::optional<std::string> ScheduleFor(const std::string& serial,
                                                       const Account& account);
  void NoteReport(const std::string& serial, const std::string& timezone,
                  const std::optional<std::string>& schedule);

  Store& store_;
  WallClock clock_;
};

// The form of a request, nothing unless it says that it is one and parses.
[[nodiscard]] std::optional<Form> ReadForm(const Request& request);

}  // namespace devcloud
