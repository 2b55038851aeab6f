#include "devcloud/console/masked_fields.h"

#include <gmock/gmock.h>

namespace {

using devcloud::console::Direction;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(MaskedFieldsTest, OnlyHarmlessOnesAreReadable) {
  using devcloud::console::MaskedFields;
  EXPECT_THAT(MaskedFields("code=abc&hs_sn=NL1&unknown=xy", Direction::kRequest),
              ElementsAre(Pair("code", "… (3 bytes)"), Pair("hs_sn", "NL1"),
                          Pair("unknown", "… (2 bytes)")));
  EXPECT_THAT(
      MaskedFields(R"({"code":"good","data":{"enews":true,"auth_key":"kk"}})", Direction::kAnswer),
      ElementsAre(Pair("code", "good"), Pair("auth_key", "… (2 bytes)"), Pair("enews", "true")));
  EXPECT_THAT(MaskedFields("down", Direction::kAnswer),
              ElementsAre(Pair("", "4 bytes of something else")));
  EXPECT_THAT(MaskedFields("", Direction::kAnswer), IsEmpty());
}

}  // namespace
