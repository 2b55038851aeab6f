// Failing one platform call after the other.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/fake_hos/fake_hos.h"

// Runs `flow` once for each platform call that it makes, with the first call failing, then the
// second, and so on. Before each run the platform is reset and `prepare` runs; after it `check`
// looks at the outcome, with a working platform again. A failed check names the call.
template <typename Prepare, typename Flow, typename Check>
void FailEachCall(Prepare prepare, Flow flow, Check check) {
  constexpr int kTooMany = 1000;
  int n = 1;
  for (; n < kTooMany; ++n) {
    fake_hos::platform().Reset();
    prepare();
    fake_hos::platform().FailNthCallOverall(n);
    flow();
    const bool fired = fake_hos::platform().nth_call_fired();
    fake_hos::platform().StopFailing();
    if (!fired) break;
    SCOPED_TRACE("failed platform call number " + std::to_string(n) + ": " +
                 fake_hos::platform().nth_call().ToText());
    check();
    EXPECT_EQ(fake_hos::platform().live_objects(), 0) << "platform objects were not given back";
  }
  EXPECT_GT(n, 1) << "the flow makes no platform call";
  EXPECT_LT(n, kTooMany) << "the flow never comes to an end";
}
