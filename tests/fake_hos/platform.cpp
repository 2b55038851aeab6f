#include <algorithm>
#include <cstring>
#include <iterator>

#include "klibc/error.h"
#include "tests/fake_hos/internal.h"

namespace fake_hos {
namespace {

bool IsHelper(const Call& call) {
  return call.name.starts_with("KLIBCSz") || call.name.starts_with("KLIBCStr") ||
         call.name.starts_with("KLIBCErr");
}

}  // namespace

std::string Call::ToText() const {
  std::string text = name + "(";
  for (std::size_t i = 0; i < args.size(); ++i) text += (i == 0 ? "" : ", ") + args[i];
  return text + ")";
}

Platform& platform() {
  static Platform the_platform;
  return the_platform;
}

void Platform::Reset() { *this = Platform(); }

std::vector<Call> Platform::calls() const {
  std::vector<Call> found;
  std::copy_if(all_calls_.begin(), all_calls_.end(), std::back_inserter(found),
               [](const Call& call) { return !IsHelper(call); });
  return found;
}

std::vector<Call> Platform::calls(std::string_view name) const {
  std::vector<Call> found;
  std::copy_if(all_calls_.begin(), all_calls_.end(), std::back_inserter(found),
               [name](const Call& call) { return call.name == name; });
  return found;
}

std::size_t Platform::call_count(std::string_view name) const { return calls(name).size(); }

Platform::Script& Platform::ScriptOf(std::string_view name) {
  const auto found = scripts_.find(name);
  return found != scripts_.end() ? found->second : scripts_[std::string(name)];
}

void Platform::FailCall(std::string_view name, int nth) {
  Script& script = ScriptOf(name);
  script.failing.insert(script.calls + nth);
}

void Platform::FailAlways(std::string_view name) { ScriptOf(name).always = true; }

void Platform::StopFailing() {
  for (auto& [name, script] : scripts_) {
    script.failing.clear();
    script.always = false;
  }
  calls_until_failure_ = 0;
}

void Platform::FailNthCallOverall(int n) {
  calls_until_failure_ = n;
  nth_fired_ = false;
  nth_call_ = {};
}

void Platform::OnCall(std::string_view name, std::function<void(const Call&)> hook) {
  ScriptOf(name).hooks.push_back(std::move(hook));
}

bool Platform::NthCallFailsNow(const Call& call, Counting counting) {
  if (counting == Counting::kNotCounted || calls_until_failure_ == 0) return false;
  if (--calls_until_failure_ != 0) return false;
  nth_fired_ = true;
  nth_call_ = call;
  return true;
}

bool Platform::Enter(std::string_view name, std::vector<std::string> args, Counting counting) {
  const Call call{std::string(name), std::move(args)};
  all_calls_.push_back(call);
  // Copies, because a hook may script more and so move what stands here.
  const auto hooks = ScriptOf(name).hooks;
  for (const auto& hook : hooks) hook(call);
  Script& script = ScriptOf(name);
  const bool scripted = script.failing.erase(++script.calls) != 0 || script.always;
  if (!NthCallFailsNow(call, counting) && !scripted) return true;
  SetError();
  return false;
}

void Platform::Note(std::string_view name, std::vector<std::string> args) {
  const Call call{std::string(name), std::move(args)};
  all_calls_.push_back(call);
  const auto hooks = ScriptOf(name).hooks;
  for (const auto& hook : hooks) hook(call);
}

int CopyOut(const std::string& text, char* buffer, int size) {
  const std::size_t length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
  std::memcpy(buffer, text.data(), length);
  buffer[length] = '\0';
  return static_cast<int>(std::strlen(buffer));
}

}  // namespace fake_hos

extern "C" {

int KLIBCErrGet(void) { return fake_hos::platform().last_error().code; }

const char* KLIBCErrorGetFile(void) { return fake_hos::platform().last_error().file.c_str(); }

int KLIBCErrorGetLine(void) { return fake_hos::platform().last_error().line; }
}
