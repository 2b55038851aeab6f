// What the parts of the control interface have in common.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "devcloud/http/form.h"
#include "devcloud/http/json_text.h"
#include "devcloud/http/tls_switch.h"
#include "devcloud/state/cloud_state.h"

namespace devcloud::control {

// One request to the control interface, and what it may read and change.
struct Call {
  CloudState& state;
  TlsSwitch& tls;
  const Request& request;
  const std::vector<std::string>& parameters;  // what stood at the places of "*"
};

// Its function throws BadInput, NotFound or Conflict.
struct Endpoint {
  const char* method;
  const char* pattern;
  Response (*answer)(const Call& call);
};

extern const std::span<const Endpoint> kAccountEndpoints;
extern const std::span<const Endpoint> kDeviceEndpoints;
extern const std::span<const Endpoint> kServerEndpoints;
extern const std::span<const Endpoint> kTokenEndpoints;

class NotFound : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Conflict : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws NotFound.
[[nodiscard]] Account GetAccount(const Call& call, const std::string& id_or_email);

// The id in the path. Throws BadInput.
[[nodiscard]] std::int64_t ReadId(const Call& call);
// Throws BadInput.
[[nodiscard]] Form ReadQuery(const Call& call);
// The number of that name, 0 without one. Throws BadInput.
[[nodiscard]] std::int64_t QueryNumber(const Form& query, const std::string& name);
// How long the client wants to wait for something to list. Throws BadInput.
[[nodiscard]] std::chrono::seconds WaitTime(const Form& query);

[[nodiscard]] Response Done();
[[nodiscard]] Response Shown(const Json::Value& value);
[[nodiscard]] Response Created(const Json::Value& value);

template <typename Things>
[[nodiscard]] Response Listed(const Things& things) {
  Json::Value list(Json::arrayValue);
  for (const auto& thing : things) list.append(ToJson(thing));
  return Shown(list);
}

}  // namespace devcloud::control
