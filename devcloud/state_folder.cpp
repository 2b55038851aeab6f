#include "devcloud/state_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "base/unique_fd.h"

namespace devcloud {
namespace {

[[noreturn]] void Fail(const std::string& what, const std::string& file) {
  throw std::runtime_error(what + " " + file + ": " + std::strerror(errno));
}

// Nothing when there is no such file.
std::optional<std::string> ReadIfThere(const std::string& file) {
  if (::access(file.c_str(), F_OK) != 0 && errno == ENOENT) return std::nullopt;
  std::ifstream in(file, std::ios::binary);
  if (!in) Fail("cannot read", file);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteAll(int fd, std::string_view content, const std::string& file) {
  while (!content.empty()) {
    const ssize_t written = ::write(fd, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) Fail("cannot write", file);
    content.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string LoadOrMake(const std::string& file, std::string (*make)()) {
  if (std::optional<std::string> kept = ReadIfThere(file)) return *kept;
  std::string made = make();
  WriteFile(file, made, S_IRUSR | S_IWUSR);
  return made;
}

}  // namespace

void WriteFile(const std::string& file, const std::string& content, unsigned mode) {
  const std::string temporary = file + ".new";
  (void)::unlink(temporary.c_str());
  const base::UniqueFd fd(
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
  if (!fd) Fail("cannot create", temporary);
  WriteAll(fd.get(), content, temporary);
  if (::fsync(fd.get()) != 0 || std::rename(temporary.c_str(), file.c_str()) != 0) {
    Fail("cannot write", file);
  }
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
