#include "devcloud/http/http_message.h"

#include <algorithm>
#include <array>
#include <utility>

namespace devcloud {
namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsTokenCharacter(char c) {
  constexpr std::string_view kSymbols = "!#$%&'*+-.^_`|~";
  return (c >= '0' && c <= '9') || (Lower(c) >= 'a' && Lower(c) <= 'z') ||
         kSymbols.find(c) != std::string_view::npos;
}

bool IsControlCharacter(char c) { return (c >= 0 && c < 0x20) || c == 0x7f; }

constexpr std::array<std::pair<int, std::string_view>, 24> kReasons{{
    {200, "OK"},
    {201, "Created"},
    {204, "No Content"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {413, "Payload Too Large"},
    {415, "Unsupported Media Type"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
}};

}  // namespace

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return Lower(x) == Lower(y); });
}

const std::string* Request::FindHeader(std::string_view name) const {
  const auto found = std::find_if(headers.begin(), headers.end(), [name](const Header& header) {
    return EqualsIgnoringCase(header.name, name);
  });
  return found == headers.end() ? nullptr : &found->value;
}

std::size_t Request::CountHeaders(std::string_view name) const {
  return static_cast<std::size_t>(std::count_if(
      headers.begin(), headers.end(),
      [name](const Header& header) { return EqualsIgnoringCase(header.name, name); }));
}

std::string Request::HeaderOr(std::string_view name) const {
  const std::string* value = FindHeader(name);
  return value == nullptr ? std::string() : *value;
}

bool IsValidHeader(const Header& header) {
  return !header.name.empty() &&
         std::all_of(header.name.begin(), header.name.end(), IsTokenCharacter) &&
         std::none_of(header.value.begin(), header.value.end(), IsControlCharacter);
}

std::string_view ReasonPhrase(int status) {
  const auto* found = std::find_if(kReasons.begin(), kReasons.end(),
                                   [status](const auto& entry) { return entry.first == status; });
  return found == kReasons.end() ? "Unknown" : found->second;
}

}  // namespace devcloud
