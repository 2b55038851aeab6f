// The account flows of the device API for the object layer.
//
//   nodelink::AccountService service;
//   service.onLoginWaits([] { std::puts("waiting for another login"); });
//   service.login("anna@example.org", "correct horse");
//   const Json::Value profile = service.query();
//   std::puts(profile["full_name"].asString().c_str());
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

namespace nodelink {

class AccountService {
 public:
  AccountService() = default;
  AccountService(const AccountService&) = delete;
  AccountService& operator=(const AccountService&) = delete;
  virtual ~AccountService() = default;

  // `told` is called once by a login that has waited 3 seconds for another one to end.
  void onLoginWaits(std::function<void()> told) { login_waits_ = std::move(told); }

  // Links the device to the account `identifier` (its e-mail address) by its `password`. On success
  // the record names the account and holds its profile, the report job is installed and the
  // plug-ins are told. The device's serial number, MAC address and API key are the platform's; a
  // key that the server does not know is registered anew. Logins run one at a time: waits 30
  // seconds at most for another one, and 3 attempts of 120 seconds for a request. Returns the
  // account server's answer, an object with "id" (what the server knows the device by) and
  // "auth_key". Throws ZomiException, logged, with the device as it was: kWrongParameters (empty
  // identifier or password, or the server says so), kAuthFailed (wrong password), kAccountNotFound,
  // kAccountInUse, kAccountUnverified, kSerialAtAccountLimit, kApiKeyNotFound, kApiKeyExpired (the
  // next login registers a new one), kRequestNotSent, kBadResponse, kWrongJsonFormat,
  // kNoSerialNumber, kNoMacAddress, kNetworkFailed, kAccountNotWritten, kSystemError, kGenericError
  // for a status word that nobody knows or when another login does not end, kNoAccount when another
  // process has ended or replaced the new link meanwhile.
  Json::Value login(const std::string& identifier, const std::string& password);

  // The linked account's profile, an object: the texts "auth_key", "country", "email", "full_name",
  // "notify_language" and "timezone" and the flags "activated", "critical_release", "disabled",
  // "enews" and "enews_local_promotion". Comes from the record when that is less than 300 seconds
  // old, else from the account server, in at most 2 attempts of 15 seconds, and goes into the
  // record. Beware: a failed query, whatever the reason, drops the record, so that the device is no
  // longer linked, unless another process has linked it anew meanwhile; a program that only shows
  // the profile reads the record (account/user.h). Throws ZomiException: kNoAccount (not linked),
  // kAuthFailed or kAccountNotFound (no longer accepted), kRequestNotSent, kBadResponse,
  // kWrongJsonFormat, kNoSerialNumber, kAccountNotWritten, kSystemError, kGenericError when another
  // query does not end, and the codes of the server's other status words.
  Json::Value query();

  // Rewrites the cron job of the periodic report from the record's schedule (five cron fields),
  // unless the report is switched off ("zomi_disable_report" in /etc/kivoinfo.conf), and drops the
  // older schedule's entry for it. A job that cannot be saved is logged only. Throws ZomiException
  // with kSystemError when privileges for reading the record cannot be raised.
  void updateCrondJob();

 protected:
  std::function<void()> login_waits_;
};

}  // namespace nodelink
