#include "deviceapi/zomi_https_req_send.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "core/error_code.h"
#include "tests/deviceapi/row_text.h"
#include "tests/deviceapi/sender_fixture.h"

namespace {

using devcloud::Request;
using devcloud::Response;
using nodelink::DeviceApiAppendParam;
using nodelink::DeviceApiRequest;
using nodelink::DeviceApiResponse;
using nodelink::DeviceApiResponseFree;
using nodelink::DeviceApiSend;
using nodelink::kRequestNotSent;
using nodelink::kSystemError;
using nodelink::kWrongParameters;
using nodelink::LastErrorCode;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr char kGood[] = R"({"code":"good"})";
constexpr char kFile[] = "zomi_https_req_send ";
constexpr char kAgent[] = "zomi HOS/7.2.1 (NX220)";
constexpr std::size_t kLargestBody = 1024 * 1024;

std::string ErrorText(CURLcode code) {
  return "code=" + std::to_string(code) + ", err=" + curl_easy_strerror(code);
}

// --- what travels ---------------------------------------------------------------------------

class RequestTest : public SenderTest {
 protected:
  RequestTest() { server_.Answer(200, kGood); }

  // Sends, expects success, and returns what came.
  Request Received() {
    EXPECT_EQ(Send().result, 0);
    EXPECT_THAT(Log(), IsEmpty());
    return server_.OnlyRequest();
  }
};

TEST_F(RequestTest, TheBodyIsSerialTokenAndTheHashInItsOrder) {
  params_ = {{"zulu", "1"}, {"alpha", "2"}, {"mike", ""}, {"lima", "4"}};
  const Request request = Received();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/device/api/report");
  EXPECT_EQ(request.body, Prefix() + "&zulu=1&alpha=2&mike=&lima=4");
}

TEST_F(RequestTest, IdAndPasswordStandBeforeTheHash) {
  account_id_ = "anna@example.org";
  account_password_ = "p w&=%";
  EXPECT_EQ(Received().body, Prefix() + "&zomiID=anna%40example.org&zomiPW=p%20w%26%3D%25&id=42");
}

TEST_F(RequestTest, AnEmptyPasswordIsNotSent) {
  account_id_ = "anna";
  EXPECT_EQ(Received().body, Prefix() + "&zomiID=anna&id=42");
}

TEST_F(RequestTest, AnEmptyIdIsNotSent) {
  account_password_ = "secret";
  EXPECT_EQ(Received().body, Prefix() + "&zomiPW=secret&id=42");
}

TEST_F(RequestTest, CredentialsOfTheLargestSizeTravelWhole) {
  account_id_ = std::string(4095, 'i');
  account_password_ = std::string(4095, 'p');
  EXPECT_THAT(Received().body,
              HasSubstr("&zomiID=" + account_id_ + "&zomiPW=" + account_password_ + "&id=42"));
}

TEST_F(RequestTest, ASerialNumberOfTheHashIsUsedAndSentTwice) {
  params_ = {{"id", "42"}, {"hs_sn", "GIVEN1"}, {"z", "9"}};
  EXPECT_EQ(Received().body, Prefix("GIVEN1") + "&id=42&hs_sn=GIVEN1&z=9");
  EXPECT_EQ(platform().call_count("KLIBGetSerialNumber"), 0U);
}

TEST_F(RequestTest, AnEmptySerialNumberOfTheHashGivesTheDevices) {
  params_ = {{"hs_sn", ""}};
  EXPECT_EQ(Received().body, Prefix() + "&hs_sn=");
}

TEST_F(RequestTest, ALongSerialNumberIsCutAt255BytesInItsFirstPlace) {
  const std::string serial(300, 'S');
  params_ = {{"hs_sn", serial}};
  EXPECT_EQ(Received().body, Prefix(serial.substr(0, 255)) + "&hs_sn=" + serial);
}

TEST_F(RequestTest, AKeyWithoutAValueIsSkipped) {
  params_ = {{"first", "1"}, {"second", "2"}, {"third", "3"}};
  platform().FailCall("KLIBCSzHashGetValue", 3);  // the first one looks for the serial number
  EXPECT_EQ(Received().body, Prefix() + "&first=1&third=3");
}

TEST_F(RequestTest, AServerCanVerifyTheToken) {
  account_id_ = "anna@example.org";
  account_password_ = "secret";
  EXPECT_THAT(Received().body, StartsWith(Prefix()));
}

struct Encoded {
  std::string value;
  std::string travels;
};

void PrintTo(const Encoded& row, std::ostream* out) { *out << RowText(row.value); }

class EncodingTest : public RequestTest, public testing::WithParamInterface<Encoded> {};

TEST_P(EncodingTest, OfAValue) {
  params_ = {{"name", GetParam().value}};
  EXPECT_EQ(Received().body, Prefix() + "&name=" + GetParam().travels);
}

INSTANTIATE_TEST_SUITE_P(Values, EncodingTest,
                         testing::Values(Encoded{"a b&c", "a%20b%26c"},
                                         Encoded{"1=2+3", "1%3D2%2B3"}, Encoded{"100%", "100%25"},
                                         Encoded{"a\r\nb\t", "a%0D%0Ab%09"},
                                         Encoded{"\xc3\xa4\xff", "%C3%A4%FF"},
                                         Encoded{"-._~", "-._~"},
                                         Encoded{"\"'<>/?#", "%22%27%3C%3E%2F%3F%23"},
                                         Encoded{std::string(100'000, ' '),
                                                 [] {
                                                   std::string text;
                                                   for (int i = 0; i < 100'000; ++i) text += "%20";
                                                   return text;
                                                 }()}),
                         kRowNumber);

TEST_F(RequestTest, NamesAreNotEncoded) {
  params_ = {{"scopes[]", "a"}, {"x y", "b"}};
  EXPECT_EQ(Received().body, Prefix() + "&scopes[]=a&x y=b");
}

TEST_F(RequestTest, ManyParametersTravelInOrder) {
  params_.clear();
  std::string expected = Prefix();
  for (int number = 0; number < 1000; ++number) {
    const std::string text = std::to_string(number);
    params_.emplace_back("p" + text, text);
    expected += "&p" + text + "=" + text;
  }
  EXPECT_EQ(Received().body, expected);
}

TEST_F(RequestTest, TheHeadersAreLibcurlsOwnAndTheDevicesUserAgent) {
  const Request request = Received();
  std::vector<std::pair<std::string, std::string>> headers;
  for (const devcloud::Header& header : request.headers) {
    headers.emplace_back(header.name, header.value);
  }
  EXPECT_THAT(headers,
              UnorderedElementsAre(std::pair("Host", server_.HostHeader()),
                                   std::pair("User-Agent", kAgent), std::pair("Accept", "*/*"),
                                   std::pair("Content-Length", std::to_string(request.body.size())),
                                   std::pair("Content-Type", "application/x-www-form-urlencoded")));
}

TEST_F(RequestTest, WithoutAUserAgentTheSerialNumberStandsInItsPlace) {
  platform().device.user_agent_tail.reset();
  EXPECT_EQ(Send().result, 0);
  EXPECT_EQ(server_.OnlyRequest().HeaderOr("User-Agent"), "FAKE123456789");
  EXPECT_THAT(LogWithLines(), ElementsAre(StartsWith("zomi_agent_name_get:17 ")));
}

TEST_F(RequestTest, AGetCarriesTheParametersInItsQuery) {
  use_get_ = 1;
  params_ = {{"q", "a b&c"}};
  const Request request = Received();
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/device/api/report?" + Prefix() + "&q=a%20b%26c");
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.CountHeaders("Content-Type"), 0U);
  EXPECT_EQ(request.CountHeaders("Host"), 1U);
}

class NotGetTest : public RequestTest, public testing::WithParamInterface<int> {};

TEST_P(NotGetTest, AnyOtherFlagIsAPost) {
  use_get_ = GetParam();
  EXPECT_EQ(Received().method, "POST");
}

INSTANTIATE_TEST_SUITE_P(Flags, NotGetTest, testing::Values(0, 2, -1, 256));

TEST_F(RequestTest, AUrlBeyondItsBufferIsCut) {
  use_get_ = 1;
  params_ = {{"q", std::string(5000, 'q')}};
  const std::string target = Received().target;
  EXPECT_EQ(host_.size() + target.size(), 4095U);
  EXPECT_THAT(target, StartsWith("/device/api/report?" + Prefix() + "&q=qqq"));
}

// --- answers --------------------------------------------------------------------------------

TEST_F(SenderTest, A200WithABodyIsAnAnswer) {
  server_.Answer(200, kGood);
  const Outcome outcome = Send();
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.http_status, 200);
  EXPECT_EQ(outcome.transfer_result, 0);
  EXPECT_EQ(outcome.body, kGood);
  EXPECT_EQ(outcome.code, kUntouchedCode);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_EQ(Attempts(), 1);
}

TEST_F(SenderTest, A400WithABodyIsAnAnswer) {
  server_.Answer(400, R"({"code":"badparam"})");
  const Outcome outcome = Send();
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.http_status, 400);
  EXPECT_EQ(outcome.body, R"({"code":"badparam"})");
  EXPECT_THAT(Log(), IsEmpty());
}

class RefusedStatusTest : public SenderTest, public testing::WithParamInterface<int> {};

TEST_P(RefusedStatusTest, IsAFailureWithItsBodyInTheLog) {
  server_.Answer(GetParam(), "the %s body");
  const Outcome outcome = SendFailing();
  EXPECT_EQ(outcome.http_status, GetParam());
  EXPECT_EQ(outcome.transfer_result, 0);
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to request packages, httpResponseCode=" +
                                 std::to_string(GetParam()) + ", data=the %s body"));
  EXPECT_EQ(Attempts(), 1);
}

INSTANTIATE_TEST_SUITE_P(Statuses, RefusedStatusTest,
                         testing::Values(201, 206, 302, 401, 403, 404, 418, 500, 502, 503, 599));

TEST_F(SenderTest, ARefusalWithoutABodyIsLoggedWithoutOne) {
  server_.Answer(500, "");
  SendFailing();
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() +
                                 ", Failed to request packages, httpResponseCode=500, data="));
}

class EmptyBodyTest : public SenderTest, public testing::WithParamInterface<int> {};

TEST_P(EmptyBodyTest, IsNoAnswer) {
  server_.Answer(GetParam(), "");
  SendFailing();
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to get response"));
}

INSTANTIATE_TEST_SUITE_P(Statuses, EmptyBodyTest, testing::Values(200, 400));

TEST_F(SenderTest, WhiteSpaceAroundTheBodyIsRemoved) {
  server_.Answer(200, " \r\n\t{\"a\": \" b \"}\n \v\f");
  EXPECT_EQ(Send().body, "{\"a\": \" b \"}");
}

TEST_F(SenderTest, ABodyOfWhiteSpaceIsAnEmptyAnswer) {
  server_.Answer(200, " \r\n ");
  const Outcome outcome = Send();
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.body, "");
}

TEST_F(SenderTest, ANulInTheBodyEndsIt) {
  server_.Answer(200, std::string("{}\0{\"code\":\"good\"}", 18));
  EXPECT_EQ(Send().body, "{}");
}

TEST_F(SenderTest, ABodyOfOneMebibyteIsTaken) {
  server_.Answer(200, std::string(kLargestBody, 'b'));
  const Outcome outcome = Send();
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.body, std::string(kLargestBody, 'b'));
}

TEST_F(SenderTest, ALargerBodyIsRefused) {
  server_.Answer(200, std::string(kLargestBody + 1, 'b'));
  const Outcome outcome = SendFailing();
  EXPECT_EQ(outcome.transfer_result, CURLE_WRITE_ERROR);
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to curl perform, " +
                                 ErrorText(CURLE_WRITE_ERROR)));
  EXPECT_EQ(Attempts(), 1);
}

TEST_F(SenderTest, AnEndlessBodyIsRefused) {
  server_.Answer(Response{.body = "abc", .fault = {.delivery = devcloud::Delivery::kEndless}});
  EXPECT_EQ(SendFailing().transfer_result, CURLE_WRITE_ERROR);
}

TEST_F(SenderTest, NoMemoryForTheBodyEndsTheTransfer) {
  server_.Answer(200, kGood);
  hooks().realloc_fails = [](std::size_t size) { return size == std::string(kGood).size() + 1; };
  EXPECT_EQ(SendFailing().transfer_result, CURLE_WRITE_ERROR);
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to curl perform, " +
                                 ErrorText(CURLE_WRITE_ERROR)));
}

TEST_F(SenderTest, ATruncatedBodyIsNoAnswer) {
  server_.Answer(Response{.body = kGood, .fault = {.delivery = devcloud::Delivery::kTruncate}});
  const Outcome outcome = SendFailing();
  EXPECT_NE(outcome.transfer_result, 0);
  EXPECT_THAT(Log(), ElementsAre(StartsWith(kFile + Url() + ", Failed to curl perform, code=")));
  EXPECT_EQ(Attempts(), 1);
}

TEST_F(SenderTest, ADroppedConnectionIsNotRetried) {
  server_.Answer(Response{.fault = {.delivery = devcloud::Delivery::kDrop}});
  const Outcome outcome = SendFailing();
  EXPECT_NE(outcome.transfer_result, 0);
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(SenderTest, TheResponseIsFreed) {
  DeviceApiResponse response{7, 200, static_cast<char*>(std::malloc(3))};
  DeviceApiResponseFree(&response);
  EXPECT_EQ(response.body, nullptr);
  EXPECT_EQ(response.http_status, 0);
  EXPECT_EQ(response.transfer_result, 7);
  DeviceApiResponseFree(&response);
  DeviceApiResponseFree(nullptr);
}

// --- redirects ------------------------------------------------------------------------------

class RedirectTest : public SenderTest {
 protected:
  // Sends every request elsewhere, but those for "/there".
  void Redirect(int status, const std::string& location) {
    server_.Handle([=](const Request& request) {
      return request.path == "/there"
                 ? Response{.status = 200, .body = kGood}
                 : Response{.status = status, .headers = {{"Location", location}}, .body = "go"};
    });
  }
};

class RedirectStatusTest : public RedirectTest, public testing::WithParamInterface<int> {};

TEST_P(RedirectStatusTest, ToHttpsIsFollowed) {
  Redirect(GetParam(), server_.Url("localhost") + "/there");
  const Outcome outcome = Send();
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.body, kGood) << "the redirect's own body is no part of the answer";
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[1].path, "/there");
  EXPECT_EQ(requests[1].CountHeaders("Host"), 1U);
  EXPECT_THAT(requests[1].HeaderOr("Host"), StartsWith("localhost:"));
}

INSTANTIATE_TEST_SUITE_P(Statuses, RedirectStatusTest, testing::Values(301, 302, 303, 307, 308));

TEST_F(RedirectTest, ToPlainHttpIsRefused) {
  devcloud::HttpsServer plain({}, [](const Request&) { return Response{.body = kGood}; });
  Redirect(307, plain.Url() + "/there");
  EXPECT_EQ(SendFailing().transfer_result, CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(plain.connections(), 0U);
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to curl perform, " +
                                 ErrorText(CURLE_UNSUPPORTED_PROTOCOL)));
}

class RedirectSchemeTest : public RedirectTest, public testing::WithParamInterface<const char*> {};

TEST_P(RedirectSchemeTest, ToAnythingElseIsRefused) {
  Redirect(302, GetParam());
  EXPECT_NE(SendFailing().transfer_result, 0);
  EXPECT_EQ(server_.requests().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Schemes, RedirectSchemeTest,
                         testing::Values("file:///etc/passwd", "ftp://127.0.0.1/x",
                                         "gopher://127.0.0.1/x", "dict://127.0.0.1/x",
                                         "nonsense://x"),
                         kRowNumber);

TEST_F(RedirectTest, ARingEnds) {
  Redirect(302, server_.Url() + "/again");
  EXPECT_EQ(SendFailing().transfer_result, CURLE_TOO_MANY_REDIRECTS);
  EXPECT_EQ(server_.requests().size(), 11U);
  EXPECT_EQ(Attempts(), 1);
}

// --- attempts -------------------------------------------------------------------------------

TEST_F(SenderTest, ARefusedConnectionIsNotRetried) {
  server_.https().Stop();
  EXPECT_EQ(SendFailing().transfer_result, CURLE_COULDNT_CONNECT);
  EXPECT_THAT(Steps(), ElementsAre("IPRESOLVE=0", "perform"));
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to curl perform, " +
                                 ErrorText(CURLE_COULDNT_CONNECT)));
}

// libcurl 8.14 forgets a block whenever a handle looks in vain for a host a second time. Releases
// before it are held to account.
class LeakOfLibcurl {
 public:
  LeakOfLibcurl() { Forgive(true); }
  LeakOfLibcurl(const LeakOfLibcurl&) = delete;
  LeakOfLibcurl& operator=(const LeakOfLibcurl&) = delete;
  ~LeakOfLibcurl() { Forgive(false); }

 private:
  static void Forgive([[maybe_unused]] bool begins) {
#ifdef __SANITIZE_ADDRESS__
    constexpr unsigned int kFirstThatLeaks = 0x080e00;
    if (curl_version_info(CURLVERSION_NOW)->version_num >= kFirstThatLeaks) {
      begins ? __lsan_disable() : __lsan_enable();
    }
#endif
  }
};

TEST_F(SenderTest, AnUnknownHostIsTriedThreeTimesTheLastOverIpv4) {
  const LeakOfLibcurl forgiven;
  host_ = "https://nowhere.invalid";
  EXPECT_EQ(SendFailing().transfer_result, CURLE_COULDNT_RESOLVE_HOST);
  EXPECT_THAT(Steps(), ElementsAre("IPRESOLVE=0", "perform", "sleep 1", "perform", "IPRESOLVE=1",
                                   "sleep 1", "perform", "sleep 1"));
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() +
                                 ", Failed to request packages, httpResponseCode=0, data="));
}

TEST_F(SenderTest, AnUnknownHostIsTriedTwiceWhenQuick) {
  const LeakOfLibcurl forgiven;
  host_ = "https://nowhere.invalid";
  quick_ = 1;
  EXPECT_EQ(SendFailing().transfer_result, CURLE_COULDNT_RESOLVE_HOST);
  EXPECT_THAT(Steps(), ElementsAre("IPRESOLVE=0", "perform", "IPRESOLVE=1", "sleep 1", "perform",
                                   "sleep 1"));
}

class RetryableTest : public SenderTest, public testing::WithParamInterface<CURLcode> {
 protected:
  RetryableTest() { server_.Answer(200, kGood); }
};

TEST_P(RetryableTest, AnAttemptThatWorksEndsTheAttempts) {
  ScriptAttempts({GetParam()});
  const Outcome outcome = Send();
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.transfer_result, 0);
  EXPECT_EQ(outcome.body, kGood);
  EXPECT_THAT(Steps(), ElementsAre("IPRESOLVE=0", "perform", "sleep 1", "perform"));
}

TEST_P(RetryableTest, TheThirdAttemptCounts) {
  ScriptAttempts({GetParam(), GetParam()});
  EXPECT_EQ(Send().body, kGood);
  EXPECT_THAT(Steps(), ElementsAre("IPRESOLVE=0", "perform", "sleep 1", "perform", "IPRESOLVE=1",
                                   "sleep 1", "perform"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_P(RetryableTest, NoneThatWorksIsAFailure) {
  ScriptAttempts({GetParam(), GetParam(), GetParam()});
  EXPECT_EQ(SendFailing().transfer_result, GetParam());
  EXPECT_EQ(Attempts(), 3);
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() +
                                 ", Failed to request packages, httpResponseCode=0, data="));
}

TEST_P(RetryableTest, AnyQuickFlagAllowsTwoAttempts) {
  quick_ = -3;
  ScriptAttempts({GetParam(), GetParam(), GetParam()});
  EXPECT_EQ(SendFailing().transfer_result, GetParam());
  EXPECT_EQ(Attempts(), 2);
}

TEST_P(RetryableTest, AnotherFailureEndsTheAttempts) {
  ScriptAttempts({GetParam(), CURLE_RECV_ERROR});
  EXPECT_EQ(SendFailing().transfer_result, CURLE_RECV_ERROR);
  EXPECT_EQ(Attempts(), 2);
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to curl perform, " +
                                 ErrorText(CURLE_RECV_ERROR)));
}

INSTANTIATE_TEST_SUITE_P(Codes, RetryableTest,
                         testing::Values(CURLE_OPERATION_TIMEDOUT, CURLE_COULDNT_RESOLVE_PROXY,
                                         CURLE_COULDNT_RESOLVE_HOST));

TEST_F(SenderTest, AServerThatDoesNotAnswerInTimeIsTriedAgain) {
  server_.Answer(Response{.body = kGood, .fault = {.delay = std::chrono::minutes(10)}});
  quick_ = 1;
  auto count = hooks().curl_perform;
  hooks().curl_perform = [count](CURL* curl) {
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 100L);
    return count(curl);
  };
  EXPECT_EQ(SendFailing().transfer_result, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(Attempts(), 2);
}

// Attempts that receive a whole answer, and then are said to have run out of time.
class BrokenOffTest : public SenderTest {
 protected:
  BrokenOffTest() {
    server_.Answer(200, kGood);
    auto count = hooks().curl_perform;
    hooks().curl_perform = [this, count](CURL* curl) -> std::optional<CURLcode> {
      (void)count(curl);
      if (timeouts_-- <= 0) return std::nullopt;
      EXPECT_EQ(interpose::RealCurlEasyPerform(curl), CURLE_OK);
      return CURLE_OPERATION_TIMEDOUT;
    };
  }

  int timeouts_ = 0;
};

TEST_F(BrokenOffTest, WhatItReceivedIsNoAnswer) {
  timeouts_ = 3;
  EXPECT_EQ(SendFailing().transfer_result, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(server_.requests().size(), 3U);
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to get response"));
}

TEST_F(BrokenOffTest, ARetryStartsWithAnEmptyBuffer) {
  timeouts_ = 2;
  EXPECT_EQ(Send().body, kGood);
  EXPECT_EQ(server_.requests().size(), 3U);
}

// --- options --------------------------------------------------------------------------------

class OptionsTest : public SenderTest {
 protected:
  OptionsTest() { server_.Answer(200, kGood); }

  [[nodiscard]] std::vector<std::string> Expected(const std::string& seconds) const {
    return {"POST=1",
            "POSTFIELDS=" + Prefix() + "&id=42",
            "URL=" + Url(),
            "FOLLOWLOCATION=1",
            "REDIR_PROTOCOLS_STR=https",
            "MAXREDIRS=10",
            std::string("USERAGENT=") + kAgent,
            "HTTPHEADER=[]",
            "SSL_VERIFYPEER=1",
            "SSL_VERIFYHOST=2",
            "CAINFO=/etc/ssl/certs/ca-certificates.crt",
            "SSLVERSION=1",
            "LOW_SPEED_LIMIT=128",
            "LOW_SPEED_TIME=60",
            "CONNECTTIMEOUT=" + seconds,
            "TIMEOUT=" + seconds,
            "WRITEFUNCTION=set",
            "WRITEDATA=set",
            "IPRESOLVE=0"};
  }
};

TEST_F(OptionsTest, AreSetInThisOrder) {
  EXPECT_EQ(Send().result, 0);
  EXPECT_EQ(Options(), Expected("120"));
}

TEST_F(OptionsTest, OfAQuickRequestAreTighter) {
  quick_ = 1;
  EXPECT_EQ(Send().result, 0);
  EXPECT_EQ(Options(), Expected("15"));
}

TEST_F(OptionsTest, OfAGetHaveNoForm) {
  use_get_ = 1;
  EXPECT_EQ(Send().result, 0);
  auto expected = Expected("120");
  expected.erase(expected.begin(), expected.begin() + 2);
  expected[0] = "URL=" + Url() + "?" + Prefix() + "&id=42";
  EXPECT_EQ(Options(), expected);
}

enum class Then { kEnds, kGoesOn };

struct OptionFailure {
  CURLoption option;
  std::string log;  // {URL}, {HOST}, {AGENT} and {ERR} stand for theirs
  Then then = Then::kEnds;
};

void PrintTo(const OptionFailure& row, std::ostream* out) {
  *out << curl_easy_option_by_id(row.option)->name;
}

std::string Replaced(std::string text, const std::string& mark, const std::string& value) {
  const std::size_t at = text.find(mark);
  return at == std::string::npos ? text : text.replace(at, mark.size(), value);
}

class OptionFailureTest : public OptionsTest, public testing::WithParamInterface<OptionFailure> {
 protected:
  [[nodiscard]] std::string ExpectedLine() const {
    std::string text = Replaced(GetParam().log, "{URL}", Url());
    text = Replaced(text, "{HOST}", host_);
    text = Replaced(text, "{HOST}", host_);
    text = Replaced(text, "{AGENT}", kAgent);
    return kFile + Replaced(text, "{ERR}", curl_easy_strerror(CURLE_OUT_OF_MEMORY));
  }
};

TEST_P(OptionFailureTest, IsLoggedAndEndsTheRequestWhereItMust) {
  FailOption(GetParam().option);
  if (GetParam().then == Then::kEnds) {
    EXPECT_EQ(SendFailing().transfer_result, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(Attempts(), 0);
  } else {
    EXPECT_EQ(Send().result, 0);
    EXPECT_EQ(Attempts(), 1);
  }
  if (GetParam().log.empty()) {
    EXPECT_THAT(Log(), IsEmpty());
  } else {
    EXPECT_THAT(Log(), ElementsAre(ExpectedLine()));
  }
}

constexpr char kFormLine[] = "{URL}, Failed to set POST parameters, code=27, err={ERR}";
constexpr char kUrlLine[] = "Failed to set url to {URL}, code=27, err={ERR}";
constexpr char kTlsLine[] = "Failed to set curl opt error:(27){ERR}";
constexpr char kSpeedLine[] = "Failed to set time-out, return value=27, err={ERR}";
constexpr char kTimeLine[] = "failed to set time-out, return value=27, err={ERR}";

INSTANTIATE_TEST_SUITE_P(
    Options, OptionFailureTest,
    testing::Values(
        OptionFailure{CURLOPT_POST, kFormLine}, OptionFailure{CURLOPT_POSTFIELDS, kFormLine},
        OptionFailure{CURLOPT_URL, kUrlLine}, OptionFailure{CURLOPT_FOLLOWLOCATION, kUrlLine},
        OptionFailure{CURLOPT_REDIR_PROTOCOLS_STR, kUrlLine},
        OptionFailure{CURLOPT_USERAGENT, "failed to set agent={AGENT}, return value=27, err={ERR}"},
        OptionFailure{CURLOPT_HTTPHEADER,
                      "failed to set req={HOST}, header=Host: {HOST}, return "
                      "value=27, err={ERR}"},
        OptionFailure{CURLOPT_SSL_VERIFYPEER, kTlsLine},
        OptionFailure{CURLOPT_SSL_VERIFYHOST, kTlsLine}, OptionFailure{CURLOPT_CAINFO, kTlsLine},
        OptionFailure{CURLOPT_SSLVERSION, kTlsLine},
        OptionFailure{CURLOPT_LOW_SPEED_LIMIT, kSpeedLine, Then::kGoesOn},
        OptionFailure{CURLOPT_LOW_SPEED_TIME, kSpeedLine, Then::kGoesOn},
        OptionFailure{CURLOPT_CONNECTTIMEOUT, kTimeLine, Then::kGoesOn},
        OptionFailure{CURLOPT_TIMEOUT, kTimeLine},
        OptionFailure{CURLOPT_WRITEFUNCTION,
                      "failed to write function WriteMemoryCallback, "
                      "return value=27, err={ERR}"},
        OptionFailure{CURLOPT_WRITEDATA, "failed to write data, return value=27, err={ERR}"},
        OptionFailure{CURLOPT_IPRESOLVE, "", Then::kGoesOn}),
    [](const auto& test) { return curl_easy_option_by_id(test.param.option)->name; });

TEST_F(OptionsTest, TheLoggedHostLineIsCutAtItsBuffer) {
  host_ = "https://" + std::string(200, 'h') + ".invalid";
  FailOption(CURLOPT_HTTPHEADER);
  SendFailing();
  EXPECT_THAT(Log(), ElementsAre(HasSubstr(", header=" + ("Host: " + host_).substr(0, 127) +
                                           ", return value=27")));
}

// --- failures before the transfer -------------------------------------------------------------

class EarlyFailureTest : public SenderTest {
 protected:
  EarlyFailureTest() { platform().SetFailureTriple({0x0B03, "szlist.c", 88}); }

  ~EarlyFailureTest() override {
    EXPECT_EQ(Attempts(), 0);
    EXPECT_THAT(server_.requests(), IsEmpty());
  }

  void ExpectFailure(const std::string& line, std::uint32_t code = kRequestNotSent) {
    EXPECT_EQ(SendFailing(code).transfer_result, 0);
    EXPECT_THAT(Log(), Contains(line));
  }
};

TEST_F(EarlyFailureTest, AnEmptyHashIsNeverSent) {
  params_.clear();
  ExpectFailure("zomi_https_req_send no key in the hash, ERR=[0x0000 :0]");
}

TEST_F(EarlyFailureTest, AHashWhoseKeysCannotBeListed) {
  platform().FailNext("KLIBCSzHashEnumKey");
  ExpectFailure("zomi_https_req_send no key in the hash, ERR=[0x0B03 szlist.c:88]");
}

TEST_F(EarlyFailureTest, NoListForTheKeys) {
  platform().FailNext("KLIBCSzListAlloc");
  ExpectFailure("zomi_https_req_send out of memory, ERR=[0x0B03 szlist.c:88]");
  EXPECT_THAT(platform().all_calls(), Contains(fake_hos::Call{"KLIBCSzListAlloc", {"512"}}));
}

TEST_F(EarlyFailureTest, NoMemoryForTheParameters) {
  hooks().calloc_fails = [](std::size_t size) { return size == 1024; };
  const Outcome outcome = Send();
  hooks().calloc_fails = nullptr;
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.code, kSystemError);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(EarlyFailureTest, NoHandle) {
  hooks().curl_init = [] { return nullptr; };
  ExpectFailure("zomi_https_req_send failed to init pCurl");
}

TEST_F(EarlyFailureTest, NoSerialNumber) {
  platform().FailNext("KLIBGetSerialNumber");
  ExpectFailure(
      "zomi_token_generation Failed to get serial number from flash. [0x0B03 szlist.c:88]");
}

TEST_F(EarlyFailureTest, ABadSerialNumberOfTheHash) {
  params_ = {{"hs_sn", "-x"}};
  ExpectFailure("zomi_token_generation Serial number is invalid: [-x][0x0000 :0]");
}

TEST_F(EarlyFailureTest, NoToken) {
  hooks().md5_update = [] { return 0; };
  ExpectFailure("zomi_token_generation GenerateToken Failed, err=[0x0000 :0]");
}

TEST_F(EarlyFailureTest, AValueThatCannotBeEncoded) {
  params_ = {{"good", "1"}, {"bad", "v a%sl"}};
  hooks().curl_escape = [](const char* value) -> std::optional<char*> {
    return std::string(value) == "v a%sl" ? std::optional<char*>(nullptr) : std::nullopt;
  };
  ExpectFailure("zomi_https_req_send URL encoding failed: v a%sl");
}

TEST_F(EarlyFailureTest, EachAppendThatFails) {
  account_id_ = "i";
  account_password_ = "p";
  params_ = {{"a", "1"}};
  constexpr int kOfTheToken = 3;
  // name, "=" and value of five pairs, "&" before four of them
  constexpr int kOfTheParameters = 3 * 5 + 4;
  for (int nth = 1; nth <= kOfTheToken + kOfTheParameters; ++nth) {
    SCOPED_TRACE(nth);
    platform().StopFailing();
    ClearLog();
    platform().FailCall("KLIBCStrCat", nth);
    SendFailing();
    EXPECT_THAT(Log(),
                ElementsAre(nth <= kOfTheToken ? "zomi_token_generation Fail to concat string"
                                               : "zomi_https_req_send Fail to concat string"));
  }
}

// --- arguments ------------------------------------------------------------------------------

class NullArgumentTest : public SenderTest {
 protected:
  NullArgumentTest() {
    request_.host = "https://127.0.0.1";
    request_.path = "p";
    nodelink::SetLastErrorCode(kUntouchedCode);
  }

  void ExpectRefusal(const DeviceApiRequest* request, DeviceApiResponse* response) {
    EXPECT_EQ(DeviceApiSend(request, response), -1);
    EXPECT_EQ(LastErrorCode(), kWrongParameters);
    EXPECT_THAT(Log(), IsEmpty());
    EXPECT_THAT(platform().all_calls(), IsEmpty());
    EXPECT_THAT(Steps(), IsEmpty());
  }

  DeviceApiRequest request_{};
  DeviceApiResponse response_{};
};

TEST_F(NullArgumentTest, NoRequest) { ExpectRefusal(nullptr, &response_); }

TEST_F(NullArgumentTest, NoResponse) { ExpectRefusal(&request_, nullptr); }

TEST_F(NullArgumentTest, NoHost) {
  request_.host = nullptr;
  ExpectRefusal(&request_, &response_);
}

TEST_F(NullArgumentTest, NoPath) {
  request_.path = nullptr;
  ExpectRefusal(&request_, &response_);
}

TEST_F(NullArgumentTest, NoHash) {
  EXPECT_EQ(DeviceApiSend(&request_, &response_), -1);
  EXPECT_EQ(LastErrorCode(), kRequestNotSent);
  EXPECT_EQ(response_.body, nullptr);
  EXPECT_EQ(Attempts(), 0);
}

// --- getinfo --------------------------------------------------------------------------------

TEST_F(SenderTest, AStatusThatCannotBeReadIsAFailure) {
  server_.Answer(200, kGood);
  hooks().curl_getinfo = [](CURLINFO info) {
    EXPECT_EQ(info, CURLINFO_RESPONSE_CODE);
    return CURLE_UNKNOWN_OPTION;
  };
  EXPECT_EQ(SendFailing().transfer_result, CURLE_UNKNOWN_OPTION);
  EXPECT_THAT(Log(), ElementsAre(kFile + Url() + ", Failed to curl_easy_getinfo, " +
                                 ErrorText(CURLE_UNKNOWN_OPTION)));
}

// --- one pair -------------------------------------------------------------------------------

class AppendParamTest : public PlatformTest {
 protected:
  AppendParamTest() : curl_(curl_easy_init()) {}

  ~AppendParamTest() override {
    std::free(buffer_);
    curl_easy_cleanup(curl_);
  }

  int Append(const char* name, const char* value, bool first) {
    return DeviceApiAppendParam(curl_, name, value, &buffer_, &size_, first);
  }

  CURL* curl_;
  std::size_t size_ = 4;
  char* buffer_ = static_cast<char*>(std::calloc(size_, 1));
};

TEST_F(AppendParamTest, PairsAreSeparatedAfterTheFirst) {
  EXPECT_EQ(Append("hs_sn", "a b&c", true), 0);
  EXPECT_STREQ(buffer_, "hs_sn=a%20b%26c");
  EXPECT_EQ(Append("n&m", "", false), 0);
  EXPECT_STREQ(buffer_, "hs_sn=a%20b%26c&n&m=");
  EXPECT_GE(size_, 21U);
}

TEST_F(AppendParamTest, AFailedAppendIsLogged) {
  platform().FailNext("KLIBCStrCat");
  EXPECT_EQ(Append("n", "v", false), -1);
  EXPECT_THAT(Log(), ElementsAre("zomi_https_req_send Fail to concat string"));
}

TEST_F(AppendParamTest, AFailedEncodingIsLoggedWithTheRawValue) {
  hooks().curl_escape = [](const char*) { return nullptr; };
  EXPECT_EQ(Append("n", "a b\nc", false), -1);
  EXPECT_THAT(Log(), ElementsAre("zomi_https_req_send URL encoding failed: a b\nc"));
  EXPECT_STREQ(buffer_, "");
}

// --- every platform call in turn --------------------------------------------------------------

// Only what the request can do without may fail without failing the request.
TEST_F(SenderTest, EachPlatformCallThatFails) {
  server_.Answer(200, kGood);
  account_id_ = "i";
  account_password_ = "p";
  int failures = 0;
  for (failing_call_ = 1;; ++failing_call_) {
    platform().Reset();
    const Outcome outcome = Send();
    if (!platform().nth_call_fired()) break;
    SCOPED_TRACE(std::to_string(failing_call_) + ": " + platform().nth_call().ToText());
    const std::string name = platform().nth_call().name;
    const bool survives = name == "KLIBHsinfoUserAgentGet" || name == "KLIBCStrTrimSpace";
    EXPECT_EQ(outcome.result, survives ? 0 : -1);
    EXPECT_EQ(outcome.code, survives ? kUntouchedCode : kRequestNotSent);
    EXPECT_EQ(outcome.body.has_value(), survives);
    EXPECT_EQ(platform().live_objects(), 0);
    ++failures;
  }
  EXPECT_GT(failures, 20);
}

}  // namespace
