#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

namespace lab {

// One message as a program gave it to syslog().
struct LogLine {
  int facility = 0;  // as in <syslog.h>: LOG_USER, LOG_AUTH, ...
  int severity = 0;  // as in <syslog.h>: LOG_ERR, LOG_NOTICE, ...
  std::string tag;   // the name given to openlog(), or the program's
  pid_t pid = 0;     // 0 unless the program logs with LOG_PID
  std::string text;
  std::string raw;  // the datagram's bytes
};

// Reads "<PRI>Mmm dd hh:mm:ss tag[pid]: text", the form in which the C library's syslog() writes.
// Anything else counts as the text of a message of LOG_USER at LOG_NOTICE, without a tag.
[[nodiscard]] LogLine ParseLogLine(std::string_view raw);

// "auth.err", "user.notice"; numbers where there is no name.
[[nodiscard]] std::string PriorityName(const LogLine& line);

// Receives what programs log: binds the system log's socket and keeps every message in order.
//
// When the environment variable LAB_LOG_COLLECT names a folder, the destructor leaves the messages
// there, one datagram per line (line breaks inside as "\n"), in a file <pid>-<random>.log.
//
// All methods may be called from any thread of the process that made the sink. In a child made by
// fork() the sink is dead: Lines() and Clear() throw std::logic_error, the destructor does nothing.
class SyslogSink {
 public:
  // Called for each message as it comes, on the sink's own thread.
  using Listener = std::function<void(const LogLine&)>;

  // Throws std::system_error when the socket cannot be bound; a socket that nobody reads any more
  // is replaced, one in use is not. Any user may log to it.
  explicit SyslogSink(std::string path = "/dev/log", Listener listener = nullptr);
  ~SyslogSink();

  SyslogSink(const SyslogSink&) = delete;
  SyslogSink& operator=(const SyslogSink&) = delete;

  // The messages that were sent before the call, since the start or the last Clear().
  [[nodiscard]] std::vector<LogLine> Lines();
  // Forgets what was sent before the call (but not for LAB_LOG_COLLECT).
  void Clear();

 private:
  void Bind();
  void Drain();
  bool Take(std::string_view datagram);
  void SendMarker(std::uint64_t number);
  std::uint64_t SendNextMarker();
  void Flush();
  void Collect() const;
  void RemoveSocketFile() const;

  const std::string path_;
  const Listener listener_;
  const pid_t owner_;
  const std::string marker_;  // begins the sink's own messages, which nobody can guess
  ino_t inode_ = 0;           // of the socket file
  base::UniqueFd socket_;
  base::UniqueFd sender_;  // connected to socket_, whatever becomes of the name

  std::mutex marker_turn_;  // makes numbering and sending of markers one step
  std::mutex mutex_;        // of all below
  std::condition_variable changed_;
  std::vector<LogLine> lines_;
  std::size_t first_ = 0;  // of lines_ that Lines() gives
  std::uint64_t markers_sent_ = 0;
  std::uint64_t markers_seen_ = 0;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace lab
