// Files of JSON lines that the platform's own viewers read.
#pragma once

#include <json/value.h>

#include <string>

namespace hos_linux {

// Appends `record`, with "time" (whole seconds since the epoch) added, as one line to the file
// `path`, which is made with mode 0600 when missing, like its folder with 0755. Writers are
// serialised; a line is there whole or not at all.
[[nodiscard]] bool AppendJsonLine(const std::string& path, Json::Value record);

}  // namespace hos_linux
