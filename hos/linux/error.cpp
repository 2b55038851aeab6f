#include "hos/linux/error.h"

#include <cerrno>
#include <cstring>

#include "klibc/error.h"

namespace hos_linux {
namespace {

struct Triple {
  int code;
  const char* file;
  int line;
};

Triple last_error = {0, "", 0};

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

}  // namespace

void SetError(int code, const char* file, int line) { last_error = {code, BaseName(file), line}; }

void SetErrorFromErrno(const char* file, int line) { SetError(errno, file, line); }

TripleKeeper::TripleKeeper()
    : code_(last_error.code), file_(last_error.file), line_(last_error.line) {}

TripleKeeper::~TripleKeeper() {
  if (restore_) last_error = {code_, file_, line_};
}

int MinusOne(int code, const char* file, int line) {
  SetError(code, file, line);
  return -1;
}

bool False(int code, const char* file, int line) {
  SetError(code, file, line);
  return false;
}

bool FalseFromErrno(const char* file, int line) { return False(errno, file, line); }

}  // namespace hos_linux

extern "C" {

int KLIBCErrGet(void) { return hos_linux::last_error.code; }

const char* KLIBCErrorGetFile(void) { return hos_linux::last_error.file; }

int KLIBCErrorGetLine(void) { return hos_linux::last_error.line; }
}
