#include "http/log_facts.h"

#include <algorithm>
#include <array>

#include "core/include/internal/string_utils.h"

namespace nodelink::http {
namespace {

constexpr std::string_view kSender = "zomi_https_req_send";
constexpr std::string_view kAgent = "zomi_agent_name_get";
constexpr std::string_view kToken = "zomi_token_generation";

constexpr std::array kFormats = {
    LogFormat{kSender, "URL encoding failed: %s"},
    LogFormat{kSender, "Fail to concat string"},
    LogFormat{kSender, "failed to init pCurl"},
    LogFormat{kSender, "out of memory, ERR=[0x%04X %s:%d]"},
    LogFormat{kSender, "no key in the hash, ERR=[0x%04X %s:%d]"},
    LogFormat{kSender, "%s, Failed to set POST parameters, code=%d, err=%s"},
    LogFormat{kSender, "Failed to set url to %s, code=%d, err=%s"},
    LogFormat{kSender, "failed to set agent=%s, return value=%d, err=%s"},
    LogFormat{kSender, "failed to set req=%s, header=%s, return value=%d, err=%s"},
    LogFormat{kSender, "Failed to set curl opt error:(%d)%s"},
    LogFormat{kSender, "Failed to set time-out, return value=%d, err=%s"},
    LogFormat{kSender, "failed to set time-out, return value=%d, err=%s"},
    LogFormat{kSender, "failed to write function WriteMemoryCallback, return value=%d, err=%s"},
    LogFormat{kSender, "failed to write data, return value=%d, err=%s"},
    LogFormat{kSender, "%s, Failed to curl perform, code=%d, err=%s"},
    LogFormat{kSender, "%s, Failed to curl_easy_getinfo, code=%d, err=%s"},
    LogFormat{kSender, "%s, Failed to get response"},
    LogFormat{kSender, "%s, Failed to request packages, httpResponseCode=%ld, data=%s"},
    LogFormat{kAgent, "KLIBHsinfoUserAgentGet failed, kivoerr=[0x%04X %s:%d]"},
    LogFormat{kToken, "Serial number is invalid: [%s][0x%04X %s:%d]"},
    LogFormat{kToken, "Fail to allocate"},
    LogFormat{kToken, "Fail to concat string"},
    LogFormat{kToken, "GenerateToken Failed, err=[0x%04X %s:%d]"},
    LogFormat{kToken, "Parameter error"},
    LogFormat{kToken, "Failed to get md5 string from \"%s\"."},
    LogFormat{kToken, "Wrong parameters"},
    LogFormat{kToken, "Failed to get serial number from flash. [0x%04X %s:%d]"},
};

constexpr std::string_view kTriple = "[0x%04X %s:%d]";

std::string_view WithoutTriple(std::string_view format) {
  format.remove_suffix(format.ends_with(kTriple) ? kTriple.size() : 0);
  return format;
}

// The triple of the platform of the process that writes the line, if `format` ends with one.
std::string TripleText(std::string_view format) {
  return format.ends_with(kTriple) ? FormatString(std::string(kTriple), PLATFORM_ERROR_TRIPLE) : "";
}

// The conversion that begins at `format[start]`: "%s", "%d" or "%ld".
std::string_view ConversionAt(std::string_view format, std::size_t start) {
  return format.substr(start, format.find_first_of("sd", start) - start + 1);
}

std::string TextOf(const std::variant<std::int64_t, std::string>& value) {
  const auto* text = std::get_if<std::string>(&value);
  return text != nullptr ? *text : std::to_string(std::get<std::int64_t>(value));
}

std::string TextOf(const LogFact& fact) {
  const std::string_view format = WithoutTriple(FormatAt(fact.format).format);
  std::string text;
  auto value = fact.values.begin();
  for (std::size_t index = 0; index < format.size();) {
    if (format[index] == '%') {
      text += TextOf(*value++);
      index += ConversionAt(format, index).size();
    } else {
      text += format[index++];
    }
  }
  return text + TripleText(FormatAt(fact.format).format);
}

std::variant<std::int64_t, std::string> TakeValue(std::string_view conversion, va_list* values) {
  if (conversion == "%s") {
    const char* text = va_arg(*values, const char*);
    return std::string(text == nullptr ? "(null)" : text).substr(0, kLongestMessage);
  }
  return conversion == "%ld" ? std::int64_t{va_arg(*values, long)}
                             : std::int64_t{va_arg(*values, int)};
}

// Calls `visit` with each conversion of the format.
template <typename Visit>
void ForEachConversion(std::string_view format, Visit visit) {
  format = WithoutTriple(format);
  for (std::size_t index = format.find('%'); index != std::string_view::npos;
       index = format.find('%', index + 1)) {
    visit(ConversionAt(format, index));
  }
}

}  // namespace

std::size_t FormatCount() { return kFormats.size(); }

const LogFormat& FormatAt(std::size_t index) { return kFormats.at(index); }

std::string ConversionsOf(std::string_view format) {
  std::string letters;
  ForEachConversion(format,
                    [&letters](std::string_view conversion) { letters += conversion.back(); });
  return letters;
}

std::optional<LogFact> FactOf(LogSite site, std::string_view format, va_list values) {
  const auto found = std::find_if(kFormats.begin(), kFormats.end(), [&](const LogFormat& known) {
    return known.file == site.file && known.format == format;
  });
  if (found == kFormats.end()) return std::nullopt;
  LogFact fact = {static_cast<std::size_t>(found - kFormats.begin()), site.line, {}};
  va_list rest;
  va_copy(rest, values);
  ForEachConversion(format, [&](std::string_view conversion) {
    fact.values.push_back(TakeValue(conversion, &rest));
  });
  va_end(rest);
  return fact;
}

void Log(const LogFact& fact) {
  const LogFormat& format = FormatAt(fact.format);
  LogError({format.file, fact.line}, "%s", TextOf(fact).c_str());
}

}  // namespace nodelink::http
