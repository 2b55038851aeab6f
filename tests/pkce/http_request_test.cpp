#include "pkce/http_request.h"

#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/support/session_fixture.h"

namespace nodelink {
namespace {

using devcloud::CertificateKind;
using devcloud::Delivery;
using devcloud::Request;
using devcloud::Response;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char kPath[] = "/post";
constexpr std::size_t kLargestBody = 1024 * 1024;

class HttpRequestTest : public SessionTest {
 protected:
  HttpRequestTest() { server_.Answer(kPath, 200, "answer"); }

  static std::string Url() { return std::string(session::kIdentity) + kPath; }

  HttpAnswer Send() { return Post(request_); }

  // Posts the form and gives the body that came.
  std::string BodyOf(HttpForm form) {
    request_.form = std::move(form);
    EXPECT_EQ(Send().status, 200);
    return server_.OnlyRequest(kPath).body;
  }

  void ExpectTransferError(const HttpAnswer& answer) {
    EXPECT_NE(answer.error_code, 0);
    EXPECT_THAT(answer.error_message, Not(IsEmpty()));
  }

  HttpRequest request_{.url = Url(),
                       .user_agent = "agent/1",
                       .header_sets = {{{"X-Client-ID", "client"}}},
                       .form = HttpForm{{"a", "b"}}};
};

std::vector<std::string> HeaderLines(const Request& request) {
  std::vector<std::string> lines;
  for (const devcloud::Header& header : request.headers) {
    lines.push_back(header.name + ": " + header.value);
  }
  return lines;
}

// --- what travels ---------------------------------------------------------------------------

TEST_F(HttpRequestTest, IsOnePostOfTheForm) {
  EXPECT_EQ(BodyOf({{"a", "b"}}), "a=b");
  EXPECT_THAT(server_.Targets(), ElementsAre("POST https://identity.veltrix.example/post"));
}

TEST_F(HttpRequestTest, CarriesTheAgentTheGivenHeaderAndTheUsualOnes) {
  (void)Send();
  EXPECT_THAT(HeaderLines(server_.OnlyRequest(kPath)),
              ElementsAre("Host: identity.veltrix.example", "User-Agent: agent/1", "Accept: */*",
                          testing::StartsWith("Accept-Encoding: "), "X-Client-ID: client",
                          "Content-Length: 3", "Content-Type: application/x-www-form-urlencoded"));
}

TEST_F(HttpRequestTest, PairsStandInTheOrderGiven) {
  EXPECT_EQ(BodyOf({{"zulu", "1"}, {"alpha", "2"}, {"mike", "3"}}), "zulu=1&alpha=2&mike=3");
}

TEST_F(HttpRequestTest, EqualNamesAllTravel) {
  EXPECT_EQ(BodyOf({{"s[]", "one"}, {"s[]", "two"}, {"s[]", "one"}}), "s[]=one&s[]=two&s[]=one");
}

TEST_F(HttpRequestTest, AnEmptyValueKeepsItsName) {
  EXPECT_EQ(BodyOf({{"a", ""}, {"b", ""}}), "a=&b=");
}

TEST_F(HttpRequestTest, ValuesAreUrlEscaped) {
  EXPECT_EQ(BodyOf({{"v", "a b&c=d+e%f/g?h#i\r\n\"'<>\xC3\xA9~-._"}}),
            "v=a%20b%26c%3Dd%2Be%25f%2Fg%3Fh%23i%0D%0A%22%27%3C%3E%C3%A9~-._");
}

TEST_F(HttpRequestTest, AnEmptyFormIsAnEmptyBody) { EXPECT_EQ(BodyOf({}), ""); }

TEST_F(HttpRequestTest, AHugeValueTravelsWhole) {
  const std::string value(900'000, 'v');
  EXPECT_EQ(BodyOf({{"v", value}}), "v=" + value);
}

TEST_F(HttpRequestTest, WithoutAFormTheBodyIsEmpty) {
  request_.form = std::nullopt;
  EXPECT_EQ(Send().status, 200);
  const Request request = server_.OnlyRequest(kPath);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.body, "");
  EXPECT_EQ(request.HeaderOr("Content-Length"), "0");
  EXPECT_EQ(request.CountHeaders("Transfer-Encoding"), 0U);
}

TEST_F(HttpRequestTest, ASecondSetOfHeadersTakesThePlaceOfTheFirst) {
  request_.header_sets = {{{"X-Client-ID", "client"}, {"X-Other", "1"}},
                          {{"Authorization", "Bearer token"}}};
  EXPECT_EQ(Send().status, 200);
  const Request request = server_.OnlyRequest(kPath);
  EXPECT_EQ(request.HeaderOr("Authorization"), "Bearer token");
  EXPECT_EQ(request.CountHeaders("X-Client-ID"), 0U);
  EXPECT_EQ(request.CountHeaders("X-Other"), 0U);
}

TEST_F(HttpRequestTest, ALineBreakInAFormValueIsNoHeader) {
  (void)BodyOf({{"a", "x\r\nX-Evil: 1\r\n\r\n"}});
  EXPECT_EQ(server_.OnlyRequest(kPath).CountHeaders("X-Evil"), 0U);
}

class HttpRequestHeaderTest : public HttpRequestTest,
                              public testing::WithParamInterface<session::NamedText> {};

TEST_P(HttpRequestHeaderTest, AValueThatIsMoreThanOneLineIsNotSent) {
  request_.header_sets = {{{"Authorization", "Bearer " + GetParam().text}}};
  const HttpAnswer answer = Send();
  ExpectTransferError(answer);
  EXPECT_EQ(answer.status, 0);
  EXPECT_EQ(server_.https().connections(), 0U);
}

TEST_P(HttpRequestHeaderTest, NorIsSuchAUserAgent) {
  request_.user_agent = "agent" + GetParam().text;
  (void)Send();
  for (const Request& request : server_.requests()) {
    EXPECT_EQ(request.CountHeaders("X-Evil"), 0U);
  }
}

INSTANTIATE_TEST_SUITE_P(LineBreaks, HttpRequestHeaderTest,
                         testing::Values(session::NamedText{"CrLf", "\r\nX-Evil: 1"},
                                         session::NamedText{"Lf", "\nX-Evil: 1"},
                                         session::NamedText{"Cr", "\rX-Evil: 1"},
                                         session::NamedText{"LfAtTheEnd", "\n"},
                                         session::NamedText{"CrAtTheEnd", "\r"},
                                         session::NamedText{"Nul", std::string("a\0b", 3)}),
                         session::NameOf);

// --- one request after another --------------------------------------------------------------

TEST_F(HttpRequestTest, ShareAConnection) {
  EXPECT_EQ(Send().status, 200);
  EXPECT_EQ(Send().status, 200);
  EXPECT_EQ(server_.https().connections(), 1U);
}

TEST_F(HttpRequestTest, NothingOfOneTravelsWithTheNext) {
  server_.Answer(kPath, Response{.headers = {{"Set-Cookie", "a=b"}}, .body = "answer"});
  (void)Send();
  request_.header_sets = {{{"Authorization", "Bearer token"}}};
  request_.form = std::nullopt;
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.text, "answer") << answer.error_message;
  ASSERT_EQ(server_.requests().size(), 2U);
  EXPECT_THAT(HeaderLines(server_.requests().back()),
              ElementsAre("Host: identity.veltrix.example", "User-Agent: agent/1", "Accept: */*",
                          testing::StartsWith("Accept-Encoding: "), "Authorization: Bearer token",
                          "Content-Length: 0", "Content-Type: application/x-www-form-urlencoded"));
  EXPECT_EQ(server_.requests().back().body, "");
}

TEST_F(HttpRequestTest, AFormAfterAnEmptyBodyIsWhole) {
  request_.form = std::nullopt;
  (void)Send();
  server_.ClearRequests();
  EXPECT_EQ(BodyOf({{"a", "b"}}), "a=b");
}

TEST_F(HttpRequestTest, AFailureLeavesNothingBehind) {
  server_.Answer(kPath, Response{.body = "a body", .fault = {.delivery = Delivery::kTruncate}});
  ExpectTransferError(Send());
  server_.Answer(kPath, 200, "answer");
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.error_code, 0);
  EXPECT_EQ(answer.error_message, "");
  EXPECT_EQ(answer.text, "answer");
}

// Its 140 certificates take longer to read than the rest of a request.
TEST_F(HttpRequestTest, TheCaBundleIsReadOnce) {
  EXPECT_EQ(Send().status, 200);
  ASSERT_EQ(unlink("/etc/ssl/certs/ca-certificates.crt"), 0);
  request_.url = std::string(session::kAccount) + kPath;
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.status, 200) << answer.error_message;
  EXPECT_EQ(server_.https().connections(), 2U);
}

// --- what comes back ------------------------------------------------------------------------

class HttpRequestStatusTest : public HttpRequestTest, public testing::WithParamInterface<int> {};

TEST_P(HttpRequestStatusTest, AnAnswerOfAnyStatusIsAnAnswer) {
  server_.Answer(kPath, GetParam(), "text of the answer");
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.error_code, 0) << answer.error_message;
  EXPECT_EQ(answer.status, GetParam());
  EXPECT_EQ(answer.text, "text of the answer");
}

INSTANTIATE_TEST_SUITE_P(All, HttpRequestStatusTest,
                         testing::Values(200, 201, 400, 401, 403, 404, 429, 500, 503));

class HttpRequestRedirectTest : public HttpRequestTest, public testing::WithParamInterface<int> {};

TEST_P(HttpRequestRedirectTest, IsNotFollowed) {
  server_.Answer(kPath,
                 Response{.status = GetParam(), .headers = {{"Location", "/next"}}, .body = "go"});
  server_.Answer("/next", 200, "stolen");
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.error_code, 0);
  EXPECT_EQ(answer.status, GetParam());
  EXPECT_EQ(answer.text, "go");
  EXPECT_EQ(server_.requests().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(All, HttpRequestRedirectTest, testing::Values(301, 302, 303, 307, 308));

TEST_F(HttpRequestTest, AnEmptyBodyIsAnEmptyText) {
  server_.Answer(kPath, 200, "");
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.error_code, 0);
  EXPECT_EQ(answer.text, "");
}

TEST_F(HttpRequestTest, ABodyIsKeptByteForByte) {
  const std::string body("  a\0b\r\n\xff ", 9);
  server_.Answer(kPath, 200, body);
  EXPECT_EQ(Send().text, body);
}

TEST_F(HttpRequestTest, TheLargestBodyIsAnAnswer) {
  const std::string body(kLargestBody, 'x');
  server_.Answer(kPath, 200, body);
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.error_code, 0);
  EXPECT_EQ(answer.text, body);
}

TEST_F(HttpRequestTest, ABodyOfOneByteMoreIsRefused) {
  server_.Answer(kPath, 200, std::string(kLargestBody + 1, 'x'));
  ExpectTransferError(Send());
}

TEST_F(HttpRequestTest, ABodyWithoutEndIsRefused) {
  server_.Answer(kPath, Response{.body = "for ever", .fault = {.delivery = Delivery::kEndless}});
  ExpectTransferError(Send());
}

TEST_F(HttpRequestTest, ASlowBodyThatComesInTimeIsWhole) {
  server_.Answer(kPath, Response{.body = "drop by drop",
                                 .fault = {.delivery = Delivery::kSlow,
                                           .slow_interval = std::chrono::milliseconds(1)}});
  const HttpAnswer answer = Send();
  EXPECT_EQ(answer.error_code, 0);
  EXPECT_EQ(answer.text, "drop by drop");
}

TEST_F(HttpRequestTest, TheWholeTransferMayTake30Seconds) {
  std::vector<long> limits;
  hooks().curl_setopt = [&limits](CURLoption option, const interpose::CurlValue& value) {
    if (option == CURLOPT_TIMEOUT_MS) limits.push_back(std::get<long>(value));
    return std::optional<CURLcode>();
  };
  EXPECT_EQ(Send().status, 200);
  EXPECT_THAT(limits, ElementsAre(30'000));
}

struct BadDelivery {
  const char* name;
  devcloud::Fault fault;
};

void PrintTo(const BadDelivery& delivery, std::ostream* stream) { *stream << delivery.name; }

class HttpRequestDeliveryTest : public HttpRequestTest,
                                public testing::WithParamInterface<BadDelivery> {};

TEST_P(HttpRequestDeliveryTest, IsATransferError) {
  CutTimeLimit();
  server_.Answer(kPath, Response{.body = "a body of some length", .fault = GetParam().fault});
  ExpectTransferError(Send());
  EXPECT_EQ(server_.requests().size(), 1U) << "it must not be tried again";
}

INSTANTIATE_TEST_SUITE_P(All, HttpRequestDeliveryTest,
                         testing::Values(BadDelivery{"Dropped", {.delivery = Delivery::kDrop}},
                                         BadDelivery{"Truncated",
                                                     {.delivery = Delivery::kTruncate}},
                                         BadDelivery{"Late", {.delay = std::chrono::hours(1)}},
                                         BadDelivery{"TooSlow",
                                                     {.delivery = Delivery::kSlow,
                                                      .slow_interval = std::chrono::hours(1)}}),
                         [](const auto& test) { return test.param.name; });

// --- servers that are not the vendor's ------------------------------------------------------

class HttpRequestTlsTest : public HttpRequestTest,
                           public testing::WithParamInterface<devcloud::TlsChoice> {};

TEST_P(HttpRequestTlsTest, AFaultOfTheServerIsRefused) {
  server_.Show(GetParam());
  const HttpAnswer answer = Send();
  ExpectTransferError(answer);
  EXPECT_EQ(answer.status, 0);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, HttpRequestTlsTest,
    testing::Values(devcloud::TlsChoice{.certificate = CertificateKind::kExpired},
                    devcloud::TlsChoice{.certificate = CertificateKind::kNotYetValid},
                    devcloud::TlsChoice{.certificate = CertificateKind::kWrongName},
                    devcloud::TlsChoice{.certificate = CertificateKind::kUnknownAuthority},
                    devcloud::TlsChoice{.certificate = CertificateKind::kSelfSigned},
                    devcloud::TlsChoice{.certificate = CertificateKind::kWeakKey},
                    devcloud::TlsChoice{.highest = devcloud::TlsVersion::kTls11},
                    devcloud::TlsChoice{.highest = devcloud::TlsVersion::kTls10}),
    [](const auto& test) {
      return std::string(devcloud::ToName(test.param.certificate)) + "_" +
             std::to_string(static_cast<int>(test.param.highest));
    });

class HttpRequestUrlTest : public HttpRequestTest,
                           public testing::WithParamInterface<session::NamedText> {};

TEST_P(HttpRequestUrlTest, ThatCannotBeReachedIsATransferError) {
  request_.url = GetParam().text;
  const HttpAnswer answer = Send();
  EXPECT_NE(answer.error_code, 0);
  EXPECT_EQ(answer.status, 0);
  EXPECT_EQ(answer.text, "");
}

INSTANTIATE_TEST_SUITE_P(All, HttpRequestUrlTest,
                         testing::ValuesIn(std::vector<session::NamedText>{
                             {"Empty", ""},
                             {"NoHost", "https://"},
                             {"OnlyAPath", "https:///path"},
                             {"NoScheme", "://"},
                             {"UnknownScheme", "nonsense://host/"},
                             {"RefusedConnection", "https://localhost:1/"},
                             {"UnknownHost", "https://nowhere.invalid/"},
                             {"PortOutOfRange", "https://host:99999/"},
                             {"Space", "https://ho st/"},
                             {"LineBreak", "https://identity.veltrix.example\r\n/post"},
                         }),
                         session::NameOf);

TEST_F(HttpRequestTest, AFileIsNoServer) {
  request_.url = "file:///etc/passwd";
  const HttpAnswer answer = Send();
  EXPECT_NE(answer.error_code, 0);
  EXPECT_EQ(answer.text, "");
}

}  // namespace
}  // namespace nodelink
