#include "devcloud/state/state_folder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "base/atomic_replace.h"
#include "base/read_file.h"

namespace devcloud {
namespace {

constexpr std::size_t kLargestFile = std::size_t{64} * 1024;

[[noreturn]] void ThrowFileError(const std::string& what, const std::string& file) {
  throw std::runtime_error(what + " " + file + ": " + std::strerror(errno));
}

// Nothing when there is no such file.
std::optional<std::string> ReadIfThere(const std::string& file) {
  std::string text;
  if (base::ReadFile(file, kLargestFile, text)) return text;
  if (errno != ENOENT) ThrowFileError("cannot read", file);
  return std::nullopt;
}

std::string LoadOrMake(const std::string& file, std::string (*make)()) {
  if (std::optional<std::string> kept = ReadIfThere(file)) return *kept;
  std::string made = make();
  WriteFile(file, made, S_IRUSR | S_IWUSR);
  return made;
}

}  // namespace

void WriteFile(const std::string& file, const std::string& content, unsigned mode) {
  if (!base::AtomicReplace(file, content, mode)) ThrowFileError("cannot write", file);
}

std::string DatabaseFile(const std::string& folder) {
  return folder.empty() ? ":memory:" : folder + "/cloud.sqlite";
}

Authority LoadOrMakeAuthority(const std::string& folder) {
  const std::string name = "Development cloud authority";
  if (folder.empty()) return Authority::Make(name);
  const std::string certificate_file = folder + "/ca.pem";
  const std::string key_file = folder + "/ca.key";
  const std::optional<std::string> certificate = ReadIfThere(certificate_file);
  const std::optional<std::string> key = ReadIfThere(key_file);
  if (certificate && key) return Authority::FromIdentity({*certificate, *key});
  Authority authority = Authority::Make(name);
  WriteFile(key_file, authority.identity().private_key_pem, S_IRUSR | S_IWUSR);
  WriteFile(certificate_file, authority.certificate_pem(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
  return authority;
}

std::string LoadOrMakeSigningKey(const std::string& folder) {
  return folder.empty() ? MakePrivateKey() : LoadOrMake(folder + "/id_token.key", MakePrivateKey);
}

}  // namespace devcloud
