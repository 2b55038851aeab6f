// The device and its cloud as the torture's cases find and leave them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lab/device.h"
#include "lab/torture/people.h"

namespace torture {

// What a program was started for.
struct Command {
  enum class Kind { kReport, kQuery, kLogout, kUpdate, kPasswordLogin, kBrowserLogin };
  Kind kind;
  const Person* person = nullptr;  // who logs in

  [[nodiscard]] bool is_login() const {
    return kind == Kind::kPasswordLogin || kind == Kind::kBrowserLogin;
  }
  [[nodiscard]] bool is_logout() const { return kind == Kind::kLogout; }
  // Whether a program of this kind that ended so did what it was started for.
  [[nodiscard]] bool Succeeded(const lab::ProcessResult& result) const;
};

class World : public lab::Device {
 public:
  World();

  // An unlinked device without files of its own, and a cloud without faults.
  void Reset();

  // Links the device to the person's account by password, with tokens and everything else that a
  // first report brings. Throws std::runtime_error when that does not work.
  void Link(const Person& person);

  void EndLinkAtServer();      // the device is not told
  void RevokeTokens();         // likewise
  static void ExpireTokens();  // renewal is due
  static void AgeProfile();    // so that a query asks the server

  devcloud::Cloud& cloud() { return cloud_; }
  std::optional<devcloud::Link> ServerLink() { return cloud_.store().FindLink(lab::kSerial); }
  std::string UserIdOf(const Person& person);
  // The account whose tokens the device has; nothing without tokens, "" for unknown ones.
  std::optional<std::string> OwnerOfTokens();

  // Notices to administrators so far.
  static std::size_t Notices();
  // What plug-ins were told since the last Reset(): "login 5", "logout 4".
  static std::vector<std::string> PlugInCalls();
};

}  // namespace torture
