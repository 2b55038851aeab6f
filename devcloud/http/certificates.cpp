#include "devcloud/http/certificates.h"

#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <utility>

#include "devcloud/http/openssl_handles.h"

namespace devcloud {
namespace {

using ExtensionPtr = std::unique_ptr<X509_EXTENSION, OpensslDeleter<X509_EXTENSION_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, OpensslDeleter<GENERAL_NAMES_free>>;
using NamePtr = std::unique_ptr<GENERAL_NAME, OpensslDeleter<GENERAL_NAME_free>>;
using OctetsPtr = std::unique_ptr<ASN1_OCTET_STRING, OpensslDeleter<ASN1_OCTET_STRING_free>>;
using Ia5Ptr = std::unique_ptr<ASN1_IA5STRING, OpensslDeleter<ASN1_IA5STRING_free>>;

PkeyPtr GenerateKey(KeyKind kind) {
  PkeyPtr key;
  switch (kind) {
    case KeyKind::kP256: key.reset(EVP_EC_gen("P-256")); break;
    case KeyKind::kRsa2048: key.reset(EVP_RSA_gen(2048)); break;
    case KeyKind::kRsa1024: key.reset(EVP_RSA_gen(1024)); break;
    case KeyKind::kRsa512: key.reset(EVP_RSA_gen(512)); break;
  }
  CheckOpenssl(key != nullptr, "cannot make a key");
  return key;
}

std::string BioText(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  return {data, static_cast<std::size_t>(length)};
}

std::string ToPem(EVP_PKEY* key) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  CheckOpenssl(bio != nullptr && PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0,
                                                          nullptr, nullptr) == 1,
               "cannot write a key");
  return BioText(bio.get());
}

std::string ToPem(X509* certificate) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  CheckOpenssl(bio != nullptr && PEM_write_bio_X509(bio.get(), certificate) == 1,
               "cannot write a certificate");
  return BioText(bio.get());
}

void SetSerial(X509* certificate) {
  std::uint64_t serial = 0;
  CheckOpenssl(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1,
               "no random bytes");
  CheckOpenssl(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1U) == 1,
               "cannot set the certificate's serial number");
}

void SetValidity(X509* certificate, std::chrono::seconds from, std::chrono::seconds until) {
  CheckOpenssl(X509_gmtime_adj(X509_getm_notBefore(certificate), from.count()) != nullptr &&
                   X509_gmtime_adj(X509_getm_notAfter(certificate), until.count()) != nullptr,
               "cannot set the certificate's validity");
}

void SetSubject(X509* certificate, const std::string& common_name) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(common_name.data());
  CheckOpenssl(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                          bytes, static_cast<int>(common_name.size()), -1, 0) == 1,
               "cannot set the certificate's subject");
}

// `value` is one of our own constants; texts from outside never pass through this parser.
void AddExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  CheckOpenssl(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1,
               "cannot add a certificate extension");
}

NamePtr ToGeneralName(const std::string& text) {
  NamePtr name(GENERAL_NAME_new());
  CheckOpenssl(name != nullptr, "cannot add a name");
  OctetsPtr address(a2i_IPADDRESS(text.c_str()));
  ERR_clear_error();
  if (address != nullptr) {
    GENERAL_NAME_set0_value(name.get(), GEN_IPADD, address.release());
    return name;
  }
  Ia5Ptr host(ASN1_IA5STRING_new());
  CheckOpenssl(host != nullptr &&
                   ASN1_STRING_set(host.get(), text.data(), static_cast<int>(text.size())) == 1,
               "cannot add a name");
  GENERAL_NAME_set0_value(name.get(), GEN_DNS, host.release());
  return name;
}

void AddNames(X509* certificate, const std::vector<std::string>& names) {
  const NamesPtr list(GENERAL_NAMES_new());
  CheckOpenssl(list != nullptr, "cannot add names");
  for (const std::string& text : names) {
    NamePtr name = ToGeneralName(text);
    CheckOpenssl(sk_GENERAL_NAME_push(list.get(), name.get()) > 0, "cannot add a name");
    (void)name.release();  // the list owns it now
  }
  CheckOpenssl(X509_add1_ext_i2d(certificate, NID_subject_alt_name, list.get(), 0, 0) == 1,
               "cannot add the certificate's names");
}

X509Ptr NewCertificate(EVP_PKEY* key, const std::string& common_name) {
  X509Ptr certificate(X509_new());
  CheckOpenssl(certificate != nullptr && X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
                   X509_set_pubkey(certificate.get(), key) == 1,
               "cannot make a certificate");
  SetSerial(certificate.get());
  SetSubject(certificate.get(), common_name);
  return certificate;
}

X509Ptr NewServerCertificate(EVP_PKEY* key, const CertificateOptions& options) {
  constexpr std::size_t kLongestCommonName = 64;
  const std::string first = options.names.empty() ? "nameless" : options.names.front();
  X509Ptr certificate = NewCertificate(key, first.substr(0, kLongestCommonName));
  SetValidity(certificate.get(), options.valid_from, options.valid_until);
  return certificate;
}

void AddServerExtensions(X509* certificate, X509* issuer, const CertificateOptions& options) {
  AddExtension(certificate, issuer, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(certificate, issuer, NID_key_usage, "critical,digitalSignature,keyEncipherment");
  AddExtension(certificate, issuer, NID_ext_key_usage, "serverAuth");
  AddExtension(certificate, issuer, NID_subject_key_identifier, "hash");
  AddExtension(certificate, issuer, NID_authority_key_identifier, "keyid");
  if (!options.names.empty()) AddNames(certificate, options.names);
}

void Sign(X509* certificate, EVP_PKEY* key) {
  CheckOpenssl(X509_sign(certificate, key, EVP_sha256()) > 0, "cannot sign a certificate");
}

// Of an authority; the issuer's name and the signature are left to the caller.
X509Ptr NewAuthorityCertificate(EVP_PKEY* key, const std::string& name) {
  X509Ptr certificate = NewCertificate(key, name);
  SetValidity(certificate.get(), -std::chrono::hours(24), std::chrono::hours(24 * 3650));
  AddExtension(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(certificate.get(), certificate.get(), NID_subject_key_identifier, "hash");
  return certificate;
}

}  // namespace

Authority::Authority(Identity identity) : identity_(std::move(identity)) {}

Authority Authority::Make(const std::string& name) {
  const PkeyPtr key = GenerateKey(KeyKind::kP256);
  const X509Ptr certificate = NewAuthorityCertificate(key.get(), name);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
  Sign(certificate.get(), key.get());
  return Authority({ToPem(certificate.get()), ToPem(key.get())});
}

Authority Authority::FromIdentity(Identity identity) {
  const X509Ptr certificate = ParseCertificate(identity.certificate_pem);
  const PkeyPtr key = ParsePrivateKey(identity.private_key_pem);
  CheckOpenssl(X509_check_private_key(certificate.get(), key.get()) == 1,
               "the authority's key does not belong to its certificate");
  return Authority(std::move(identity));
}

Identity Authority::Issue(const CertificateOptions& options) const {
  const X509Ptr issuer = ParseCertificate(identity_.certificate_pem);
  const PkeyPtr issuer_key = ParsePrivateKey(identity_.private_key_pem);
  const PkeyPtr key = GenerateKey(options.key);
  const X509Ptr certificate = NewServerCertificate(key.get(), options);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer.get()));
  AddServerExtensions(certificate.get(), issuer.get(), options);
  Sign(certificate.get(), issuer_key.get());
  return {ToPem(certificate.get()), ToPem(key.get())};
}

Authority Authority::MakeIntermediate(const std::string& name) const {
  const X509Ptr issuer = ParseCertificate(identity_.certificate_pem);
  const PkeyPtr issuer_key = ParsePrivateKey(identity_.private_key_pem);
  const PkeyPtr key = GenerateKey(KeyKind::kP256);
  const X509Ptr certificate = NewAuthorityCertificate(key.get(), name);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer.get()));
  Sign(certificate.get(), issuer_key.get());
  return Authority({ToPem(certificate.get()), ToPem(key.get())});
}

Identity MakeSelfSigned(const CertificateOptions& options) {
  const PkeyPtr key = GenerateKey(options.key);
  const X509Ptr certificate = NewServerCertificate(key.get(), options);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
  AddServerExtensions(certificate.get(), certificate.get(), options);
  Sign(certificate.get(), key.get());
  return {ToPem(certificate.get()), ToPem(key.get())};
}

std::string MakePrivateKey() { return ToPem(GenerateKey(KeyKind::kP256).get()); }

}  // namespace devcloud
