// Finds the function for a request's method and path.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "devcloud/http/http_message.h"

namespace devcloud {

class Router {
 public:
  // `parameters` are the decoded path segments that stood at the places of "*".
  using RouteHandler =
      std::function<Response(const Request& request, const std::vector<std::string>& parameters)>;

  // `pattern` is a path whose segments may be "*", which takes any segment but an empty one.
  void Add(std::string method, std::string pattern, RouteHandler handler);

  // The matching function's answer, else 404, or 405 when only the method does not fit.
  [[nodiscard]] Response Route(const Request& request) const;

  // The patterns, each once, in the order in which they were added.
  [[nodiscard]] std::vector<std::string> Patterns() const;

 private:
  struct Entry {
    std::string method;
    std::string pattern;
    std::vector<std::string> segments;
    RouteHandler handler;
  };

  std::vector<Entry> entries_;
};

}  // namespace devcloud
