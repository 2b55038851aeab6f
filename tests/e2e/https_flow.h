// Every flow that asks a server over HTTPS, set up so that the request in question is the first one
// to its host; and a server that takes that host's place and may behave as badly as it likes.
#pragma once

#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "tests/e2e/device_fixture.h"

// The transport that a flow's request goes through.
enum class Transport { kDeviceApi, kOauth, kPlatform };

// What the device has before the flow.
enum class Stored { kNothing, kLink, kValidTokens, kExpiredTokens };

struct HttpsFlow {
  const char* name;
  Transport transport;
  const char* host;
  const char* path;
  std::vector<std::string> command;
  std::string input;
  Stored stored;
  // A failed run: what its output and error output begin with, and its exit status.
  std::string out;
  std::string err;
  int exit_status;
  // A run whose server could not be reached: the texts begin so, and these lines are logged.
  std::string unreached_out;
  std::string unreached_err;
  std::vector<std::string> unreached_log;
};

std::ostream& operator<<(std::ostream& out, const HttpsFlow& flow);

const std::vector<HttpsFlow>& HttpsFlows();

// Serves `host` for the programs of the lab. Every request gets the answer that was set last.
class BadHost {
 public:
  BadHost(const std::string& host, const devcloud::TlsSettings& tls);

  // `look`, if there is one, is called for each request while its client waits.
  void SetAnswer(devcloud::Response answer, std::function<void()> look = nullptr);
  devcloud::HttpsServer& server() { return server_; }

 private:
  devcloud::Response Answer();

  std::mutex mutex_;
  devcloud::Response answer_;
  std::function<void()> look_;
  devcloud::HttpsServer server_;
};

class HttpsFlowTest : public DeviceTest, public testing::WithParamInterface<HttpsFlow> {
 protected:
  HttpsFlowTest();

  // Brings the device into the state before the flow.
  void Prepare();

  // Runs the flow's command behind `prefix`.
  static lab::ProcessResult RunFlow(const std::vector<std::string>& prefix = {});

  // All that the flow may change, as one text.
  static std::string State();

  static void ExpectFailure(const lab::ProcessResult& result);

  devcloud::TlsSettings Tls(devcloud::TlsChoice choice) {
    return MakeTlsSettings(cloud_.authority(), devcloud::DefaultHosts(), choice);
  }

  BadHost bad_;

 private:
  std::string record_;
};
