// Every flow that fails with a request, set up so that the request in question is the first one to
// its host; and a server that takes that host's place and may behave as badly as it likes.
#pragma once

#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "lab/flow.h"
#include "tests/e2e/device_fixture.h"

// A flow, and one of its requests whose failure is the flow's.
struct HttpsFlow {
  const lab::Flow& flow;
  const lab::Request& request;

  // "browser_login_other_exchange"; "query" of the request of the same name
  [[nodiscard]] std::string Name() const;
  [[nodiscard]] const lab::Unreached& unreached() const { return *request.unreached; }
};

std::ostream& operator<<(std::ostream& out, const HttpsFlow& flow);

const std::vector<HttpsFlow>& HttpsFlows();

inline std::string NameOfFlow(const testing::TestParamInfo<HttpsFlow>& flow) {
  return flow.param.Name();
}

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
