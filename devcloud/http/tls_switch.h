// Which certificate a server shows, and which TLS versions it speaks: good and bad ones to choose
// from.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "devcloud/http/certificates.h"
#include "devcloud/http/https_server.h"
#include "devcloud/http/tls.h"

namespace devcloud {

enum class CertificateKind {
  kGood,
  kExpired,
  kNotYetValid,
  kWrongName,
  kUnknownAuthority,
  kSelfSigned,
  kWeakKey,              // RSA with 1024 bits
  kVeryWeakKey,          // RSA with 512 bits
  kIntermediate,         // good: issued by an intermediate authority, which is shown along
  kMissingIntermediate,  // as before, but not shown
};

struct TlsChoice {
  CertificateKind certificate = CertificateKind::kGood;
  TlsVersion highest = TlsVersion::kTls13;
};

// A server certificate of that kind for these names.
[[nodiscard]] Identity MakeServerIdentity(const Authority& authority,
                                          const std::vector<std::string>& names,
                                          CertificateKind kind);

// Settings for a choice. Versions below the highest one are spoken down to TLS 1.2, or just the
// highest one where that is older.
[[nodiscard]] TlsSettings MakeTlsSettings(const Authority& authority,
                                          const std::vector<std::string>& names, TlsChoice choice);

// The choice that a running server goes by. Safe to use from several threads.
class TlsSwitch {
 public:
  // `authority` and `server` must outlive the object; the server starts with the usual choice.
  TlsSwitch(const Authority& authority, std::vector<std::string> names, HttpsServer& server)
      : authority_(authority), names_(std::move(names)), server_(server) {}

  // For connections accepted from now on. Throws std::runtime_error.
  void Choose(TlsChoice choice);
  [[nodiscard]] TlsChoice choice() const;
  [[nodiscard]] const Authority& authority() const { return authority_; }

 private:
  const Authority& authority_;
  std::vector<std::string> names_;
  HttpsServer& server_;
  mutable std::mutex mutex_;
  TlsChoice choice_;
};

// The names in the control interface. The parsing ones throw BadInput.
[[nodiscard]] const char* ToName(CertificateKind kind);
[[nodiscard]] const char* ToName(TlsVersion version);
[[nodiscard]] CertificateKind CertificateKindFromName(const std::string& name);
[[nodiscard]] TlsVersion TlsVersionFromName(const std::string& name);

}  // namespace devcloud
