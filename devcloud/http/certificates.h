// Throwaway certificates: an authority that issues server certificates, good ones and bad ones.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace devcloud {

// A certificate and its private key, both PEM. Certificates of authorities in between may follow.
struct Identity {
  std::string certificate_pem = {};
  std::string private_key_pem = {};
};

enum class KeyKind { kP256, kRsa2048, kRsa1024, kRsa512 };

// What a server certificate says. Names are host names or IP addresses in text; the first one is
// the common name too. The validity is relative to now: `valid_until` below zero is an expired
// certificate, `valid_from` above zero one of the future.
struct CertificateOptions {
  std::vector<std::string> names = {"localhost", "127.0.0.1"};
  std::chrono::seconds valid_from = -std::chrono::hours(1);
  std::chrono::seconds valid_until = std::chrono::hours(24 * 365);
  KeyKind key = KeyKind::kP256;
};

// All operations throw std::runtime_error when OpenSSL refuses (for instance a name too long).
class Authority {
 public:
  // A new authority with a new P-256 key, valid for ten years.
  [[nodiscard]] static Authority Make(const std::string& name);
  // An authority kept from an earlier run.
  [[nodiscard]] static Authority FromIdentity(Identity identity);

  [[nodiscard]] Identity Issue(const CertificateOptions& options) const;

  // An authority of the second rank, which this one vouches for.
  [[nodiscard]] Authority MakeIntermediate(const std::string& name) const;

  // What a client must trust.
  [[nodiscard]] const std::string& certificate_pem() const { return identity_.certificate_pem; }
  [[nodiscard]] const Identity& identity() const { return identity_; }

 private:
  explicit Authority(Identity identity);

  Identity identity_;
};

// A server certificate that vouches for itself.
[[nodiscard]] Identity MakeSelfSigned(const CertificateOptions& options);

// A new P-256 private key, PEM.
[[nodiscard]] std::string MakePrivateKey();

}  // namespace devcloud
