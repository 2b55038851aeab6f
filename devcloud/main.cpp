// zomi-devcloud: runs the development cloud until it is told to stop.
#include <getopt.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "devcloud/cloud.h"
#include "devcloud/state/state_folder.h"

namespace {

constexpr char kUsage[] = R"(Usage: zomi-devcloud [OPTION]...
Serves the account, identity, payment and cloud-service hosts for development and tests.

  --listen ADDRESS:PORT   where the HTTPS server listens (default 127.0.0.1:443)
  --control ADDRESS:PORT  where the control interface and the console (a web page) listen,
                          loopback only (default 127.0.0.1:8079)
  --state FOLDER          keep accounts, devices and the authority there
                          (default: keep nothing)
  --ca FILE               write the authority's certificate there, PEM
  --host NAME             a name for the server's certificate, may be repeated
                          (default: the built-in hosts)
  --help                  show this text

Port 0 takes any free port. Prints "ready HTTPS-PORT CONTROL-PORT" when both listen;
SIGTERM or SIGINT ends it.
)";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Arguments {
  devcloud::CloudOptions cloud = {
      .port = 443, .control_port = 8079, .hosts = devcloud::DefaultHosts()};
  std::string ca_file = {};
  bool help = false;
};

struct Endpoint {
  std::string address = {};
  std::uint16_t port = 0;
};

// "127.0.0.1:443" or "[::1]:443".
Endpoint ParseEndpoint(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  Endpoint endpoint{.address = text.substr(0, colon)};
  const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
  const char* end = port.data() + port.size();
  const auto [stop, error] = std::from_chars(port.data(), end, endpoint.port);
  if (error != std::errc() || stop != end) throw UsageError("not ADDRESS:PORT: " + text);
  if (endpoint.address.size() > 2 && endpoint.address.front() == '[' &&
      endpoint.address.back() == ']') {
    endpoint.address = endpoint.address.substr(1, endpoint.address.size() - 2);
  }
  return endpoint;
}

enum Option { kListen = 1, kControl, kState, kCa, kHost, kHelp };

constexpr std::array<option, 7> kOptions{{
    {"listen", required_argument, nullptr, kListen},
    {"control", required_argument, nullptr, kControl},
    {"state", required_argument, nullptr, kState},
    {"ca", required_argument, nullptr, kCa},
    {"host", required_argument, nullptr, kHost},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
}};

void Apply(int choice, const std::string& value, Arguments& arguments, bool& first_host) {
  switch (choice) {
    case kListen:
      arguments.cloud.address = ParseEndpoint(value).address;
      arguments.cloud.port = ParseEndpoint(value).port;
      break;
    case kControl:
      arguments.cloud.control_address = ParseEndpoint(value).address;
      arguments.cloud.control_port = ParseEndpoint(value).port;
      break;
    case kState: arguments.cloud.state_folder = value; break;
    case kCa: arguments.ca_file = value; break;
    case kHost:
      if (first_host) arguments.cloud.hosts.clear();
      first_host = false;
      arguments.cloud.hosts.push_back(value);
      break;
    case kHelp: arguments.help = true; break;
    default: throw UsageError("unknown option or missing value, try --help");
  }
}

Arguments Parse(int argc, char** argv) {
  Arguments arguments;
  bool first_host = true;
  int choice = 0;
  opterr = 0;  // one line about it is enough, and that is ours
  while ((choice = ::getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1) {
    Apply(choice, optarg == nullptr ? "" : optarg, arguments, first_host);
  }
  if (optind < argc) throw UsageError(std::string("unexpected argument ") + argv[optind]);
  return arguments;
}

void MakeFolder(const std::string& folder) {
  if (!folder.empty() && ::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    throw std::system_error(errno, std::generic_category(), "cannot create " + folder);
  }
}

// Blocked in every thread, so that waiting for them is the only way they arrive.
sigset_t BlockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

void Run(const Arguments& arguments) {
  const sigset_t signals = BlockStopSignals();
  MakeFolder(arguments.cloud.state_folder);
  devcloud::Cloud cloud(arguments.cloud);
  if (!arguments.ca_file.empty()) {
    devcloud::WriteFile(arguments.ca_file, cloud.authority().certificate_pem(),
                        S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
  }
  std::cout << "ready " << cloud.server().port() << ' ' << cloud.control().port() << std::endl;
  int signal = 0;
  (void)sigwait(&signals, &signal);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Arguments arguments = Parse(argc, argv);
    if (arguments.help) {
      std::cout << kUsage;
    } else {
      Run(arguments);
    }
    return EXIT_SUCCESS;
  } catch (const UsageError& error) {
    std::cerr << "zomi-devcloud: " << error.what() << '\n';
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "zomi-devcloud: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
