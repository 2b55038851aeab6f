// Which libraries are loaded: what sends nothing does not pay for the HTTP stack.
#include <regex>

#include "tests/e2e/device_fixture.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::MatchesRegex;
using testing::Not;

constexpr char kHttpStack[] =
    "lib(curl|ssl|crypto|nghttp|gnutls|ldap|lber|sasl|krb5|gssapi|rtmp|ssh|psl|idn|brotli).*";

class Libraries : public DeviceTest {
 protected:
  // The libraries that a program initialises in the course of `options`, also those loaded late.
  static std::vector<std::string> LoadedBy(const std::vector<std::string>& options,
                                           const char* program = kProgram) {
    std::vector<std::string> words = {program};
    words.insert(words.end(), options.begin(), options.end());
    const auto result = lab::RunProcess(words, {.environment = {{"LD_DEBUG=files"}}});
    EXPECT_EQ(result.exit_status, 0);
    const std::regex init("calling init: \\S*/(\\S+)");
    std::vector<std::string> names;
    for (std::sregex_iterator match(result.err.begin(), result.err.end(), init), end; match != end;
         ++match) {
      names.push_back((*match)[1]);
    }
    return names;
  }

  static void ExpectNoHttpStack(const std::vector<std::string>& names) {
    EXPECT_THAT(names, Contains(MatchesRegex("libc\\.so.*")));
    EXPECT_THAT(names, Each(Not(MatchesRegex(kHttpStack))));
  }
};

TEST_F(Libraries, HelpLoadsNoHttpStack) { ExpectNoHttpStack(LoadedBy({"--help"})); }

TEST_F(Libraries, OfLoginsOwnAreNoHttpStack) {
  ExpectNoHttpStack(LoadedBy({"--help"}, lab::kLoginProgram));
}

TEST_F(Libraries, UpdateLoadsNoHttpStack) {
  LinkDevice();
  ExpectNoHttpStack(LoadedBy({"--update"}));
}

TEST_F(Libraries, UnlinkedReportLoadsNoHttpStack) {
  ExpectNoHttpStack(LoadedBy({"--report_info"}));
}

TEST_F(Libraries, CachedQueryLoadsNoHttpStack) {
  LinkDevice();
  Run({"--query_account"});
  ExpectNoHttpStack(LoadedBy({"--query_account", "--cache"}));
  EXPECT_THAT(Requests(), testing::SizeIs(1));
}

TEST_F(Libraries, QueryThatAsksLoadsNoHttpStackEither) {
  LinkDevice();
  ExpectNoHttpStack(LoadedBy({"--query_account"}));
  EXPECT_THAT(Requests(), testing::SizeIs(1));
}

}  // namespace
