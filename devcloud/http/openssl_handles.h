// Owners for OpenSSL objects, and the last OpenSSL error as a text.
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace devcloud {

template <auto kFree>
struct OpensslDeleter {
  template <typename T>
  void operator()(T* object) const {
    kFree(object);
  }
};

using BioPtr = std::unique_ptr<BIO, OpensslDeleter<BIO_free_all>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, OpensslDeleter<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, OpensslDeleter<X509_free>>;
using SslPtr = std::unique_ptr<SSL, OpensslDeleter<SSL_free>>;
using SslContextPtr = std::unique_ptr<SSL_CTX, OpensslDeleter<SSL_CTX_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, OpensslDeleter<EVP_MD_CTX_free>>;

// An exception that says what was tried and what OpenSSL had against it.
inline std::runtime_error OpensslError(const std::string& what) {
  std::array<char, 256> text{};
  ERR_error_string_n(ERR_get_error(), text.data(), text.size());
  ERR_clear_error();
  return std::runtime_error(what + ": " + text.data());
}

inline void CheckOpenssl(bool done, const char* what) {
  if (!done) throw OpensslError(what);
}

inline BioPtr ReadOnlyBio(const std::string& text) {
  BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  CheckOpenssl(bio != nullptr, "cannot read PEM text");
  return bio;
}

inline PkeyPtr ParsePrivateKey(const std::string& pem) {
  PkeyPtr key(PEM_read_bio_PrivateKey(ReadOnlyBio(pem).get(), nullptr, nullptr, nullptr));
  CheckOpenssl(key != nullptr, "not a private key in PEM");
  return key;
}

inline X509Ptr ParseCertificate(const std::string& pem) {
  X509Ptr certificate(PEM_read_bio_X509(ReadOnlyBio(pem).get(), nullptr, nullptr, nullptr));
  CheckOpenssl(certificate != nullptr, "not a certificate in PEM");
  return certificate;
}

// The certificates behind the first one.
inline std::vector<X509Ptr> ParseRestOfChain(const std::string& pem) {
  const BioPtr bio = ReadOnlyBio(pem);
  std::vector<X509Ptr> chain;
  while (X509* next = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    chain.emplace_back(next);
  }
  ERR_clear_error();  // the end of the text is no failure
  if (!chain.empty()) chain.erase(chain.begin());
  return chain;
}

}  // namespace devcloud
