// The device and its cloud as the torture's cases find and leave them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lab/flow.h"

namespace torture {

class World : public lab::Device {
 public:
  World();

  // An unlinked device without files of its own, and a cloud without faults.
  void Reset();
  // The same of the device alone; the cloud may go on believing that it is linked.
  static void ForgetFiles();

  // Links the device to the person's account by password, with tokens and everything else that a
  // first report brings. Throws std::runtime_error when that does not work.
  void Link(const lab::Person& person);

  // Makes of a device that is linked so what a flow starts from.
  void Change(lab::Stored stored);
  // Both in one, for a device without files.
  void Prepare(const lab::Flow& flow);

  devcloud::Cloud& cloud() { return cloud_; }
  std::optional<devcloud::Link> ServerLink() { return cloud_.store().FindLink(lab::kSerial); }
  std::string UserIdOf(const lab::Person& person);
  // The account whose tokens the device has; nothing without tokens, "" for unknown ones.
  std::optional<std::string> OwnerOfTokens();
  // Of the log and of the cloud's requests.
  void ForgetThePast();

  // Notices to administrators so far.
  static std::size_t Notices();
  // Plug-ins that note what they are told, and what that was since the last Reset(): "login 5",
  // "logout 4".
  static void InstallPlugIns();
  static std::vector<std::string> PlugInCalls();

 private:
  std::optional<devcloud::Family> FamilyOfTokens();
};

}  // namespace torture
