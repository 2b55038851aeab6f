#include "devcloud/console/masked_fields.h"
#include "devcloud/console/page.h"
#include "devcloud/http/json_fields.h"

namespace devcloud::console {
namespace {

constexpr int kShown = 50;

Html FieldList(const std::string& title, const Fields& fields) {
  Html html;
  if (fields.empty()) return html;
  html << "<p>" << title << "</p><dl>";
  for (const auto& [name, value] : fields) {
    html << "<dt>" << name << "</dt><dd>" << value << "</dd>";
  }
  html << "</dl>";
  return html;
}

Html Details(const LogEntry& entry) {
  const Request& request = entry.request;
  Html html;
  html << "<details><summary>Show" << Unseen(" request " + std::to_string(entry.id)) << "</summary>"
       << FieldList("Query", MaskedFields(request.query, Direction::kRequest))
       << FieldList("Head", MaskedHeaders(request.headers))
       << FieldList("Body", MaskedFields(request.body, Direction::kRequest))
       << FieldList("Answer", MaskedFields(entry.answer, Direction::kAnswer)) << "</details>";
  return html;
}

std::string AnswerText(const LogEntry& entry) {
  const std::string status = std::to_string(entry.status);
  return entry.fault ? status + ", by fault " + std::to_string(*entry.fault) : status;
}

Html RequestTable(const View& view) {
  constexpr std::int64_t kMillisecondsInSecond = 1000;
  Table table("The last " + std::to_string(kShown) + " requests, newest first",
              {"Request", "Time", "Method", "Path", "Answer", "Details"});
  for (const LogEntry& entry : view.state.log.Newest(kShown)) {
    const std::string id = std::to_string(entry.id);
    table.AddRow("request-" + id,
                 {ToCell(id), ToCell(ToTimeText(entry.time / kMillisecondsInSecond)),
                  ToCell(entry.request.method), ToCell(entry.request.path),
                  ToCell(AnswerText(entry)), Details(entry)});
  }
  return table.ToHtml("There has been no request yet.");
}

Html Show(const View& view) {
  Html html;
  html << "<p class=\"note\">Passwords, keys, codes and tokens are shown by their beginning at "
          "most. Load the page again for what came since.</p>\n"
       << RequestTable(view) << ButtonForm(view, "Forget all", "requests", {{"action", "clear"}});
  return html;
}

std::string Act(const View& view, const Form& form) {
  if (form.Get("action") != "clear") throw BadInput("This page has no such action.");
  view.state.log.Clear();
  return "";
}

}  // namespace

const Page kRequestsPage{"requests", "Requests", Show, Act};

}  // namespace devcloud::console
