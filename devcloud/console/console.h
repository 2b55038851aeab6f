// The console: the state of the cloud and its switches as web pages, under /console.
#pragma once

#include <string>
#include <vector>

#include "devcloud/http/router.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud::console {

struct Page;
struct View;

class Console {
 public:
  // `state` must outlive the object. `paths` are those that the cloud serves.
  Console(CloudState& state, std::vector<std::string> paths);

  // Adds the paths to the router, which must not outlive the object. Whoever routes to it keeps the
  // pages of strangers out (see Control).
  void AddRoutes(Router& router);

 private:
  [[nodiscard]] View ViewOf(const Page& page) const;
  [[nodiscard]] Response Show(const Page& page, int status, const std::string& error) const;
  [[nodiscard]] Response Act(const Page& page, const Request& request) const;

  CloudState& state_;
  std::vector<std::string> paths_;
  std::string csrf_;  // new at each start
};

}  // namespace devcloud::console
