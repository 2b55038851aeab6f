// A lock between processes that nobody but root can hold: its file stands in the account's private
// folder.
#pragma once

#include <chrono>

#include "base/unique_fd.h"

namespace nodelink {

class PrivateLock {
 public:
  // The file `path` in the private folder; it is made, and never removed. Takes nothing yet.
  explicit PrivateLock(const char* path) : path_(path) {}

  enum class Outcome {
    kTaken,
    kBusy,    // another process has held it for all of the limit
    kFailed,  // a local failure keeps this process alone from it
  };

  // Takes the lock, waiting for `limit` at most, and raises privileges for the opening of its file.
  // Where no process could have it (no folder, no rights, a full or read-only disk) there is
  // nothing to keep apart: that is kTaken too, and what the lock was to guard fails by itself. Logs
  // nothing. The lock ends with the object.
  [[nodiscard]] Outcome Take(std::chrono::milliseconds limit);

  const char* path() const { return path_; }

 private:
  const char* path_;
  base::UniqueFd file_;
};

}  // namespace nodelink
