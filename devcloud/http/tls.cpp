#include "devcloud/http/tls.h"

namespace devcloud {
namespace {

int ToOpenssl(TlsVersion version) {
  switch (version) {
    case TlsVersion::kTls10: return TLS1_VERSION;
    case TlsVersion::kTls11: return TLS1_1_VERSION;
    case TlsVersion::kTls12: return TLS1_2_VERSION;
    case TlsVersion::kTls13: return TLS1_3_VERSION;
  }
  return TLS1_3_VERSION;
}

}  // namespace

SslContextPtr MakeServerContext(const TlsSettings& settings) {
  SslContextPtr context(SSL_CTX_new(TLS_server_method()));
  CheckOpenssl(context != nullptr, "cannot make a TLS context");
  SSL_CTX* raw = context.get();
  // Level 0 admits small keys and the old versions' digests.
  SSL_CTX_set_security_level(raw, 0);
  CheckOpenssl(SSL_CTX_set_min_proto_version(raw, ToOpenssl(settings.lowest)) == 1 &&
                   SSL_CTX_set_max_proto_version(raw, ToOpenssl(settings.highest)) == 1,
               "cannot set the TLS versions");
  SSL_CTX_set_options(raw, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_mode(raw, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  const X509Ptr certificate = ParseCertificate(settings.identity.certificate_pem);
  const PkeyPtr key = ParsePrivateKey(settings.identity.private_key_pem);
  CheckOpenssl(SSL_CTX_use_certificate(raw, certificate.get()) == 1 &&
                   SSL_CTX_use_PrivateKey(raw, key.get()) == 1 &&
                   SSL_CTX_check_private_key(raw) == 1,
               "cannot use the server's certificate");
  for (const X509Ptr& link : ParseRestOfChain(settings.identity.certificate_pem)) {
    CheckOpenssl(SSL_CTX_add1_chain_cert(raw, link.get()) == 1, "cannot use the server's chain");
  }
  return context;
}

}  // namespace devcloud
