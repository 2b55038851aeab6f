#include "devcloud/api/sign_in.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "devcloud/api/code_challenge.h"
#include "devcloud/api/sign_in_pages.h"
#include "devcloud/http/form.h"
#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

constexpr char kAuthorizePath[] = "/oauth2/v1/authorize";
constexpr char kCookieName[] = "__Host-sign-in";

constexpr std::array kAuthorizationParameters{
    "client_id", "redirect_uri",   "response_type",         "scope", "audience",
    "state",     "code_challenge", "code_challenge_method", "nonce"};

// The value of the sign-in cookie if the browser sent one that we may have set.
std::optional<std::string> ReadCookie(const Request& request) {
  const std::string cookies = "; " + request.HeaderOr("Cookie") + ";";
  const std::string start = std::string("; ") + kCookieName + "=";
  const std::size_t found = cookies.find(start);
  if (found == std::string::npos) return std::nullopt;
  const std::size_t from = found + start.size();
  std::string value = cookies.substr(from, cookies.find(';', from) - from);
  if (!IsCodeChallenge(value)) return std::nullopt;
  return value;
}

// HTTP headers cannot hold what a redirect address must not hold either.
bool IsPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7f; });
}

struct AuthorizationRequest {
  Form form;  // the known parameters only, each at most once

  // Nothing when a parameter comes twice.
  static std::optional<AuthorizationRequest> From(const Form& all) {
    std::vector<std::pair<std::string, std::string>> known;
    for (const char* name : kAuthorizationParameters) {
      const std::vector<std::string> values = all.GetAll(name);
      if (values.size() > 1) return std::nullopt;
      if (!values.empty()) known.emplace_back(name, values.front());
    }
    return AuthorizationRequest{Form(std::move(known))};
  }

  [[nodiscard]] Response RedirectError(const char* error) const {
    return Redirect(form.Get("redirect_uri"), {{"error", error}, {"state", form.Get("state")}});
  }

  // The error to send the browser back with, if the request cannot be granted to anyone.
  [[nodiscard]] const char* Flaw() const {
    if (form.Get("response_type") != "code") return "unsupported_response_type";
    if (form.Get("code_challenge_method") != "S256" ||
        !IsCodeChallenge(form.Get("code_challenge"))) {
      return "invalid_request";
    }
    return IsPrintable(form.Get("scope")) ? nullptr : "invalid_scope";
  }
};

class SignIn {
 public:
  explicit SignIn(CloudState& state) : state_(state), csrf_key_(RandomToken()) {}

  [[nodiscard]] Response Show(const Request& request) const;
  [[nodiscard]] Response Take(const Request& request) const;

 private:
  [[nodiscard]] Response CheckCredentials(const Request& request, const Form& form,
                                          const AuthorizationRequest& asked) const;
  [[nodiscard]] Response ShowForm(const std::string& cookie, const AuthorizationRequest& asked,
                                  const std::string& email, const std::string& error) const;
  [[nodiscard]] std::optional<std::string> WhyUntrusted(const AuthorizationRequest& asked) const;
  [[nodiscard]] std::string CsrfToken(const std::string& cookie,
                                      const AuthorizationRequest& asked) const;

  CloudState& state_;
  std::string csrf_key_;
};

// Why the browser must not even be sent back, if that is so.
std::optional<std::string> SignIn::WhyUntrusted(const AuthorizationRequest& asked) const {
  const std::optional<Client> client = state_.clients.Find(asked.form.Get("client_id"));
  if (!client) return "The program that sent you here is not known.";
  if (!state_.clients.MayRedirect(*client, asked.form.Get("redirect_uri"))) {
    return "The address to return to is not registered.";
  }
  return std::nullopt;
}

// Belongs to this browser and to these parameters, so that neither can be swapped.
std::string SignIn::CsrfToken(const std::string& cookie, const AuthorizationRequest& asked) const {
  return HmacHex(csrf_key_, AppendQuery(cookie, asked.form.pairs()));
}

Response SignIn::ShowForm(const std::string& cookie, const AuthorizationRequest& asked,
                          const std::string& email, const std::string& error) const {
  SignInForm page{
      .action = kAuthorizePath, .hidden = asked.form.pairs(), .email = email, .error = error};
  page.hidden.emplace_back("csrf", CsrfToken(cookie, asked));
  return SignInPage(error.empty() ? 200 : 403, page);
}

Response SignIn::Show(const Request& request) const {
  const auto asked = AuthorizationRequest::From(Form::Parse(request.query).value_or(Form()));
  if (!asked) return MessagePage(400, "Sign-in refused", "A parameter came twice.");
  if (const auto reason = WhyUntrusted(*asked)) return MessagePage(400, "Sign-in refused", *reason);
  if (const char* error = asked->Flaw()) return asked->RedirectError(error);
  const std::optional<std::string> old_cookie = ReadCookie(request);
  const std::string cookie = old_cookie ? *old_cookie : RandomToken();
  Response page = ShowForm(cookie, *asked, "", "");
  page.headers.push_back({"Set-Cookie", std::string(kCookieName) + "=" + cookie +
                                            "; Path=/; Secure; HttpOnly; SameSite=Lax"});
  return page;
}

Response SignIn::CheckCredentials(const Request& request, const Form& form,
                                  const AuthorizationRequest& asked) const {
  const std::string email = form.Get("email");
  const std::string cookie = ReadCookie(request).value_or("");
  const std::optional<Account> account = state_.store.FindAccountByEmail(email);
  if (!account || !state_.store.PasswordFits(account->user_id, form.Get("password"))) {
    return ShowForm(cookie, asked, email, "E-mail or password is wrong.");
  }
  if (!IsSuccessWord(account->state)) {
    return ShowForm(cookie, asked, email, "This account cannot be used: " + account->state);
  }
  const std::string code = state_.tokens.IssueCode(
      {.grant = {asked.form.Get("client_id"), account->user_id, asked.form.Get("scope")},
       .redirect_uri = asked.form.Get("redirect_uri"),
       .code_challenge = asked.form.Get("code_challenge")});
  return Redirect(asked.form.Get("redirect_uri"),
                  {{"code", code}, {"state", asked.form.Get("state")}});
}

Response SignIn::Take(const Request& request) const {
  const std::optional<Form> form = ReadForm(request);
  const auto asked = AuthorizationRequest::From(form.value_or(Form()));
  if (!asked) return MessagePage(400, "Sign-in refused", "A parameter came twice.");
  if (const auto reason = WhyUntrusted(*asked)) return MessagePage(400, "Sign-in refused", *reason);
  const std::optional<std::string> cookie = ReadCookie(request);
  if (!cookie || !SecretsEqual(form->Get("csrf"), CsrfToken(*cookie, *asked))) {
    return MessagePage(403, "Sign-in refused",
                       "This form has not been opened in this browser, or is out of date.");
  }
  if (const char* error = asked->Flaw()) return asked->RedirectError(error);
  if (form->Get("choice") == "cancel") return asked->RedirectError("access_denied");
  return CheckCredentials(request, *form, *asked);
}

}  // namespace

void AddSignIn(Router& router, CloudState& state) {
  const auto sign_in = std::make_shared<const SignIn>(state);
  router.Add("GET", kAuthorizePath,
             [sign_in](const Request& request, const auto&) { return sign_in->Show(request); });
  router.Add("POST", kAuthorizePath,
             [sign_in](const Request& request, const auto&) { return sign_in->Take(request); });
  router.Add("GET", kLoginCallbackPath, [](const Request&, const auto&) {
    return MessagePage(200, "Signed in",
                       "Copy the address of this page from the address bar and give it to the "
                       "program that sent you here.");
  });
}

}  // namespace devcloud
