// Every request and its answer, to be read back. A development tool: bodies are kept whole,
// credentials included.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "devcloud/http/http_message.h"
#include "devcloud/state/database.h"

namespace devcloud {

struct LogEntry {
  std::int64_t id = 0;    // grows with every request
  std::int64_t time = 0;  // milliseconds since the epoch
  Request request = {};
  int status = 0;
  std::string answer = {};                 // the answer's body
  std::optional<std::int64_t> fault = {};  // the fault rule that applied
};

class RequestLog {
 public:
  // Keeps the last 10000 requests.
  explicit RequestLog(Database& database);

  // The entry's new id.
  std::int64_t Add(const LogEntry& entry);
  // The entries with ids above `after`, of that path only unless it is empty, oldest first.
  [[nodiscard]] std::vector<LogEntry> Read(std::int64_t after = 0, const std::string& path = "");
  // The last `most` entries, newest first.
  [[nodiscard]] std::vector<LogEntry> Newest(int most);
  // As Read, but waits up to `limit` for the first such entry.
  [[nodiscard]] std::vector<LogEntry> WaitAndRead(std::int64_t after, const std::string& path,
                                                  std::chrono::milliseconds limit);
  // Ids go on where they were.
  void Clear();
  // Ends all waiting, now and later.
  void Close();

 private:
  Database& database_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t additions_ = 0;
  bool closed_ = false;
};

}  // namespace devcloud
