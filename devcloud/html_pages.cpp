#include "devcloud/html_pages.h"

namespace devcloud {
namespace {

constexpr const char* kStyle =
    "body{font:16px/1.5 system-ui,sans-serif;max-width:26rem;margin:4rem auto;padding:0 1rem;"
    "color:#1c2430;background:#f6f7f9}h1{font-size:1.4rem}label{display:block;margin:1rem 0 0}"
    "input{box-sizing:border-box;width:100%;padding:.5rem;font:inherit;border:1px solid #8a94a3;"
    "border-radius:4px}button{margin:1.5rem .5rem 0 0;padding:.5rem 1rem;font:inherit;"
    "border:1px solid #20508f;border-radius:4px;background:#fff;color:#20508f}"
    "button.main{background:#20508f;color:#fff}.error{color:#a11}";

Response HtmlResponse(int status, const std::string& title, const std::string& content) {
  const std::string shown = EscapeHtml(title);
  return {.status = status,
          .headers = {{"Content-Type", "text/html; charset=utf-8"},
                      {"Cache-Control", "no-store"},
                      {"Referrer-Policy", "no-referrer"},
                      {"X-Content-Type-Options", "nosniff"},
                      {"Content-Security-Policy",
                       "default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; "
                       "frame-ancestors 'none'"}},
          .body =
              "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
              "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
              "<title>" +
              shown + "</title><style>" + kStyle + "</style></head>\n<body><main><h1>" + shown +
              "</h1>\n" + content + "</main></body></html>\n"};
}

std::string HiddenInput(const std::string& name, const std::string& value) {
  return "<input type=\"hidden\" name=\"" + EscapeHtml(name) + "\" value=\"" + EscapeHtml(value) +
         "\">\n";
}

}  // namespace

std::string EscapeHtml(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

Response MessagePage(int status, const std::string& title, const std::string& text) {
  return HtmlResponse(status, title, "<p>" + EscapeHtml(text) + "</p>\n");
}

Response SignInPage(int status, const SignInForm& form) {
  std::string content;
  if (!form.error.empty()) {
    content += "<p class=\"error\" role=\"alert\">" + EscapeHtml(form.error) + "</p>\n";
  }
  content += "<form method=\"post\" action=\"" + EscapeHtml(form.action) + "\">\n";
  for (const auto& [name, value] : form.hidden) content += HiddenInput(name, value);
  content +=
      "<label>E-mail<input type=\"email\" name=\"email\" autocomplete=\"username\" "
      "required value=\"" +
      EscapeHtml(form.email) + "\"></label>\n";
  content +=
      "<label>Password<input type=\"password\" name=\"password\" "
      "autocomplete=\"current-password\" required></label>\n";
  content +=
      "<button class=\"main\" name=\"choice\" value=\"sign_in\">Sign in</button>\n"
      "<button name=\"choice\" value=\"cancel\" formnovalidate>Cancel</button>\n</form>\n";
  return HtmlResponse(status, "Sign in to your Veltrix Account", content);
}

}  // namespace devcloud
