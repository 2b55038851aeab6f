#include <algorithm>

#include "devcloud/console/page.h"
#include "devcloud/http/json_fields.h"

namespace devcloud::console {
namespace {

constexpr char kEveryPath[] = "*";

FaultRule Error() { return {.status = 500, .body = "fault"}; }

FaultRule Lost() { return {.fault = {.delivery = Delivery::kDrop}}; }

FaultRule Half() { return {.fault = {.delivery = Delivery::kTruncate}}; }

FaultRule Late() { return {.fault = {.delay = std::chrono::seconds(20)}}; }

struct Kind {
  const char* name;
  const char* title;
  FaultRule (*make)();
};
constexpr std::array<Kind, 4> kKinds{{
    {"error", "Status 500", Error},
    {"lost", "Answer lost", Lost},
    {"half", "Half an answer", Half},
    {"late", "20 s late", Late},
}};

FaultRule Rule(const std::string& path, const Kind& kind) {
  FaultRule rule = kind.make();
  rule.path = path;
  return rule;
}

bool IsSame(FaultRule a, const FaultRule& b) {
  a.id = b.id;
  return ToJson(a) == ToJson(b);
}

std::vector<std::string> SwitchedPaths(const View& view) {
  std::vector<std::string> paths = view.paths;
  paths.emplace_back(kEveryPath);
  return paths;
}

std::string PathText(const std::string& path) { return path == kEveryPath ? "every path" : path; }

std::string SwitchId(const std::string& path, const Kind& kind) {
  return kind.name + std::string("-") + path;
}

Html Switch(const std::string& path, const Kind& kind, bool on) {
  const std::string id = SwitchId(path, kind);
  Html html;
  html << "<button role=\"switch\" id=\"" << id << "\" aria-checked=\""
       << std::string(on ? "true" : "false") << "\" aria-label=\"" << std::string(kind.title)
       << " for " << PathText(path) << "\" name=\"" << std::string(on ? "off" : "on")
       << "\" value=\"" << id << "\">" << std::string(on ? "On" : "Off") << "</button>";
  return html;
}

Html SwitchTable(const View& view, const std::vector<FaultRule>& rules) {
  std::vector<std::string> columns{"Path"};
  for (const Kind& kind : kKinds) columns.emplace_back(kind.title);
  Table table("Switches", columns);
  for (const std::string& path : SwitchedPaths(view)) {
    std::vector<Html> cells{ToCell(PathText(path))};
    for (const Kind& kind : kKinds) {
      const bool on = std::any_of(rules.begin(), rules.end(), [&](const FaultRule& rule) {
        return IsSame(rule, Rule(path, kind));
      });
      cells.push_back(Switch(path, kind, on));
    }
    table.AddRow("path-" + path, cells);
  }
  Html html = FormStart(view, "switches", {{"action", "switch"}});
  html << table.ToHtml("") << "</form>\n";
  return html;
}

std::string Requests(const FaultRule& rule) {
  const std::string which = rule.count ? "the next " + std::to_string(*rule.count) : "all";
  return rule.skip == 0 ? which : which + " after " + std::to_string(rule.skip);
}

Html RuleTable(const View& view, const std::vector<FaultRule>& rules) {
  Table table("In force, the oldest that fits applies",
              {"Fault", "Method", "Path", "Status", "Delivery", "Delay", "Requests", "Change"});
  for (const FaultRule& rule : rules) {
    const std::string id = std::to_string(rule.id);
    table.AddRow("fault-" + id,
                 {ToCell(id), ToCell(rule.method.empty() ? "any" : rule.method), ToCell(rule.path),
                  ToCell(rule.status ? std::to_string(*rule.status) : "as handled"),
                  ToCell(ToJson(rule)["delivery"].asString()),
                  ToCell(std::to_string(rule.fault.delay.count()) + " ms"), ToCell(Requests(rule)),
                  ButtonForm(view, "Remove", "fault " + id, {{"action", "remove"}, {"id", id}})});
  }
  return table.ToHtml("No fault is in force.");
}

Html Show(const View& view) {
  const std::vector<FaultRule> rules = view.state.faults.List();
  Html html;
  html << "<p class=\"note\">A lost, halved or late answer is that of a request whose effect has "
          "happened; with status 500 nothing has happened.</p>\n"
       << SwitchTable(view, rules) << RuleTable(view, rules)
       << ButtonForm(view, "Remove all", "faults", {{"action", "clear"}});
  return html;
}

void SwitchOff(FaultBook& faults, const FaultRule& rule) {
  for (const FaultRule& other : faults.List()) {
    if (IsSame(other, rule)) faults.Remove(other.id);
  }
}

void Set(FaultBook& faults, const FaultRule& rule, bool on) {
  SwitchOff(faults, rule);
  if (on) faults.Add(rule);
}

std::string Turn(const View& view, const Form& form) {
  const bool on = form.Find("on") != nullptr;
  std::string wanted = form.Get(on ? "on" : "off");
  for (const std::string& path : SwitchedPaths(view)) {
    for (const Kind& kind : kKinds) {
      if (SwitchId(path, kind) != wanted) continue;
      Set(view.state.faults, Rule(path, kind), on);
      return wanted;
    }
  }
  throw BadInput("There is no such switch.");
}

std::string Act(const View& view, const Form& form) {
  const std::string action = form.Get("action");
  if (action == "switch") return Turn(view, form);
  if (action == "remove") {
    view.state.faults.Remove(ReadId(form));
  } else if (action == "clear") {
    view.state.faults.Clear();
  } else {
    throw BadInput("This page has no such action.");
  }
  return "";
}

}  // namespace

const Page kFaultsPage{"faults", "Faults", Show, Act};

}  // namespace devcloud::console
