// Answers that are ready and wait until somebody releases them: for looking at what a client does
// meanwhile, and in what order answers come.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "devcloud/http/http_message.h"

namespace devcloud {

struct HeldAnswer {
  std::int64_t id = 0;
  std::string method = {};
  std::string path = {};
};

class HeldAnswers {
 public:
  // Holds the answer to `request`: it goes out once the event is signalled. Throws
  // std::system_error when there is no descriptor for it.
  [[nodiscard]] std::shared_ptr<const Event> Hold(const Request& request);

  // Those whose clients still wait, oldest first.
  [[nodiscard]] std::vector<HeldAnswer> List();
  // The same, but waits up to `limit` for the first one.
  [[nodiscard]] std::vector<HeldAnswer> WaitAndList(std::chrono::milliseconds limit);

  // False when there is no such one.
  bool Release(std::int64_t id);
  void ReleaseAll();

  // Ends all waiting for answers that are held.
  void Close();

 private:
  struct Entry {
    HeldAnswer answer;
    std::weak_ptr<Event> event;  // gone with its client
  };

  std::vector<HeldAnswer> ListLocked();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;
  std::int64_t last_id_ = 0;
  bool closed_ = false;
};

}  // namespace devcloud
