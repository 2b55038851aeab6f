#include "devcloud/console/console.h"

#include <utility>

#include "devcloud/console/page.h"
#include "devcloud/http/json_fields.h"
#include "devcloud/state/secrets.h"

namespace devcloud::console {
namespace {

constexpr char kRoot[] = "/console";

constexpr std::array kPages{&kAccountsPage, &kDevicesPage, &kTokensPage, &kRequestsPage,
                            &kFaultsPage};

std::string AddressOf(const Page& page) { return std::string(kRoot) + "/" + page.name; }

Response SeeOther(const std::string& address) {
  return {.status = 303, .headers = {{"Location", address}, {"Cache-Control", "no-store"}}};
}

Html Navigation(const Page& current) {
  Html html;
  html << "<a class=\"skip\" href=\"#content\">Skip to the content</a>\n"
          "<header><div><strong>Development cloud</strong><nav aria-label=\"Pages\"><ul>";
  for (const Page* page : kPages) {
    html << "<li><a href=\"" << AddressOf(*page) << "\"";
    if (page == &current) html << " aria-current=\"page\"";
    html << ">" << std::string(page->title) << "</a></li>";
  }
  html << "</ul></nav></div></header>\n";
  return html;
}

}  // namespace

Console::Console(CloudState& state, std::vector<std::string> paths)
    : state_(state), paths_(std::move(paths)), csrf_(RandomToken()) {}

View Console::ViewOf(const Page& page) const { return {state_, paths_, AddressOf(page), csrf_}; }

void Console::AddRoutes(Router& router) {
  for (const char* entrance : {"/", kRoot}) {
    router.Add("GET", entrance,
               [](const Request&, const auto&) { return SeeOther(AddressOf(kAccountsPage)); });
  }
  for (const Page* page : kPages) {
    router.Add("GET", AddressOf(*page),
               [this, page](const Request&, const auto&) { return Show(*page, 200, ""); });
    router.Add("POST", AddressOf(*page),
               [this, page](const Request& request, const auto&) { return Act(*page, request); });
  }
}

Response Console::Show(const Page& page, int status, const std::string& error) const {
  Html body = Navigation(page);
  body << "<main id=\"content\" tabindex=\"-1\"><h1>" << std::string(page.title) << "</h1>\n";
  if (!error.empty()) body << "<p class=\"error\" role=\"alert\">" << error << "</p>\n";
  body << page.show(ViewOf(page)) << "</main>";
  Response response = HtmlResponse(status, std::string(page.title) + " – Development cloud", body);
  // In addition to the policy that is there: both must be kept.
  response.headers.push_back({"Content-Security-Policy", "form-action 'self'"});
  return response;
}

Response Console::Act(const Page& page, const Request& request) const {
  const std::optional<Form> form = ReadForm(request);
  if (!form || !SecretsEqual(form->Get("csrf"), csrf_)) {
    return Show(page, 403, "Nothing was changed: the form was out of date. Please try again.");
  }
  try {
    const std::string id = page.act(ViewOf(page), *form);
    return SeeOther(AddressOf(page) + (id.empty() ? "" : "#" + PercentEncode(id)));
  } catch (const BadInput& error) {
    return Show(page, 400, error.what());
  }
}

}  // namespace devcloud::console
