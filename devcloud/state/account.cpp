#include "devcloud/state/account.h"

#include <algorithm>

namespace devcloud {
namespace {

bool IsLetterOrDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool IsVisible(char c) { return c > ' ' && c < 0x7f; }

}  // namespace

bool IsSuccessWord(std::string_view word) { return word == kGoodWord || word == "account_userid"; }

bool IsValidSerial(std::string_view serial) {
  constexpr std::size_t kLongest = 35;
  return !serial.empty() && serial.size() <= kLongest && IsLetterOrDigit(serial.front()) &&
         std::all_of(serial.begin(), serial.end(), IsVisible);
}

bool IsValidMac(std::string_view mac) {
  std::size_t digits = 0;
  for (const char c : mac) {
    const bool between_pairs = digits > 0 && digits % 2 == 0 && (c == ':' || c == '-');
    if (!IsHexDigit(c) && !between_pairs) return false;
    if (IsHexDigit(c)) ++digits;
  }
  return digits == 12 && mac.size() <= 17;
}

}  // namespace devcloud
