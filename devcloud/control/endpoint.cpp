#include "devcloud/control/endpoint.h"

#include <algorithm>
#include <charconv>

#include "devcloud/http/json_fields.h"

namespace devcloud::control {
namespace {

constexpr std::int64_t kLongestWaitSeconds = 60;

std::int64_t ToNumber(const std::string& text, const std::string& what) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < 0) {
    throw BadInput(what + " must be a whole number");
  }
  return number;
}

}  // namespace

Account GetAccount(const Call& call, const std::string& id_or_email) {
  auto account = call.state.store.FindAccount(id_or_email);
  if (!account) account = call.state.store.FindAccountByEmail(id_or_email);
  if (!account) throw NotFound("no such account");
  return *account;
}

std::int64_t ReadId(const Call& call) { return ToNumber(call.parameters.at(0), "id"); }

Form ReadQuery(const Call& call) {
  std::optional<Form> query = Form::Parse(call.request.query);
  if (!query) throw BadInput("the query does not parse");
  return *query;
}

std::int64_t QueryNumber(const Form& query, const std::string& name) {
  const std::string* text = query.Find(name);
  return text == nullptr ? 0 : ToNumber(*text, name);
}

std::chrono::seconds WaitTime(const Form& query) {
  return std::chrono::seconds(std::min(QueryNumber(query, "wait"), kLongestWaitSeconds));
}

Response Done() { return {.status = 204}; }

Response Shown(const Json::Value& value) { return JsonResponse(200, value); }

Response Created(const Json::Value& value) { return JsonResponse(201, value); }

}  // namespace devcloud::control
