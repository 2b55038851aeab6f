// The device's files, as the torture keeps, restores and compares them.
#pragma once

#include <sys/types.h>

#include <array>
#include <map>
#include <optional>
#include <string>

#include "lab/device.h"

namespace torture {

// The folders of the device's state; the crontab is a file of its own.
inline constexpr std::array kStateFolders = {lab::kPrivateFolder, lab::kApiKeyFolder,
                                             lab::kJobFolder};

struct FileCopy {
  std::string text;
  mode_t mode = 0;

  bool operator==(const FileCopy&) const = default;
};

using Files = std::map<std::string, FileCopy>;  // by path

// All files of the device's state.
Files ReadFiles();
// Makes these the only ones; whatever is named as temporary goes too, and the locks in /tmp.
void PutFiles(const Files& files);

using Record = std::map<std::string, std::string>;

// The account record, empty when there is none; nothing when it is not whole.
std::optional<Record> ReadRecord();

// What a flow makes of the device.
struct DeviceState {
  Record record;
  std::map<std::string, std::string> schedules;  // the texts of job and crontab, by path
  bool has_tokens = false;
};

// Throws std::runtime_error when the record is not whole.
DeviceState ReadState();

}  // namespace torture
