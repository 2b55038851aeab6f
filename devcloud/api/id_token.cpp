#include "devcloud/api/id_token.h"

#include <openssl/ecdsa.h>

#include "devcloud/http/json_text.h"
#include "devcloud/http/openssl_handles.h"
#include "devcloud/state/secrets.h"

namespace devcloud {
namespace {

using SignaturePtr = std::unique_ptr<ECDSA_SIG, OpensslDeleter<ECDSA_SIG_free>>;
using Buffer = std::basic_string<unsigned char>;

constexpr int kNumberBytes = 32;  // of each half of a P-256 signature

Buffer SignDer(const std::string& text, EVP_PKEY* key) {
  const DigestContextPtr context(EVP_MD_CTX_new());
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t size = 0;
  CheckOpenssl(context != nullptr &&
                   EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
                   EVP_DigestSign(context.get(), nullptr, &size, bytes, text.size()) == 1,
               "cannot sign");
  Buffer signature(size, 0);
  CheckOpenssl(EVP_DigestSign(context.get(), signature.data(), &size, bytes, text.size()) == 1,
               "cannot sign");
  signature.resize(size);
  return signature;
}

// OpenSSL signs in ASN.1; a JWT wants the two bare numbers.
std::string ToRaw(const Buffer& der) {
  const unsigned char* start = der.data();
  const SignaturePtr signature(d2i_ECDSA_SIG(nullptr, &start, static_cast<long>(der.size())));
  CheckOpenssl(signature != nullptr, "cannot read a signature");
  Buffer raw(std::size_t{2} * kNumberBytes, 0);
  CheckOpenssl(
      BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), kNumberBytes) == kNumberBytes &&
          BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + kNumberBytes,
                       kNumberBytes) == kNumberBytes,
      "not a P-256 signature");
  return {raw.begin(), raw.end()};
}

}  // namespace

std::string SignIdToken(const Json::Value& claims, const std::string& key_pem) {
  Json::Value header(Json::objectValue);
  header["alg"] = "ES256";
  header["typ"] = "JWT";
  const std::string text =
      Base64Url(ToCompactText(header)) + "." + Base64Url(ToCompactText(claims));
  const PkeyPtr key = ParsePrivateKey(key_pem);
  return text + "." + Base64Url(ToRaw(SignDer(text, key.get())));
}

}  // namespace devcloud
