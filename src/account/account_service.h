// The account flows of the device API for the object layer.
#pragma once

#include <json/value.h>

#include <string>

namespace nodelink {

class AccountService {
 public:
  AccountService() = default;
  AccountService(const AccountService&) = delete;
  AccountService& operator=(const AccountService&) = delete;
  virtual ~AccountService() = default;

  // Links the device to the account `identifier` (its e-mail address) by its password
  // (deviceapi/zomi_account_login.h). Returns the server's answer, an object with "id" and
  // "auth_key". Throws ZomiException with the login's error code.
  Json::Value login(const std::string& identifier, const std::string& password);

  // The linked account's profile, asked of the server with short time limits
  // (deviceapi/zomi_account_query_info.h). A failed query, whatever the reason, drops the record.
  // Throws ZomiException with the query's error code.
  Json::Value query();

  // Rewrites the cron job of the periodic report from the record's schedule, unless the report is
  // switched off, and drops the older schedule's entry for it. A job that cannot be saved is logged
  // only. Throws ZomiException when the record cannot be read.
  void updateCrondJob();
};

}  // namespace nodelink
