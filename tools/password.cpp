#include "tools/password.h"

#include <bsd/readpassphrase.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

namespace nodelink_login {
namespace {

constexpr std::size_t kSize = 4096;

// Out of the swap space and of core files. An ordinary user's process may not be allowed to.
void KeepInMemory(char* block, std::size_t size) {
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::size_t offset = reinterpret_cast<std::uintptr_t>(block) % page;
  (void)mlock(block - offset, size + offset);
  (void)madvise(block - offset, size + offset, MADV_DONTDUMP);
}

// Byte by byte: what follows the line is not the password's reader's.
void ReadLine(std::string& line) {
  char byte = '\0';
  ssize_t count = 0;
  while (line.size() < kSize - 1) {
    count = read(STDIN_FILENO, &byte, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0 || byte == '\n') return;
    line += byte;
  }
}

void AskOnTerminal(std::string& text) {
  text.resize(kSize);
  if (readpassphrase("Password: ", text.data(), text.size(), RPP_ECHO_OFF | RPP_REQUIRE_TTY) ==
      nullptr) {
    text.clear();
    return;
  }
  text.resize(strlen(text.c_str()));
}

}  // namespace

// Room for all of it from the start: a growing string would leave copies behind.
Password::Password() {
  text_.reserve(kSize);
  KeepInMemory(text_.data(), text_.capacity());
}

Password::Password(Password&& other) noexcept : text_(std::move(other.text_)) {}

Password::~Password() { explicit_bzero(text_.data(), text_.capacity()); }

Password Password::Read() {
  Password password;
  if (isatty(STDIN_FILENO) != 0) {
    AskOnTerminal(password.text_);
  } else {
    ReadLine(password.text_);
  }
  return password;
}

}  // namespace nodelink_login
