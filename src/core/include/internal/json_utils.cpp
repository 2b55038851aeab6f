#include "core/include/internal/json_utils.h"

#include "core/error_code.h"
#include "core/json.h"
#include "core/log.h"
#include "core/zomi_exception.h"

namespace nodelink {
namespace {

// The places of these two lines in the log are fixed: administrators' filters know them.
constexpr LogSite kParseSite{"include/internal/json_utils", 13};
constexpr LogSite kSaveSite{"include/internal/json_utils", 31};

}  // namespace

void ParseJson(const std::string& text, Json::Value& value) {
  value = Json::Value();
  if (!json::fromString(text, value)) {
    LogError(kParseSite, "Failed to parse json: %s", text.c_str());
    throw ZomiException(kWrongJsonFormat);
  }
}

void SaveJson(const std::string& path, const Json::Value& value) {
  if (!json::toFile(value, path)) {
    LogError(kSaveSite, "Failed to save json: %s", path.c_str());
    throw ZomiException(kWrongJsonFormat);
  }
}

}  // namespace nodelink
