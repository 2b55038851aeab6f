#include "tools/sign_in.h"

#include <sys/random.h>
#include <uriparser/Uri.h>

#include <array>
#include <cstdio>
#include <map>
#include <memory>

#include "core/error_code.h"
#include "core/zomi_exception.h"

namespace nodelink_login {
namespace {

using nodelink::ZomiException;

// The parts of an address; they point into its text.
class Address {
 public:
  explicit Address(const std::string& text)
      : parsed_(uriParseSingleUriA(&uri_, text.c_str(), nullptr) == URI_SUCCESS) {}
  Address(const Address&) = delete;
  Address& operator=(const Address&) = delete;
  ~Address() {
    if (parsed_) uriFreeUriMembersA(&uri_);
  }

  bool HasQuery() const { return parsed_ && uri_.query.first != nullptr; }
  const UriTextRangeA& query() const { return uri_.query; }

 private:
  UriUriA uri_{};
  bool parsed_;
};

struct QueryFree {
  void operator()(UriQueryListA* list) const { uriFreeQueryListA(list); }
};
using QueryList = std::unique_ptr<UriQueryListA, QueryFree>;

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
  constexpr std::size_t kLongestEscape = 3;
  std::string escaped(text.size() * kLongestEscape + 1, '\0');
  const char* end =
      uriEscapeExA(text.data(), text.data() + text.size(), escaped.data(), URI_FALSE, URI_FALSE);
  escaped.resize(static_cast<std::size_t>(end - escaped.data()));
  return escaped;
}

QueryList Dissect(const UriTextRangeA& query) {
  UriQueryListA* fields = nullptr;
  int count = 0;
  uriDissectQueryMallocExA(&fields, &count, query.first, query.afterLast, URI_FALSE,
                           URI_BR_DONT_TOUCH);
  return QueryList(fields);
}

// The query of the address `text` as names and values; empty when it is no address.
std::map<std::string, std::string> ReadQuery(const std::string& text) {
  const Address address(text);
  std::map<std::string, std::string> values;
  if (!address.HasQuery()) return values;
  const QueryList fields = Dissect(address.query());
  for (const UriQueryListA* field = fields.get(); field != nullptr; field = field->next) {
    if (field->value != nullptr) values[field->key] = field->value;
  }
  return values;
}

bool IsAddress(const std::string& reply) { return reply.find("://") != std::string::npos; }

}  // namespace

SignIn BeginSignIn() { return {nodelink::MakeCodePair(), RandomState()}; }

std::string SignInAddress(const Json::Value& config, const SignIn& sign_in) {
  const auto text = [&config](const char* name) { return Escape(config[name].asString()); };
  return config["auth_endpoint"].asString() + "?response_type=code&client_id=" + text("client_id") +
         "&redirect_uri=" + text("login_redirect_uri") + "&scope=" + text("scope") +
         "&audience=" + text("audience") + "&code_challenge=" + sign_in.pair.challenge +
         "&code_challenge_method=S256" + "&state=" + sign_in.state;
}

std::string ReadCode(const std::string& reply, const SignIn& sign_in) {
  if (!IsAddress(reply)) {
    if (reply.empty()) throw ZomiException(nodelink::kWrongParameters);
    return reply;
  }
  auto query = ReadQuery(reply);
  if (query["state"] != sign_in.state) {
    throw ZomiException(nodelink::kWrongParameters, "the address belongs to another sign-in");
  }
  if (query.contains("error")) throw ZomiException(nodelink::kAuthFailed, query["error"]);
  if (query["code"].empty()) {
    throw ZomiException(nodelink::kWrongParameters, "the address holds no code");
  }
  return query["code"];
}

}  // namespace nodelink_login
