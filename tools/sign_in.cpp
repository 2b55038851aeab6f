#include "tools/sign_in.h"

#include <curl/curl.h>
#include <sys/random.h>

#include <array>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include "core/error_code.h"
#include "core/zomi_exception.h"
#include "kivo/pkce.h"

namespace nodelink_login {
namespace {

using nodelink::ZomiException;

struct CurlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};
using Url = std::unique_ptr<CURLU, CurlFree>;
using CurlText = std::unique_ptr<char, CurlFree>;

std::string RandomState() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw ZomiException(nodelink::kSystemError);
  }
  std::string text;
  for (const unsigned char byte : bytes) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", byte);
    text += digits.data();
  }
  return text;
}

std::string Escape(const std::string& text) {
  const CurlText escaped(curl_easy_escape(nullptr, text.c_str(), static_cast<int>(text.size())));
  return escaped ? escaped.get() : "";
}

std::string Unescape(const std::string& text) {
  int length = 0;
  const CurlText plain(
      curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length));
  return plain ? std::string(plain.get(), static_cast<std::size_t>(length)) : "";
}

// The query of the address `text` as names and values; empty when it is no address.
std::map<std::string, std::string> ReadQuery(const std::string& text) {
  const Url url(curl_url());
  char* query = nullptr;
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_QUERY, &query, 0) != CURLUE_OK) {
    return {};
  }
  const CurlText owned(query);
  std::vector<std::string> fields;
  boost::algorithm::split(fields, query, boost::algorithm::is_any_of("&"));
  std::map<std::string, std::string> values;
  for (const std::string& field : fields) {
    const std::size_t equals = field.find('=');
    if (equals != std::string::npos) {
      values[Unescape(field.substr(0, equals))] = Unescape(field.substr(equals + 1));
    }
  }
  return values;
}

bool IsAddress(const std::string& reply) { return reply.find("://") != std::string::npos; }

}  // namespace

SignIn BeginSignIn() {
  std::array<char, 44> challenge{};
  std::array<char, 44> verifier{};
  if (kivo_challenge_verifier_no_save(challenge.data(), challenge.size(), verifier.data(),
                                      verifier.size()) < 0) {
    throw ZomiException(nodelink::kSystemError);
  }
  return {challenge.data(), verifier.data(), RandomState()};
}

std::string SignInAddress(const Json::Value& config, const SignIn& sign_in) {
  const auto text = [&config](const char* name) { return Escape(config[name].asString()); };
  return config["auth_endpoint"].asString() + "?response_type=code&client_id=" + text("client_id") +
         "&redirect_uri=" + text("login_redirect_uri") + "&scope=" + text("scope") +
         "&audience=" + text("audience") + "&code_challenge=" + sign_in.challenge +
         "&code_challenge_method=S256" + "&state=" + sign_in.state;
}

std::string ReadCode(const std::string& reply, const SignIn& sign_in) {
  if (!IsAddress(reply)) {
    if (reply.empty()) {
      throw ZomiException(nodelink::kWrongParameters);
    }
    return reply;
  }
  auto query = ReadQuery(reply);
  if (query["state"] != sign_in.state) {
    throw ZomiException(nodelink::kWrongParameters, "the address belongs to another sign-in");
  }
  if (query.contains("error")) {
    throw ZomiException(nodelink::kAuthFailed, query["error"]);
  }
  if (query["code"].empty()) {
    throw ZomiException(nodelink::kWrongParameters, "the address holds no code");
  }
  return query["code"];
}

}  // namespace nodelink_login
