// A lock between processes on a named file.
#pragma once

#include <cstdint>
#include <string>

namespace nodelink {

class FileLock {
 public:
  // `mode` chooses the platform lock's flag; every user passes 0, the exclusive lock. Touches
  // nothing on disk.
  FileLock(std::string path, std::int32_t mode);
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  virtual ~FileLock();

  // Makes the lock file, open to every user, if there is none, and tries to lock it, 50 to 100 ms
  // apart, until `timeout_seconds` after the call; 0 makes no attempt. A lock that this object
  // holds is released first, and a lock whose file no longer stands at the path is none. False when
  // the file cannot be made (logged) or time ran out (not logged).
  [[nodiscard]] bool Lock(unsigned int timeout_seconds);

  // Releases the lock, if held. The file stays: somebody else may be about to lock it.
  void Unlock();

  std::string path() const { return path_; }

 private:
  std::string path_;
  std::int32_t mode_;
  std::int32_t fd_ = -1;
};

}  // namespace nodelink
