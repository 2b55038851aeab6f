#include "base/transport_floor.h"

#include <openssl/ssl.h>

extern "C" CURLcode __real_curl_easy_perform(CURL* curl);

namespace base {
namespace {

constexpr char kCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";

// The authorities in the bundle, once they are read. Reading takes most of a request's time, and
// libcurl keeps what it has read for the same handle alone.
X509_STORE* authorities = nullptr;

// Whether the handle is one that reads the bundle itself: it keeps doing so, for libcurl connects
// anew when the name of the bundle changes.
bool IsReader(CURL* curl) {
  void* mark = nullptr;
  return curl_easy_getinfo(curl, CURLINFO_PRIVATE, &mark) == CURLE_OK && mark == &authorities;
}

void ShareAuthorities(CURL* curl, SSL_CTX* tls) {
  if (authorities == nullptr) {
    authorities = SSL_CTX_get_cert_store(tls);
    X509_STORE_up_ref(authorities);
  } else if (!IsReader(curl)) {
    SSL_CTX_set1_cert_store(tls, authorities);
  }
}

CURLcode SetTlsFloor(CURL* curl, void* context, void*) {
  constexpr int kSecurityLevel = 2;
  auto* tls = static_cast<SSL_CTX*>(context);
  if (SSL_CTX_get_security_level(tls) < kSecurityLevel) {
    SSL_CTX_set_security_level(tls, kSecurityLevel);
  }
  SSL_CTX_clear_options(tls,
                        SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION | SSL_OP_LEGACY_SERVER_CONNECT);
  const bool set = SSL_CTX_get_min_proto_version(tls) > TLS1_2_VERSION ||
                   SSL_CTX_set_min_proto_version(tls, TLS1_2_VERSION) == 1;
  ShareAuthorities(curl, tls);
  return set ? CURLE_OK : CURLE_SSL_CONNECT_ERROR;
}

CURLcode SetFloor(CURL* curl) {
  CURLcode result = curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  const auto set = [&](CURLoption option, auto value) {
    result = result == CURLE_OK ? curl_easy_setopt(curl, option, value) : result;
  };
  set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
  set(CURLOPT_PROXY, "");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  if (authorities == nullptr) set(CURLOPT_PRIVATE, static_cast<void*>(&authorities));
  set(CURLOPT_CAINFO, IsReader(curl) ? kCaBundle : nullptr);
  set(CURLOPT_SSL_CTX_FUNCTION, SetTlsFloor);
  return result;
}

}  // namespace
}  // namespace base

CURLcode __wrap_curl_easy_perform(CURL* curl) {
  const CURLcode result = base::SetFloor(curl);
  return result == CURLE_OK ? __real_curl_easy_perform(curl) : result;
}
