// TLS settings of a server and the OpenSSL context made from them.
#pragma once

#include "devcloud/http/certificates.h"
#include "devcloud/http/openssl_handles.h"

namespace devcloud {

enum class TlsVersion { kTls10, kTls11, kTls12, kTls13 };

struct TlsSettings {
  Identity identity = {};
  TlsVersion lowest = TlsVersion::kTls12;
  TlsVersion highest = TlsVersion::kTls13;
};

// Throws std::runtime_error when the identity does not parse or key and certificate do not belong
// together. Any key size and, below TLS 1.2, any digest is taken: serving what a client must refuse
// is part of the job.
[[nodiscard]] SslContextPtr MakeServerContext(const TlsSettings& settings);

}  // namespace devcloud
