// lab-syslogd: writes what programs log to a file, in a form for reading.

#include <csignal>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "lab/syslog_sink.h"

namespace {

constexpr int kWrongUsage = 2;

std::string TimeOfDay() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[16];
  return {text, std::strftime(text, sizeof(text), "%H:%M:%S", &local)};
}

std::string Readable(const lab::LogLine& line) {
  std::string text = TimeOfDay() + " " + lab::PriorityName(line) + " " + line.tag;
  if (line.pid != 0) text.append("[").append(std::to_string(line.pid)).append("]");
  return text + ": " + line.text;
}

sigset_t EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

void Run(const std::string& file_name, const std::string& socket) {
  std::ofstream file(file_name, std::ios::app);
  if (!file) throw std::runtime_error("cannot write to " + file_name);
  const sigset_t signals = EndSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before the sink's thread inherits the mask
  const lab::SyslogSink sink(
      socket, [&file](const lab::LogLine& line) { file << Readable(line) << std::endl; });
  std::cout << "ready" << std::endl;
  int signal = 0;
  sigwait(&signals, &signal);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3 || argv[1][0] == '-') {
    std::cerr << "Usage: lab-syslogd FILE [SOCKET]\n";
    return kWrongUsage;
  }
  try {
    Run(argv[1], argc == 3 ? argv[2] : "/dev/log");
  } catch (const std::exception& error) {
    std::cerr << "lab-syslogd: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
