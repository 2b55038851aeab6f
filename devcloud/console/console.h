// The console: the state of the cloud and its switches as web pages, under /console.
#pragma once

#include <string>

#include "devcloud/cloud.h"
#include "devcloud/http/router.h"

namespace devcloud::console {

struct Page;

class Console {
 public:
  // `cloud` must outlive the object.
  explicit Console(Cloud& cloud);

  // Adds the paths to the router, which must not outlive the object. Whoever routes to it keeps the
  // pages of strangers out (see Control).
  void AddRoutes(Router& router);

 private:
  [[nodiscard]] Response Show(const Page& page, int status, const std::string& error) const;
  [[nodiscard]] Response Act(const Page& page, const Request& request) const;

  Cloud& cloud_;
  std::string csrf_;  // new at each start
};

}  // namespace devcloud::console
