#include "kivo/scemd.h"

#include <charconv>
#include <string>
#include <string_view>

#include "hos/linux/error.h"
#include "hos/linux/file.h"
#include "hos/linux/keyvalue_text.h"

namespace hos_linux {
namespace {

constexpr char kStatusFile[] = "/run/kivo/scemd.status";

bool ParseState(std::string_view text, int& state) {
  int number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return False(kBadContent);
  state = number;
  return true;
}

int GetStatus(int item, int& state) {
  const FileText file = ReadFile(kStatusFile, kMaxKeyValueFile);
  if (file.state == ReadState::kFailed) return -1;
  const auto text = FindValue(file.text, std::to_string(item), "=");
  if (text) return ParseState(*text, state) ? 0 : -1;
  state = 0;
  return 0;
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KIVOScemdStatusGet(int item, int* state) {
  if (state == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] { return hos_linux::GetStatus(item, *state); });
}
}
