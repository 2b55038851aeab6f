#include "kivo/zone.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "hos/linux/error.h"
#include "hos/linux/file.h"
#include "klibc/szhash.h"

namespace hos_linux {
namespace {

constexpr char kZoneName[] = "/etc/timezone";
constexpr char kZoneLink[] = "/etc/localtime";
constexpr std::string_view kZoneTable = "/usr/share/zoneinfo/";
constexpr std::size_t kLargestZone = std::size_t{256} * 1024;
constexpr char kZoneVariable[] = "TZ";

std::optional<std::string> ZoneOfLink() {
  std::error_code error;
  const std::string target = std::filesystem::read_symlink(kZoneLink, error).string();
  constexpr std::string_view kMark = "zoneinfo/";
  const std::size_t mark = target.rfind(kMark);
  if (error || mark == std::string::npos || mark + kMark.size() == target.size()) {
    return std::nullopt;
  }
  return target.substr(mark + kMark.size());
}

std::optional<std::string> ZoneName() {
  if (auto name = ReadFirstLine(kZoneName)) return name;
  return ZoneOfLink();
}

// A name that leads out of the table is no zone of it, nor is another file that stands there.
bool IsInTable(const std::string& zone) {
  if (!StaysBelow(zone)) return false;
  const FileText file = ReadFile(std::string(kZoneTable).append(zone).c_str(), kLargestZone);
  return file.text.starts_with("TZif");
}

// The C library reads a zone only as the process's own, so it becomes that for a moment. The
// variable is a string of ours meanwhile: setenv would make one that is lost when memory runs out.
class ProcessZone {
 public:
  explicit ProcessZone(const std::string& zone)
      : old_(std::getenv(kZoneVariable)),
        own_(std::string(kZoneVariable) + "=:" + std::string(kZoneTable) + zone),
        set_(putenv(own_.data()) == 0) {
    tzset();
  }
  ProcessZone(const ProcessZone&) = delete;
  ProcessZone& operator=(const ProcessZone&) = delete;
  ~ProcessZone() {
    if (old_ == nullptr) {
      unsetenv(kZoneVariable);
    } else {
      putenv(old_ - std::string_view(kZoneVariable).size() - 1);  // the string that was there
    }
    tzset();
  }

  bool set() const { return set_; }

 private:
  char* old_;
  std::string own_;
  bool set_;
};

std::optional<std::string> UtcOffset(const std::string& zone) {
  const ProcessZone process_zone(zone);
  if (!process_zone.set()) return std::nullopt;
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  localtime_r(&now, &local);
  return std::to_string(local.tm_gmtoff);
}

int GetZone(char* buffer, int size, int* needed) {
  const std::optional<std::string> name = ZoneName();
  if (!name) return MinusOne(kNotFound);
  *needed = static_cast<int>(name->size()) + 1;
  if (size < *needed) return MinusOne(kTooBig);
  CopyOut(*name, buffer, size);
  return 0;
}

int GetInfo(const std::string& zone, KLIBCSZHASH* info) {
  if (!IsInTable(zone)) return MinusOne(kNotFound);
  const std::optional<std::string> offset = UtcOffset(zone);
  if (!offset) return MinusOne(kInternal);
  if (KLIBCSzHashSetValue(info, "nameInTZDB", zone.c_str()) < 0) return -1;
  if (KLIBCSzHashSetValue(info, "utcOffset", offset->c_str()) < 0) return -1;
  return 2;
}

}  // namespace
}  // namespace hos_linux

extern "C" {

int KIVOZoneGet(char* buffer, int size, int* needed) {
  if (buffer == nullptr || needed == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] { return hos_linux::GetZone(buffer, size, needed); });
}

int KIVOZoneGetInfo(const char* zone, KLIBCSZHASH* info) {
  if (zone == nullptr || info == nullptr) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] { return hos_linux::GetInfo(zone, info); });
}
}
