// Which servers the sender talks to.
#include <string>

#include "tests/deviceapi/row_text.h"
#include "tests/deviceapi/sender_fixture.h"

namespace {

using devcloud::CertificateKind;
using devcloud::TlsVersion;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kGood[] = R"({"code":"good"})";

class TlsTest : public SenderTest {
 protected:
  TlsTest() { server_.Answer(200, kGood); }

  void ExpectRefusal(CURLcode result) {
    EXPECT_EQ(SendFailing().transfer_result, result);
    EXPECT_THAT(server_.requests(), IsEmpty());
    EXPECT_EQ(Attempts(), 1);
    EXPECT_THAT(Log(), ElementsAre("zomi_https_req_send " + Url() +
                                   ", Failed to curl perform, code=" + std::to_string(result) +
                                   ", err=" + curl_easy_strerror(result)));
  }
};

class BadCertificateTest : public TlsTest, public testing::WithParamInterface<CertificateKind> {};

TEST_P(BadCertificateTest, IsRefused) {
  server_.Show({.certificate = GetParam()});
  ExpectRefusal(CURLE_PEER_FAILED_VERIFICATION);
}

INSTANTIATE_TEST_SUITE_P(Kinds, BadCertificateTest,
                         testing::Values(CertificateKind::kExpired, CertificateKind::kNotYetValid,
                                         CertificateKind::kWrongName,
                                         CertificateKind::kUnknownAuthority,
                                         CertificateKind::kSelfSigned, CertificateKind::kWeakKey),
                         [](const auto& test) { return devcloud::ToName(test.param); });

class OldTlsTest : public TlsTest, public testing::WithParamInterface<TlsVersion> {};

TEST_P(OldTlsTest, IsRefused) {
  server_.Show({.highest = GetParam()});
  ExpectRefusal(CURLE_SSL_CONNECT_ERROR);
}

INSTANTIATE_TEST_SUITE_P(Versions, OldTlsTest,
                         testing::Values(TlsVersion::kTls10, TlsVersion::kTls11), kRowNumber);

class NewTlsTest : public TlsTest, public testing::WithParamInterface<TlsVersion> {};

TEST_P(NewTlsTest, IsSpoken) {
  server_.Show({.highest = GetParam()});
  EXPECT_EQ(Send().result, 0);
  EXPECT_EQ(server_.OnlyRequest().tls_version,
            GetParam() == TlsVersion::kTls12 ? "TLSv1.2" : "TLSv1.3");
}

INSTANTIATE_TEST_SUITE_P(Versions, NewTlsTest,
                         testing::Values(TlsVersion::kTls12, TlsVersion::kTls13), kRowNumber);

TEST_F(TlsTest, ACertificateOfTheHostNameIsGood) {
  host_ = server_.Url("account.veltrix.example");
  EXPECT_EQ(Send().result, 0);
  EXPECT_EQ(server_.OnlyRequest().sni, "account.veltrix.example");
}

TEST_F(TlsTest, ACertificateWithoutTheHostNameIsRefused) {
  host_ = server_.Url("payment.veltrix.example");
  ExpectRefusal(CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(TlsTest, WithoutAuthoritiesNoServerIsTrusted) {
  test_files::Write("/etc/ssl/certs/ca-certificates.crt", "");
  EXPECT_NE(SendFailing().transfer_result, 0);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(TlsTest, ARedirectToABadCertificateIsRefused) {
  server_.Answer({.status = 307,
                  .headers = {{"Location", server_.Url("payment.veltrix.example") + "/there"}}});
  EXPECT_EQ(SendFailing().transfer_result, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(TlsTest, AServerWithoutTlsIsRefused) {
  devcloud::HttpsServer plain(
      {}, [](const devcloud::Request&) { return devcloud::Response{.body = kGood}; });
  host_ = "https://127.0.0.1:" + std::to_string(plain.port());
  ExpectRefusal(CURLE_SSL_CONNECT_ERROR);
  EXPECT_THAT(plain.requests(), IsEmpty());
}

}  // namespace
