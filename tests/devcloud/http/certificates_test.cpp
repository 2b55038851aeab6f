#include "devcloud/http/certificates.h"

#include <gtest/gtest.h>

#include "devcloud/http/https_server.h"
#include "devcloud/http/tls_switch.h"
#include "tests/devcloud/http_client.h"

namespace {

using devcloud::Authority;
using devcloud::CertificateKind;
using devcloud::Request;
using devcloud::Response;
using devcloud_test::HttpClient;

// What a client that trusts the authority makes of a server with this certificate.
CURLcode Connect(CertificateKind kind) {
  const Authority authority = Authority::Make("test authority");
  const auto settings =
      MakeTlsSettings(authority, {"localhost", "127.0.0.1"}, {.certificate = kind});
  devcloud::HttpsServer server({.tls = settings}, [](const Request&) { return Response{}; });
  return HttpClient(authority.certificate_pem()).Send({.url = server.Url("localhost")}).result;
}

TEST(CertificatesTest, GoodOneIsTrusted) { EXPECT_EQ(Connect(CertificateKind::kGood), CURLE_OK); }

class BadCertificateTest : public testing::TestWithParam<CertificateKind> {};

TEST_P(BadCertificateTest, IsRefused) {
  EXPECT_EQ(Connect(GetParam()), CURLE_PEER_FAILED_VERIFICATION);
}

INSTANTIATE_TEST_SUITE_P(Kinds, BadCertificateTest,
                         testing::Values(CertificateKind::kExpired, CertificateKind::kNotYetValid,
                                         CertificateKind::kWrongName,
                                         CertificateKind::kUnknownAuthority,
                                         CertificateKind::kSelfSigned,
                                         CertificateKind::kMissingIntermediate),
                         [](const auto& kind) { return ToName(kind.param); });

// Refused by the usual security level, as a weak key and not as anything else.
TEST(CertificatesTest, WeakKeyIsRefused) {
  EXPECT_NE(Connect(CertificateKind::kWeakKey), CURLE_OK);
  EXPECT_NE(Connect(CertificateKind::kVeryWeakKey), CURLE_OK);
}

TEST(CertificatesTest, AnIntermediateAuthorityThatIsShownIsTrusted) {
  EXPECT_EQ(Connect(CertificateKind::kIntermediate), CURLE_OK);
}

TEST(CertificatesTest, AddressesAreNamesToo) {
  const Authority authority = Authority::Make("test authority");
  devcloud::HttpsServer server({.tls = devcloud::TlsSettings{authority.Issue({})}},
                               [](const Request&) { return Response{}; });
  HttpClient client(authority.certificate_pem());
  EXPECT_EQ(client.Send({.url = server.Url("127.0.0.1")}).result, CURLE_OK);
}

TEST(CertificatesTest, AnAuthorityCanBeKept) {
  const Authority authority = Authority::Make("test authority");
  const Authority again = Authority::FromIdentity(authority.identity());
  EXPECT_EQ(again.certificate_pem(), authority.certificate_pem());
  EXPECT_NE(again.Issue({}).certificate_pem, authority.Issue({}).certificate_pem);
}

TEST(CertificatesTest, BrokenAuthoritiesAreRefused) {
  const Authority one = Authority::Make("one");
  const Authority other = Authority::Make("other");
  EXPECT_THROW((void)Authority::FromIdentity({"", ""}), std::runtime_error);
  EXPECT_THROW(
      (void)Authority::FromIdentity({one.certificate_pem(), other.identity().private_key_pem}),
      std::runtime_error);
}

TEST(CertificatesTest, NamesWithSyntaxOfTheirOwnStayNames) {
  const Authority authority = Authority::Make("test authority");
  EXPECT_NO_THROW((void)authority.Issue({.names = {"a,DNS:localhost", "=x"}}));
}

}  // namespace
