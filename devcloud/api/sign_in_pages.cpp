#include "devcloud/api/sign_in_pages.h"

#include "devcloud/http/form.h"
#include "devcloud/http/html.h"

namespace devcloud {
namespace {

Response NarrowPage(int status, const std::string& title, const Html& content) {
  Html body;
  body << "<main class=\"narrow\"><h1>" << title << "</h1>\n" << content << "</main>";
  return HtmlResponse(status, title, body);
}

Html Alert(const std::string& error) {
  Html html;
  if (!error.empty()) html << "<p class=\"error\" role=\"alert\">" << error << "</p>\n";
  return html;
}

}  // namespace

Response MessagePage(int status, const std::string& title, const std::string& text) {
  Html content;
  content << "<p>" << text << "</p>\n";
  return NarrowPage(status, title, content);
}

Response SignInPage(int status, const SignInForm& form) {
  Html content = Alert(form.error);
  content << "<form class=\"fields\" method=\"post\" action=\"" << form.action << "\">\n";
  for (const auto& [name, value] : form.hidden) content << HiddenInput(name, value);
  content << "<label>E-mail<input type=\"email\" name=\"email\" autocomplete=\"username\" "
             "required value=\""
          << form.email
          << "\"></label>\n"
             "<label>Password<input type=\"password\" name=\"password\" "
             "autocomplete=\"current-password\" required></label>\n"
             "<button class=\"main\" name=\"choice\" value=\"sign_in\">Sign in</button>\n"
             "<button name=\"choice\" value=\"cancel\" formnovalidate>Cancel</button>\n</form>\n";
  return NarrowPage(status, "Sign in to your Veltrix Account", content);
}

Response Redirect(const std::string& uri,
                  const std::vector<std::pair<std::string, std::string>>& parameters) {
  return {.status = 302,
          .headers = {{"Location", AppendQuery(uri, parameters)},
                      {"Cache-Control", "no-store"},
                      {"Referrer-Policy", "no-referrer"}}};
}

}  // namespace devcloud
