#include "devcloud/http/html.h"

#include <gtest/gtest.h>

namespace {

TEST(HtmlTest, EscapesWhatMarksUp) {
  EXPECT_EQ(devcloud::EscapeHtml("<a href=\"x\">'&"), "&lt;a href=&quot;x&quot;&gt;&#39;&amp;");
}

}  // namespace
