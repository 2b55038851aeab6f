// The cloud's accounts, devices and the links between them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "devcloud/state/account.h"
#include "devcloud/state/database.h"

namespace devcloud {

// All operations throw std::runtime_error when the database fails.
class Store {
 public:
  // `database` must outlive the store.
  explicit Store(Database& database);

  // Takes a new user id unless the account has one. False when e-mail or user id are taken.
  [[nodiscard]] bool AddAccount(Account& account, const std::string& password);
  // Replaces all but password and user id. False when the e-mail is taken by another account.
  [[nodiscard]] bool UpdateAccount(const Account& account);
  void SetPassword(const std::string& user_id, const std::string& password);
  [[nodiscard]] bool PasswordFits(const std::string& user_id, const std::string& password);
  // Drops the account and all its links. False when there is none.
  bool RemoveAccount(const std::string& user_id);
  [[nodiscard]] std::optional<Account> FindAccount(const std::string& user_id);
  [[nodiscard]] std::optional<Account> FindAccountByEmail(const std::string& email);
  [[nodiscard]] std::vector<Account> Accounts();

  // Adds the device or replaces what is known of it.
  void PutDevice(const Device& device);
  bool RemoveDevice(const std::string& serial);
  [[nodiscard]] std::optional<Device> FindDevice(const std::string& serial);
  [[nodiscard]] std::vector<Device> Devices();

  // Logs the device in to the account, in place of any other; the auth key stays when it was this
  // account already. Nothing when this would be one account too many for the device. Device and
  // account must exist.
  [[nodiscard]] std::optional<Link> LinkDevice(const std::string& serial,
                                               const std::string& user_id);
  bool Unlink(const std::string& serial);
  [[nodiscard]] std::optional<Link> FindLink(const std::string& serial);
  [[nodiscard]] std::optional<Link> FindLinkByAuthKey(const std::string& auth_key);

 private:
  [[nodiscard]] bool RegisterWithDevice(const Device& device, const std::string& user_id);

  Database& database_;
};

}  // namespace devcloud
