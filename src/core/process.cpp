#include "core/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <initializer_list>

namespace nodelink {
namespace {

char path_variable[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
char* own_environment[] = {path_variable, nullptr};

// Libraries take proxies, configuration, time zone and where to write secrets from variables.
void ReplaceEnvironment() { environ = own_environment; }

// The first file that is opened would take the place of a stream that is closed, and what is
// printed would be written into it.
void OpenStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const bool closed = fcntl(stream, F_GETFD) < 0 && errno == EBADF;
    // Not close-on-exec, as no standard stream is.
    if (closed && open("/dev/null", O_RDWR) != stream) _exit(EXIT_FAILURE);
  }
}

// What writes learns it as an error, and ends in order.
void IgnoreSignalsOfWriting() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void KeepMemoryPrivate() {
  constexpr rlimit kNone = {0, 0};
  setrlimit(RLIMIT_CORE, &kNone);
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace

void HardenProcess() {
  ReplaceEnvironment();
  OpenStandardStreams();
  IgnoreSignalsOfWriting();
  KeepMemoryPrivate();
}

}  // namespace nodelink
