#include "klib/device.h"

#include <sys/utsname.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "base/folder.h"
#include "hos/linux/device_facts.h"
#include "hos/linux/error.h"
#include "hos/linux/file.h"

namespace hos_linux {
namespace {

constexpr char kDeviceTreeSerial[] = "/proc/device-tree/serial-number";
constexpr char kFirmwareSerial[] = "/sys/class/dmi/id/product_serial";
constexpr char kInterfaces[] = "/sys/class/net";
constexpr char kNoAddress[] = "00:00:00:00:00:00";

std::vector<std::string> InterfaceNames() {
  auto names = base::NamesIn(kInterfaces).value_or(std::vector<std::string>());
  std::sort(names.begin(), names.end());
  return names;
}

// Only a physical interface has a device behind it.
std::optional<std::string> AddressOfInterface(const std::string& name) {
  const std::string folder = std::string(kInterfaces) + "/" + name;
  std::error_code error;
  if (!std::filesystem::exists(folder + "/device", error)) return std::nullopt;
  const std::optional<std::string> address = ReadFirstLine((folder + "/address").c_str());
  return address == kNoAddress ? std::nullopt : address;
}

// The text goes into a request header, where a control character would end it.
std::string OnePrintableLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
  return text;
}

std::string UserAgent(const std::string& product) {
  utsname kernel = {};
  uname(&kernel);
  const std::string version = ReadKey(kDeviceFacts, "os_version").value_or(kernel.release);
  const std::string model = ReadKey(kDeviceFacts, "model").value_or(kernel.machine);
  return OnePrintableLine(std::string(product).append(" HOS/").append(version) + " (" + model +
                          ")");
}

}  // namespace

std::optional<std::string> SerialNumber() {
  if (auto serial = ReadKey(kDeviceFacts, "serial_number")) return serial;
  if (auto serial = ReadFirstLine(kDeviceTreeSerial)) return serial;
  return ReadFirstLine(kFirmwareSerial);
}

std::optional<std::string> MacAddress() {
  if (auto address = ReadKey(kDeviceFacts, "mac_address")) return address;
  for (const std::string& name : InterfaceNames()) {
    if (auto address = AddressOfInterface(name)) return address;
  }
  return std::nullopt;
}

}  // namespace hos_linux

extern "C" {

int KLIBGetSerialNumber(char* buffer, int size) {
  if (buffer == nullptr || size < 1) return hos_linux::MinusOne(hos_linux::kBadArgument);
  return hos_linux::PlatformCall(-1, [=] {
    const std::optional<std::string> serial = hos_linux::SerialNumber();
    if (!serial) return hos_linux::MinusOne(hos_linux::kNotFound);
    return hos_linux::CopyOut(*serial, buffer, size);
  });
}

int KLIBHsinfoUserAgentGet(const char* product, char* buffer, int size) {
  if (product == nullptr || buffer == nullptr || size < 1) {
    return hos_linux::MinusOne(hos_linux::kBadArgument);
  }
  return hos_linux::PlatformCall(
      -1, [=] { return hos_linux::CopyOut(hos_linux::UserAgent(product), buffer, size); });
}
}
