// Faults on demand: rules that change or replace the answers of chosen paths.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "devcloud/http/http_message.h"
#include "devcloud/state/database.h"

namespace devcloud {

struct FaultRule {
  std::int64_t id = 0;
  std::string method = {};                 // empty: any
  std::string path = {};                   // "*": any
  std::int64_t skip = 0;                   // requests that it lets pass first
  std::optional<std::int64_t> count = {};  // requests that it applies to; none: until removed
  // With a status the request is not handled at all, and this answer given in its place. Without
  // one the request is handled as ever, and only the delivery of its answer is faulty: so a client
  // loses an answer whose effect has happened.
  std::optional<int> status = {};
  std::vector<Header> headers = {};
  std::string body = {};
  bool hold = false;  // the answer waits until it is released (devcloud/state/held_answers.h)
  Fault fault = {};
};

[[nodiscard]] Json::Value ToJson(const FaultRule& rule);
// Throws BadInput.
[[nodiscard]] FaultRule FaultRuleFromJson(const std::string& text);

// The rules in force; kept in the database. The oldest rule that fits a request applies.
class FaultBook {
 public:
  explicit FaultBook(Database& database);

  // The rule's new id.
  std::int64_t Add(const FaultRule& rule);
  bool Remove(std::int64_t id);
  void Clear();
  [[nodiscard]] std::vector<FaultRule> List();

  // The rule that applies to this request, which counts as applied then.
  [[nodiscard]] std::optional<FaultRule> Take(const std::string& method, const std::string& path);

 private:
  void Save(const FaultRule& rule);

  Database& database_;
};

}  // namespace devcloud
