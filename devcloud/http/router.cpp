#include "devcloud/http/router.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "devcloud/http/form.h"
#include "devcloud/http/json_text.h"

namespace devcloud {
namespace {

std::vector<std::string> SplitPath(std::string_view path) {
  std::vector<std::string> segments;
  while (!path.empty() && path.front() == '/') {
    path.remove_prefix(1);
    const std::string_view segment = path.substr(0, path.find('/'));
    segments.emplace_back(segment);
    path.remove_prefix(segment.size());
  }
  return segments;
}

std::string DecodeSegment(const std::string& segment) {
  // In a path, unlike in a form, a plus sign means itself.
  std::string escaped;
  for (const char c : segment) escaped += c == '+' ? std::string("%2B") : std::string(1, c);
  const std::optional<Form> form = Form::Parse("=" + escaped);
  return form ? form->Get("") : std::string();
}

std::optional<std::vector<std::string>> Match(const std::vector<std::string>& pattern,
                                              const std::vector<std::string>& path) {
  if (pattern.size() != path.size()) return std::nullopt;
  std::vector<std::string> parameters;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (pattern[i] == "*") {
      parameters.push_back(DecodeSegment(path[i]));
      if (parameters.back().empty()) return std::nullopt;
    } else if (pattern[i] != path[i]) {
      return std::nullopt;
    }
  }
  return parameters;
}

}  // namespace

void Router::Add(std::string method, std::string pattern, RouteHandler handler) {
  std::vector<std::string> segments = SplitPath(pattern);
  entries_.push_back(
      {std::move(method), std::move(pattern), std::move(segments), std::move(handler)});
}

Response Router::Route(const Request& request) const {
  const std::vector<std::string> path = SplitPath(request.path);
  std::string allowed;
  for (const Entry& entry : entries_) {
    const auto parameters = Match(entry.segments, path);
    if (!parameters) continue;
    if (entry.method == request.method) return entry.handler(request, *parameters);
    allowed += (allowed.empty() ? "" : ", ") + entry.method;
  }
  if (allowed.empty()) return JsonError(404, "no such page");
  Response response = JsonError(405, "method not allowed");
  response.headers.push_back({"Allow", allowed});
  return response;
}

std::vector<std::string> Router::Patterns() const {
  std::vector<std::string> patterns;
  for (const Entry& entry : entries_) {
    if (std::find(patterns.begin(), patterns.end(), entry.pattern) != patterns.end()) continue;
    patterns.push_back(entry.pattern);
  }
  return patterns;
}

}  // namespace devcloud
