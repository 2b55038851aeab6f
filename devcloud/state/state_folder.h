// The files that the cloud keeps between runs.
#pragma once

#include <string>

#include "devcloud/http/certificates.h"

namespace devcloud {

// Each of these throws std::runtime_error with the file's name. An empty folder name stands for
// keeping nothing: values are made new and live in memory.
[[nodiscard]] std::string DatabaseFile(const std::string& folder);
// The authority of earlier runs, or a new one that is stored (key file with mode 0600).
[[nodiscard]] Authority LoadOrMakeAuthority(const std::string& folder);
// The private key for signing ID tokens, in the same way.
[[nodiscard]] std::string LoadOrMakeSigningKey(const std::string& folder);

// Replaces the file as a whole; mode as given.
void WriteFile(const std::string& file, const std::string& content, unsigned mode);

}  // namespace devcloud
