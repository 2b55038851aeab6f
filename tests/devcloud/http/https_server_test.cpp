#include "devcloud/http/https_server.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "devcloud/http/listener.h"
#include "tests/devcloud/http_client.h"

namespace {

using devcloud::Authority;
using devcloud::Delivery;
using devcloud::HttpsServer;
using devcloud::Request;
using devcloud::Response;
using devcloud::TlsSettings;
using devcloud::TlsVersion;
using devcloud_test::ClientAnswer;
using devcloud_test::ExchangeRaw;
using devcloud_test::HttpClient;
using std::chrono::hours;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::StartsWith;

const Authority& TestAuthority() {
  static const Authority authority = Authority::Make("test authority");
  return authority;
}

devcloud::ServerOptions WithTls() { return {.tls = TlsSettings{TestAuthority().Issue({})}}; }

devcloud::Handler Always(const Response& response) {
  return [response](const Request&) { return response; };
}

Response Faulty(Delivery delivery, std::string body) {
  return {.body = std::move(body), .fault = {.delivery = delivery}};
}

TEST(HttpsServerTest, RecordsTheExactRequest) {
  HttpsServer server(WithTls(), Always({.body = "hello"}));
  HttpClient client(TestAuthority().certificate_pem());
  const ClientAnswer answer = client.Send({.url = server.Url("localhost") + "/a/b?c=%20d",
                                           .body = std::string("x=a%20b%26c\0y", 13),
                                           .headers = {"X-One: 1", "x-two: 2"}});
  EXPECT_EQ(answer.result, CURLE_OK);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "hello");
  ASSERT_EQ(server.requests().size(), 1U);
  const Request request = server.requests().front();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/a/b?c=%20d");
  EXPECT_EQ(request.path, "/a/b");
  EXPECT_EQ(request.query, "c=%20d");
  EXPECT_EQ(request.body, std::string("x=a%20b%26c\0y", 13));
  EXPECT_EQ(request.HeaderOr("X-TWO"), "2");
  EXPECT_EQ(request.headers.front().name, "Host");
  EXPECT_EQ(request.sni, "localhost");
  EXPECT_EQ(request.tls_version, "TLSv1.3");
}

TEST(HttpsServerTest, KeepsConnectionsOpen) {
  HttpsServer server(WithTls(), Always({.body = "x"}));
  HttpClient client(TestAuthority().certificate_pem());
  EXPECT_EQ(client.Send({.url = server.Url()}).connections, 1);
  EXPECT_EQ(client.Send({.url = server.Url()}).connections, 0);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].peer_port, requests[1].peer_port);
  EXPECT_EQ(server.connections(), 1U);
}

TEST(HttpsServerTest, ServesPlainHttp) {
  HttpsServer server({}, Always({.status = 302, .headers = {{"Location", "https://x/"}}}));
  HttpClient client;
  const ClientAnswer answer = client.Send({.url = server.Url()});
  EXPECT_EQ(answer.status, 302);
  EXPECT_EQ(answer.Header("Location"), "https://x/");
  EXPECT_EQ(server.requests().at(0).tls_version, "");
}

TEST(HttpsServerTest, ReadsChunkedBodiesAndPipelinedRequests) {
  HttpsServer server({}, [](const Request& request) { return Response{.body = request.body}; });
  const std::string answer = ExchangeRaw(
      server.port(),
      "POST /1 HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n"
      "0\r\n\r\nPOST /2 HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: 2\r\n\r\nfg");
  EXPECT_THAT(answer, HasSubstr("\r\n\r\nabcde"));
  EXPECT_THAT(answer, HasSubstr("\r\n\r\nfg"));
}

TEST(HttpsServerTest, AsksForTheBodyOnExpectation) {
  HttpsServer server({}, Always({}));
  HttpClient client;
  EXPECT_EQ(
      client.Send({.url = server.Url(), .body = "x", .headers = {"Expect: 100-continue"}}).status,
      200);
  const std::string answer = ExchangeRaw(
      server.port(),
      "POST / HTTP/1.0\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 0\r\n\r\n");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST(HttpsServerTest, RefusesBrokenRequests) {
  HttpsServer server({}, Always({}));
  EXPECT_THAT(ExchangeRaw(server.port(), "rubbish\r\n\r\n"), StartsWith("HTTP/1.1 400 "));
  EXPECT_THAT(ExchangeRaw(server.port(), "GET / HTTP/1.1\r\nBad Header\r\n\r\n"),
              StartsWith("HTTP/1.1 400 "));
  EXPECT_TRUE(server.requests().empty());
}

TEST(HttpsServerTest, RefusesWhatIsTooLarge) {
  HttpsServer server({.limits = {.header_bytes = 1000, .body_bytes = 1000}}, Always({}));
  const std::string start = "POST / HTTP/1.1\r\nHost: x\r\n";
  EXPECT_THAT(ExchangeRaw(server.port(), start + "X: " + std::string(2000, 'a') + "\r\n\r\n"),
              StartsWith("HTTP/1.1 431 "));
  EXPECT_THAT(
      ExchangeRaw(server.port(), start + "Content-Length: 1001\r\n\r\n" + std::string(1001, 'b')),
      StartsWith("HTTP/1.1 413 "));
  EXPECT_THAT(ExchangeRaw(server.port(), start + "Transfer-Encoding: chunked\r\n\r\n7d0\r\n" +
                                             std::string(2000, 'c') + "\r\n0\r\n\r\n"),
              StartsWith("HTTP/1.1 413 "));
  EXPECT_TRUE(server.requests().empty());
}

TEST(HttpsServerTest, SilentPeersAreSentAway) {
  HttpsServer server({.idle_timeout = milliseconds(1)}, Always({}));
  EXPECT_EQ(ExchangeRaw(server.port(), ""), "");
  EXPECT_EQ(ExchangeRaw(server.port(), "GET / HT"), "");
}

TEST(HttpsServerTest, DropsConnections) {
  HttpsServer server({}, Always(Faulty(Delivery::kDrop, "x")));
  HttpClient client;
  EXPECT_EQ(client.Send({.url = server.Url()}).result, CURLE_GOT_NOTHING);
}

TEST(HttpsServerTest, TruncatesBodies) {
  HttpsServer server({}, Always(Faulty(Delivery::kTruncate, "0123456789")));
  HttpClient client;
  const ClientAnswer answer = client.Send({.url = server.Url()});
  EXPECT_EQ(answer.result, CURLE_PARTIAL_FILE);
  EXPECT_EQ(answer.body, "01234");
}

TEST(HttpsServerTest, SendsEndlessBodies) {
  HttpsServer server(WithTls(), Always(Faulty(Delivery::kEndless, "ab")));
  HttpClient client(TestAuthority().certificate_pem());
  const ClientAnswer answer = client.Send({.url = server.Url(), .most_bytes = 3U << 20U});
  EXPECT_EQ(answer.result, CURLE_WRITE_ERROR);
  EXPECT_THAT(answer.body, StartsWith("ababab"));
}

TEST(HttpsServerTest, TricklesBodies) {
  Response response = Faulty(Delivery::kSlow, "abcdef");
  response.fault.slow_bytes = 4;
  response.fault.slow_interval = milliseconds(1);
  HttpsServer server(WithTls(), Always(response));
  HttpClient client(TestAuthority().certificate_pem());
  EXPECT_EQ(client.Send({.url = server.Url()}).body, "abcdef");
  EXPECT_EQ(client.Send({.url = server.Url()}).connections, 0);
}

TEST(HttpsServerTest, SendsRawAnswers) {
  HttpsServer once({}, Always(Faulty(Delivery::kRaw, "no head")));
  EXPECT_EQ(ExchangeRaw(once.port(), "GET / HTTP/1.1\r\n\r\n"), "no head");
  HttpsServer endless(WithTls(), Always(Faulty(Delivery::kRawEndless, "HTTP/1.1 200 OK\r\n\r\n")));
  HttpClient client(TestAuthority().certificate_pem());
  const ClientAnswer answer = client.Send({.url = endless.Url("localhost"), .most_bytes = 50'000});
  EXPECT_THAT(answer.body, StartsWith("HTTP/1.1 200 OK\r\n\r\nHTTP/1.1"));
}

TEST(HttpsServerTest, RefusesAFieldThatTheParserCannotTake) {
  HttpsServer server({}, Always({.body = "x"}));
  EXPECT_THAT(
      ExchangeRaw(server.port(), "GET / HTTP/1.1\r\nX: " + std::string(70'000, 'x') + "\r\n\r\n"),
      StartsWith("HTTP/1.1 431 "));
}

TEST(HttpsServerTest, LiesAboutTheLengthWhenTold) {
  HttpsServer server({}, Always({.headers = {{"Content-Length", "2"}}, .body = "abcdef"}));
  EXPECT_THAT(ExchangeRaw(server.port(), "GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"),
              HasSubstr("Content-Length: 2\r\nConnection: close\r\n\r\nabcdef"));
}

TEST(HttpsServerTest, HeadAndNoContentHaveNoBody) {
  HttpsServer server({}, [](const Request& request) {
    return Response{.status = request.path == "/none" ? 204 : 200, .body = "abc"};
  });
  const std::string head =
      ExchangeRaw(server.port(), "HEAD / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(head, "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nConnection: close\r\n\r\n");
  const std::string none =
      ExchangeRaw(server.port(), "GET /none HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(none, "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
}

// Stopping must end whatever is going on: waits of an hour, endless answers, silent peers.
TEST(HttpsServerTest, StopEndsEverythingAtOnce) {
  HttpsServer server({}, [](const Request& request) {
    Response response = Faulty(request.path == "/endless" ? Delivery::kEndless : Delivery::kSlow,
                               std::string(1000, 'x'));
    response.fault.slow_interval = hours(1);
    if (request.path == "/delay") response.fault.delay = hours(1);
    return response;
  });
  const auto fetch = [&server](const std::string& path) {
    return ExchangeRaw(server.port(), "GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
  };
  auto delayed = std::async(std::launch::async, fetch, "/delay");
  auto slow = std::async(std::launch::async, fetch, "/slow");
  auto endless = std::async(std::launch::async, fetch, "/endless");
  auto silent =
      std::async(std::launch::async, [&server] { return ExchangeRaw(server.port(), "GET"); });
  ASSERT_TRUE(server.WaitForRequests(3));
  server.Stop();
  EXPECT_EQ(delayed.get(), "");
  EXPECT_THAT(slow.get(), StartsWith("HTTP/1.1 200"));
  EXPECT_THAT(endless.get(), StartsWith("HTTP/1.1 200"));
  EXPECT_EQ(silent.get(), "");
}

TEST(HttpsServerTest, HandlerCallsComeOneAtATime) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  HttpsServer server({}, [&](const Request&) {
    most = std::max<int>(most, ++inside);
    std::this_thread::yield();
    --inside;
    return Response{};
  });
  std::vector<std::thread> clients;
  clients.reserve(8);
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back(
        [&server] { EXPECT_EQ(HttpClient().Send({.url = server.Url()}).status, 200); });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(most, 1);
  EXPECT_EQ(server.requests().size(), 8U);
}

TEST(HttpsServerTest, AHandlerThatThrowsIsAnInternalError) {
  HttpsServer server({}, [](const Request&) -> Response { throw std::runtime_error("oops"); });
  HttpClient client;
  EXPECT_EQ(client.Send({.url = server.Url()}).status, 500);
}

TEST(HttpsServerTest, CapsTheTlsVersion) {
  HttpsServer server({.tls = TlsSettings{.identity = TestAuthority().Issue({}),
                                         .lowest = TlsVersion::kTls11,
                                         .highest = TlsVersion::kTls11}},
                     Always({}));
  HttpClient client(TestAuthority().certificate_pem());
  EXPECT_EQ(client.Send({.url = server.Url()}).result, CURLE_SSL_CONNECT_ERROR);
  EXPECT_TRUE(server.WaitForFailedHandshakes(1));
  server.SetTls({.identity = TestAuthority().Issue({}), .highest = TlsVersion::kTls12});
  EXPECT_EQ(client.Send({.url = server.Url()}).status, 200);
  EXPECT_EQ(server.requests().at(0).tls_version, "TLSv1.2");
}

TEST(HttpsServerTest, PlainTextOnATlsPortIsAFailedHandshake) {
  HttpsServer server(WithTls(), Always({}));
  (void)ExchangeRaw(server.port(), "GET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(server.WaitForFailedHandshakes(1));
}

TEST(HttpsServerTest, ForgetsOldRequestsBeyondItsLimit) {
  HttpsServer server({.max_recorded = 2}, Always({}));
  HttpClient client;
  for (const char* path : {"/1", "/2", "/3"}) (void)client.Send({.url = server.Url() + path});
  EXPECT_TRUE(server.WaitForRequests(3));
  ASSERT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(server.requests().front().path, "/2");
  server.ClearRequests();
  EXPECT_FALSE(server.WaitForRequests(1, milliseconds(0)));
}

TEST(HttpsServerTest, ClosesConnectionsBeyondItsLimit) {
  HttpsServer server({.max_connections = 0}, Always({}));
  EXPECT_EQ(ExchangeRaw(server.port(), ""), "");
  EXPECT_EQ(server.connections(), 0U);
}

TEST(HttpsServerTest, SaysWhyItCannotListen) {
  HttpsServer server({}, Always({}));
  EXPECT_THROW(HttpsServer({.port = server.port()}, Always({})), std::system_error);
  EXPECT_THROW(HttpsServer({.address = "no address"}, Always({})), std::system_error);
  EXPECT_THROW(HttpsServer({.tls = TlsSettings{}}, Always({})), std::runtime_error);
}

bool HasIpv6() {
  try {
    (void)devcloud::Listen("::1", 0);
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

TEST(HttpsServerTest, ListensOnIpv6) {
  if (!HasIpv6()) GTEST_SKIP() << "this machine has no IPv6 loopback";
  HttpsServer server({.address = "::1"}, Always({.body = "six"}));
  HttpClient client;
  EXPECT_EQ(client.Send({.url = server.Url("[::1]")}).body, "six");
}

}  // namespace
