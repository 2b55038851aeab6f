#include "devcloud/http/form.h"

#include <gmock/gmock.h>

namespace {

using devcloud::AppendQuery;
using devcloud::Form;
using devcloud::PercentEncode;
using testing::ElementsAre;
using testing::Pair;

TEST(FormTest, KeepsOrderAndDuplicates) {
  const auto form = Form::Parse("hs_sn=A&b=1&hs_sn=B");
  ASSERT_TRUE(form);
  EXPECT_THAT(form->pairs(), ElementsAre(Pair("hs_sn", "A"), Pair("b", "1"), Pair("hs_sn", "B")));
  EXPECT_EQ(form->Get("hs_sn"), "A");
  EXPECT_THAT(form->GetAll("hs_sn"), ElementsAre("A", "B"));
}

TEST(FormTest, DecodesNamesAndValues) {
  const auto form = Form::Parse("scopes%5B%5D=a%20b%26c&plus=a+b");
  ASSERT_TRUE(form);
  EXPECT_EQ(form->Get("scopes[]"), "a b&c");
  EXPECT_EQ(form->Get("plus"), "a b");
}

TEST(FormTest, EmptyValueIsNotAnAbsentOne) {
  const auto form = Form::Parse("hs_info=&bare");
  ASSERT_TRUE(form);
  ASSERT_NE(form->Find("hs_info"), nullptr);
  EXPECT_EQ(form->Get("bare"), "");
  EXPECT_EQ(form->Find("other"), nullptr);
}

TEST(FormTest, OnlyTheFirstEqualsSignDivides) { EXPECT_EQ(Form::Parse("a=b=c")->Get("a"), "b=c"); }

TEST(FormTest, RefusesBrokenEscapesAndNul) {
  EXPECT_FALSE(Form::Parse("a=%"));
  EXPECT_FALSE(Form::Parse("a=%4"));
  EXPECT_FALSE(Form::Parse("a=%zz"));
  EXPECT_FALSE(Form::Parse("a=%00"));
  EXPECT_FALSE(Form::Parse(std::string_view("a=\0", 3)));
}

TEST(FormTest, EmptyTextIsAnEmptyForm) { EXPECT_TRUE(Form::Parse("")->pairs().empty()); }

TEST(FormTest, EncodesAllButUnreserved) {
  EXPECT_EQ(PercentEncode("a b&c-._~\xc3\xab"), "a%20b%26c-._~%C3%AB");
}

TEST(FormTest, AppendsToUrlsWithAndWithoutQuery) {
  EXPECT_EQ(AppendQuery("https://h/p", {{"a", "1"}, {"b", "&"}}), "https://h/p?a=1&b=%26");
  EXPECT_EQ(AppendQuery("https://h/p?x=1", {{"a", "1"}}), "https://h/p?x=1&a=1");
}

}  // namespace
