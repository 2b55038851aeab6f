// What stands around the sender in the worker: the platform's answers as the question brought them,
// and a log that is told instead of written.
#pragma once

#include <vector>

#include "http/log_facts.h"
#include "http/messages.h"

namespace nodelink::http {

// While it lives, the platform's calls for the serial number and the user agent answer from
// `question`, which outlives it.
class PlatformAnswers {
 public:
  explicit PlatformAnswers(const DeviceApiQuestion& question);
  PlatformAnswers(const PlatformAnswers&) = delete;
  PlatformAnswers& operator=(const PlatformAnswers&) = delete;
  ~PlatformAnswers();
};

// The lines that were logged since the last call.
std::vector<LogFact> TakeLog();

}  // namespace nodelink::http
