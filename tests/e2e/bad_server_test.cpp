// Servers that are not who they say, or would have a secret sent elsewhere: nothing is sent to them
// beyond the handshake, by no flow, and the device stays as it was.
#include "tests/e2e/https_flow.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

struct BadServer {
  devcloud::TlsChoice choice;
  int curl_code;  // what the transport says of it
};

using devcloud::CertificateKind;
using devcloud::TlsVersion;

constexpr int kBadHandshake = 35;
constexpr int kBadCertificate = 60;

const std::vector<BadServer> kBadServers = {
    {{CertificateKind::kExpired}, kBadCertificate},
    {{CertificateKind::kNotYetValid}, kBadCertificate},
    {{CertificateKind::kWrongName}, kBadCertificate},
    {{CertificateKind::kSelfSigned}, kBadCertificate},
    {{CertificateKind::kUnknownAuthority}, kBadCertificate},
    {{CertificateKind::kMissingIntermediate}, kBadCertificate},
    {{CertificateKind::kWeakKey}, kBadCertificate},
    {{CertificateKind::kVeryWeakKey, TlsVersion::kTls12}, kBadCertificate},
    {{CertificateKind::kGood, TlsVersion::kTls11}, kBadHandshake},
    {{CertificateKind::kGood, TlsVersion::kTls10}, kBadHandshake},
};

std::string NameOf(const devcloud::TlsChoice& choice) {
  return std::string(ToName(choice.certificate)) + ", TLS to " + ToName(choice.highest);
}

class BadServerTest : public HttpsFlowTest {
 protected:
  void ExpectRefused(const BadServer& server) {
    Prepare();
    bad_.server().SetTls(Tls(server.choice));
    sink_.Clear();
    const std::string before = State();
    const std::size_t connections = bad_.server().connections();
    const auto result = RunFlow();
    ExpectFailure(result);
    EXPECT_THAT(result.out, StartsWith(GetParam().unreached().out));
    EXPECT_THAT(result.err, StartsWith(GetParam().unreached().err));
    EXPECT_GT(bad_.server().connections(), connections);
    EXPECT_THAT(bad_.server().requests(), IsEmpty());
    EXPECT_EQ(State(), before);
    ExpectLogged(server.curl_code);
  }

  void ExpectLogged(int curl_code) {
    std::vector<testing::Matcher<std::string>> lines;
    lines.reserve(GetParam().unreached().log.size());
    for (const std::string& line : GetParam().unreached().log) {
      const bool senders = line.ends_with("code=");
      lines.emplace_back(StartsWith(senders ? line + std::to_string(curl_code) : line));
    }
    EXPECT_THAT(Log(), testing::ElementsAreArray(lines));
  }
};

TEST_P(BadServerTest, IsRefused) {
  for (const BadServer& server : kBadServers) {
    SCOPED_TRACE(NameOf(server.choice));
    ExpectRefused(server);
  }
}

// The system's settings of OpenSSL are for those who have to talk to old servers.
TEST_P(BadServerTest, IsRefusedWhateverTheSystemAllows) {
  test_files::Write("/etc/ssl/openssl.cnf",
                    "openssl_conf = all\n[all]\nssl_conf = tls\n[tls]\nsystem_default = lax\n"
                    "[lax]\nMinProtocol = TLSv1\nCipherString = DEFAULT@SECLEVEL=0\n");
  for (const BadServer& server : kBadServers) {
    SCOPED_TRACE(NameOf(server.choice));
    ExpectRefused(server);
  }
}

// So that the tests above do not pass for want of a request.
TEST_P(BadServerTest, AGoodOneInItsPlaceIsAsked) {
  for (const auto kind : {CertificateKind::kGood, CertificateKind::kIntermediate}) {
    Prepare();
    bad_.server().SetTls(Tls({.certificate = kind}));
    bad_.server().ClearRequests();
    bad_.SetAnswer({.status = 500, .body = "no"});
    ExpectFailure(RunFlow());
    ASSERT_THAT(bad_.server().requests(), SizeIs(1));
    EXPECT_EQ(bad_.server().requests()[0].path, GetParam().request.path);
  }
}

// To "http": the server's word is no reason to send a secret in the clear.
TEST_P(BadServerTest, ADowngradeIsNotFollowed) {
  devcloud::HttpsServer plain({.address = "127.0.0.2", .port = 80},
                              [](const devcloud::Request&) { return devcloud::Response{}; });
  for (const int status : {301, 302, 303, 307, 308}) {
    SCOPED_TRACE(status);
    Prepare();
    const std::string before = State();
    bad_.SetAnswer({.status = status,
                    .headers = {{"Location", std::string("http://") + GetParam().request.host() +
                                                 GetParam().request.path}}});
    ExpectFailure(RunFlow());
    EXPECT_EQ(State(), before);
  }
  EXPECT_EQ(plain.connections(), 0U);
}

// To another host by https. The OAuth client and the platform stay; the device API's sender goes,
// and leaves the form behind where the status has it ask anew. (307 and 308 are the server's order
// to send the same form there: that host proves who it is as the first one did.)
TEST_P(BadServerTest, AnotherHostGetsNoSecret) {
  for (const int status : {301, 302, 303, 307, 308}) {
    SCOPED_TRACE(status);
    Prepare();
    bad_.SetAnswer(
        {.status = status, .headers = {{"Location", "https://payment.veltrix.example/elsewhere"}}});
    ExpectFailure(RunFlow());
    for (const devcloud::LogEntry& entry : Requests("/elsewhere")) {
      EXPECT_EQ(GetParam().request.transport(), lab::Transport::kDeviceApi);
      EXPECT_TRUE(entry.request.body.empty() || status > 303) << entry.request.body;
    }
    cloud_.log().Clear();
  }
}

INSTANTIATE_TEST_SUITE_P(Flows, BadServerTest, testing::ValuesIn(HttpsFlows()), NameOfFlow);

// The authorities that were read for one server are the next one's judges.
class SecondServer : public DeviceTest {};

TEST_F(SecondServer, IsHeldToTheSameAuthorities) {
  ASSERT_EQ(LogIn({"--password", kEmail}, kPassword + std::string("\n")).exit_status, 0);
  ASSERT_EQ(Run({"--report_info"}).exit_status, 0);
  const auto tls = [this](const devcloud::TlsChoice& choice) {
    return MakeTlsSettings(cloud_.authority(), devcloud::DefaultHosts(), choice);
  };
  BadHost identity("identity.veltrix.example", tls({}));
  for (const BadServer& server : kBadServers) {
    SCOPED_TRACE(NameOf(server.choice));
    identity.server().SetTls(tls(server.choice));
    AgeTokens(7200);
    const std::size_t before = Requests(kReportPath).size();
    (void)Run({"--report_info"});
    EXPECT_EQ(Requests(kReportPath).size(), before + 1);
    EXPECT_GT(identity.server().connections(), 0U);
    EXPECT_THAT(identity.server().requests(), IsEmpty());
  }
  identity.server().SetTls(tls({}));
  (void)Run({"--report_info"});
  EXPECT_THAT(identity.server().requests(), SizeIs(1)) << "it is asked when it is a good one";
}

}  // namespace
