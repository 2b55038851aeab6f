#include "kivo/log.h"

#include <json/value.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "hos/linux/error.h"
#include "hos/linux/json_line.h"

namespace hos_linux {
namespace {

constexpr char kEventFile[] = "/usr/kivo/var/events.jsonl";

using Texts = std::array<const char*, 4>;

Json::Value EventRecord(int type, int level, unsigned int event, const Texts& texts) {
  char code[16];
  static_cast<void>(std::snprintf(code, sizeof code, "0x%08X", event));
  Json::Value record;
  record["type"] = type;
  record["level"] = level;
  record["event"] = code;
  record["texts"] = Json::arrayValue;
  for (const char* text : texts) record["texts"].append(text);
  return record;
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KIVOLogSet1(int type, int level, unsigned int event, const char* text1, const char* text2,
                const char* text3, const char* text4) {
  const hos_linux::Texts texts = {text1, text2, text3, text4};
  if (std::count(texts.begin(), texts.end(), nullptr) != 0) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  return hos_linux::PlatformCall(-1, [&] {
    const Json::Value record = hos_linux::EventRecord(type, level, event, texts);
    return hos_linux::AppendJsonLine(hos_linux::kEventFile, record) ? 0 : -1;
  });
}
}
