// What every request of this house keeps to, whatever a configured address, the environment and the
// system's OpenSSL settings would allow. For programs that link libcurl and OpenSSL.
#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

namespace base {

inline constexpr char kCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";

// TLS 1.2 and OpenSSL's security level 2: keys of 112 bits of security, no SHA-1 signatures.
inline CURLcode SetTlsFloor(CURL*, void* context, void*) {
  constexpr int kSecurityLevel = 2;
  auto* tls = static_cast<SSL_CTX*>(context);
  if (SSL_CTX_get_security_level(tls) < kSecurityLevel) {
    SSL_CTX_set_security_level(tls, kSecurityLevel);
  }
  SSL_CTX_clear_options(tls,
                        SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION | SSL_OP_LEGACY_SERVER_CONNECT);
  const bool set = SSL_CTX_get_min_proto_version(tls) > TLS1_2_VERSION ||
                   SSL_CTX_set_min_proto_version(tls, TLS1_2_VERSION) == 1;
  return set ? CURLE_OK : CURLE_SSL_CONNECT_ERROR;
}

// HTTPS only, by HTTP/1.1 and without a proxy; the servers are those that the system's CA bundle
// vouches for. The first failure of libcurl's.
inline CURLcode SetTransportFloor(CURL* curl) {
  CURLcode result = curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  const auto set = [&](CURLoption option, auto value) {
    result = result == CURLE_OK ? curl_easy_setopt(curl, option, value) : result;
  };
  set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
  set(CURLOPT_PROXY, "");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_CAINFO, kCaBundle);
  set(CURLOPT_SSL_CTX_FUNCTION, SetTlsFloor);
  return result;
}

}  // namespace base
