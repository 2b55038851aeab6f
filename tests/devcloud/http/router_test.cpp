#include "devcloud/http/router.h"

#include <gmock/gmock.h>

using devcloud::Request;
using devcloud::Response;
using devcloud::Router;
using testing::ElementsAre;

namespace {

TEST(RouterTest, TellsItsPatternsOnceEach) {
  const auto handler = [](const Request&, const auto&) { return Response{}; };
  Router router;
  router.Add("GET", "/b/*", handler);
  router.Add("GET", "/a", handler);
  router.Add("POST", "/b/*", handler);
  EXPECT_THAT(router.Patterns(), ElementsAre("/b/*", "/a"));
}

}  // namespace
