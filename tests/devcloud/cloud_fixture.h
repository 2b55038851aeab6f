// A development cloud in this process, with one account and one device linked to it.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "devcloud/api/device_token.h"
#include "devcloud/cloud.h"
#include "devcloud/http/form.h"
#include "devcloud/http/json_text.h"
#include "tests/devcloud/http_client.h"

namespace devcloud_test {

using Pairs = std::vector<std::pair<std::string, std::string>>;

inline constexpr char kSerial[] = "NL00000001A";
inline constexpr char kMac[] = "02:00:5e:10:00:01";
inline constexpr char kEmail[] = "anna@example.org";
inline constexpr char kPassword[] = "correct horse";

inline std::string Encode(const Pairs& pairs) {
  return pairs.empty() ? "" : devcloud::AppendQuery("", pairs).substr(1);
}

// The JSON of an answer; null for anything else.
inline Json::Value Parse(const ClientAnswer& answer) {
  return devcloud::ParseJson(answer.body).value_or(Json::Value());
}

class CloudTest : public testing::Test {
 protected:
  CloudTest() {
    EXPECT_TRUE(cloud_.store().AddAccount(account_, kPassword));
    cloud_.store().PutDevice({.serial = kSerial, .mac = kMac, .api_key = "key"});
    link_ = cloud_.store().LinkDevice(kSerial, account_.user_id).value();
  }

  void SetState(const std::string& state) {
    account_.state = state;
    EXPECT_TRUE(cloud_.store().UpdateAccount(account_));
  }

  std::string Url(const std::string& path) const { return base_ + path; }

  ClientAnswer PostForm(const std::string& path, const Pairs& form,
                        std::vector<std::string> headers = {}) {
    return client_.Send({.url = Url(path), .body = Encode(form), .headers = std::move(headers)});
  }

  // As a device does: with its serial number and token in front.
  ClientAnswer PostProven(const std::string& path, const Pairs& form) {
    Pairs all{{"hs_sn", kSerial}, {"hs_token", devcloud::DeviceToken(kSerial, "", "")}};
    all.insert(all.end(), form.begin(), form.end());
    return PostForm(path, all);
  }

  Pairs LinkForm() const {
    return {{"id", link_.user_id}, {"auth_key", link_.auth_key}, {"serial_no", kSerial}};
  }

  std::atomic<std::int64_t> now_{1000000};
  devcloud::Cloud cloud_{
      {.hosts = {"localhost", "127.0.0.1"}, .clock = [this] { return now_.load(); }}};
  std::string base_ = cloud_.server().Url("localhost");
  HttpClient client_{cloud_.authority().certificate_pem()};
  devcloud::Account account_{.email = kEmail, .full_name = "Anna"};
  devcloud::Link link_;
};

}  // namespace devcloud_test
