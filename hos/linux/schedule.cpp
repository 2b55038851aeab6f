#include "hos/linux/schedule.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <vector>

namespace hos_linux {
namespace {

constexpr std::size_t kLongestSchedule = 512;
constexpr std::size_t kFieldCount = 5;
constexpr std::size_t kWeekdayField = 4;
constexpr int kSundayAgain = 7;

struct Field {
  int low;
  int high;
  const char* names;  // three letters each, from `first_name` on
  int first_name;
};

constexpr std::array<Field, kFieldCount> kFields = {{
    {0, 59, "", 0},
    {0, 23, "", 0},
    {1, 31, "", 0},
    {1, 12, "janfebmaraprmayjunjulaugsepoctnovdec", 1},
    {0, 7, "sunmontuewedthufrisat", 0},
}};

// Who draws: the text that, with the place in the schedule, decides the value.
struct Drawer {
  std::string_view serial_number;
  std::string_view job_name;
};

std::vector<std::string_view> Split(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> parts;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find_first_of(separators, start), text.size());
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

std::optional<int> ParseNumber(std::string_view text) {
  int number = 0;
  const char* end = text.data() + text.size();
  const bool digits_only = text.find_first_not_of("0123456789") == std::string_view::npos;
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (!digits_only || error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::optional<int> ParseName(const Field& field, std::string_view text) {
  if (text.size() != 3) return std::nullopt;
  std::string name(text);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const std::size_t place = std::string_view(field.names).find(name);
  if (place == std::string_view::npos || place % 3 != 0) return std::nullopt;
  return field.first_name + static_cast<int>(place / 3);
}

std::optional<int> ParseValue(const Field& field, std::string_view text) {
  std::optional<int> value = ParseNumber(text);
  if (!value) value = ParseName(field, text);
  if (!value || *value < field.low || *value > field.high) return std::nullopt;
  return value;
}

void Feed(crypto_generichash_state& state, const void* bytes, std::size_t size) {
  crypto_generichash_update(&state, static_cast<const unsigned char*>(bytes), size);
}

// With its length before it, no text can pass for parts of another.
void FeedText(crypto_generichash_state& state, std::string_view text) {
  const std::uint64_t size = text.size();
  Feed(state, &size, sizeof size);
  Feed(state, text.data(), text.size());
}

std::uint64_t Draw(const Drawer& drawer, std::size_t field, std::size_t item) {
  const std::array<std::uint64_t, 2> place = {field, item};
  crypto_generichash_state state;
  crypto_generichash_init(&state, nullptr, 0, crypto_generichash_BYTES);
  FeedText(state, drawer.serial_number);
  FeedText(state, drawer.job_name);
  Feed(state, place.data(), sizeof place);
  std::array<unsigned char, crypto_generichash_BYTES> digest = {};
  crypto_generichash_final(&state, digest.data(), digest.size());
  std::uint64_t number = 0;
  std::memcpy(&number, digest.data(), sizeof number);
  return number;
}

// One item of the list of one field.
class Item {
 public:
  Item(std::size_t field, std::size_t item, const Drawer& drawer)
      : field_number_(field), field_(kFields[field]), item_number_(item), drawer_(drawer) {}

  [[nodiscard]] std::optional<std::string> Resolve(std::string_view text) const {
    const std::size_t tilde = text.find('~');
    if (tilde != std::string_view::npos) {
      return ResolveDrawn(text.substr(0, tilde), text.substr(tilde + 1));
    }
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return ResolveRange(text);
    return ResolveStepped(text.substr(0, slash), text.substr(slash + 1));
  }

 private:
  [[nodiscard]] bool IsWeekday() const { return field_number_ == kWeekdayField; }

  [[nodiscard]] std::optional<std::string> ResolveDrawn(std::string_view low_text,
                                                        std::string_view high_text) const {
    const std::optional<int> low = low_text.empty() ? field_.low : ParseValue(field_, low_text);
    if (!low) return std::nullopt;
    const std::optional<int> high =
        high_text.empty() ? OpenEnd(*low) : ParseValue(field_, high_text);
    if (!high || *low > *high) return std::nullopt;
    return std::to_string(DrawBetween(*low, *high));
  }

  // The other Sunday is no day of its own.
  [[nodiscard]] int OpenEnd(int low) const {
    return IsWeekday() ? std::max(low, kSundayAgain - 1) : field_.high;
  }

  [[nodiscard]] int DrawBetween(int low, int high) const {
    if (IsWeekday() && low == 0) high = std::min(high, kSundayAgain - 1);
    const auto count = static_cast<unsigned>(high - low + 1);
    const int value = low + static_cast<int>(Draw(drawer_, field_number_, item_number_) % count);
    return IsWeekday() ? value % kSundayAgain : value;
  }

  [[nodiscard]] std::optional<std::string> ResolveRange(std::string_view text) const {
    if (text == "*") return "*";
    const std::size_t dash = text.find('-');
    const std::optional<int> low = ParseValue(field_, text.substr(0, dash));
    if (!low) return std::nullopt;
    if (dash == std::string_view::npos) return std::to_string(*low);
    const std::optional<int> high = ParseValue(field_, text.substr(dash + 1));
    if (!high || *low > *high) return std::nullopt;
    return std::to_string(*low) + "-" + std::to_string(*high);
  }

  // A step needs a range to step through: cron takes none after a single number.
  [[nodiscard]] std::optional<std::string> ResolveStepped(std::string_view range_text,
                                                          std::string_view step_text) const {
    const std::optional<std::string> range = ResolveRange(range_text);
    const std::optional<int> step = ParseNumber(step_text);
    if (!range || !step || *step < 1 || *step > field_.high) return std::nullopt;
    if (range->find_first_of("*-") == std::string::npos) return std::nullopt;
    return *range + "/" + std::to_string(*step);
  }

  std::size_t field_number_;
  const Field& field_;
  std::size_t item_number_;
  const Drawer& drawer_;
};

std::optional<std::string> ResolveField(std::size_t field, std::string_view text,
                                        const Drawer& drawer) {
  std::string resolved;
  const std::vector<std::string_view> items = Split(text, ",");
  for (std::size_t i = 0; i < items.size(); ++i) {
    const std::optional<std::string> item = Item(field, i, drawer).Resolve(items[i]);
    if (!item) return std::nullopt;
    resolved.append(i == 0 ? "" : ",").append(*item);
  }
  return resolved;
}

}  // namespace

std::optional<std::string> ResolveSchedule(std::string_view schedule,
                                           std::string_view serial_number,
                                           std::string_view job_name) {
  if (schedule.size() > kLongestSchedule) return std::nullopt;
  std::vector<std::string_view> fields = Split(schedule, " \t");
  std::erase(fields, std::string_view());
  if (fields.size() != kFieldCount) return std::nullopt;
  std::string resolved;
  for (std::size_t i = 0; i < kFieldCount; ++i) {
    const auto field = ResolveField(i, fields[i], {serial_number, job_name});
    if (!field) return std::nullopt;
    resolved.append(i == 0 ? "" : " ").append(*field);
  }
  return resolved;
}

}  // namespace hos_linux
