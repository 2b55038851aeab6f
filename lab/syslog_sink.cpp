#include "lab/syslog_sink.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <optional>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace lab {
namespace {

constexpr std::size_t kTimestampSize = 16;           // "Mmm dd hh:mm:ss "
constexpr std::size_t kLargestDatagram = 1U << 20U;  // well over what the kernel lets through
constexpr std::uint64_t kLastMarker = 0;             // the others count from 1
constexpr mode_t kAnyUserMayLog = 0666;

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string RandomName() {
  std::random_device device;
  std::string name;
  for (int i = 0; i < 2; ++i) name += std::to_string(device());
  return name;
}

template <typename Number>
std::optional<Number> ParseNumber(std::string_view text) {
  Number value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

LogLine Unstructured(std::string_view raw) {
  LogLine line;
  line.facility = LOG_USER;
  line.severity = LOG_NOTICE;
  line.text = line.raw = raw;
  return line;
}

// Splits "tag[pid]: text" or "tag: text".
bool ParseTagAndText(std::string_view rest, LogLine& line) {
  const std::size_t colon = rest.find(": ");
  if (colon == std::string_view::npos) return false;
  std::string_view tag = rest.substr(0, colon);
  const std::size_t bracket = tag.rfind('[');
  if (bracket != std::string_view::npos && tag.ends_with(']')) {
    line.pid = ParseNumber<pid_t>(tag.substr(bracket + 1, tag.size() - bracket - 2)).value_or(0);
    tag = tag.substr(0, bracket);
  }
  line.tag = tag;
  line.text = rest.substr(colon + 2);
  return true;
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::invalid_argument("the name of the log socket is too long: " + path);
  }
  std::copy(path.begin(), path.end(), std::begin(address.sun_path));
  return address;
}

base::UniqueFd DatagramSocket() {
  base::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) ThrowErrno("log socket");
  return fd;
}

int ConnectTo(const base::UniqueFd& fd, const sockaddr_un& address) {
  return connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

bool NobodyReads(const sockaddr_un& address) {
  return ConnectTo(DatagramSocket(), address) != 0 && errno == ECONNREFUSED;
}

int BindTo(const base::UniqueFd& fd, const sockaddr_un& address) {
  return bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

std::string OnOneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    if (c == '\n') {
      line += "\\n";
    } else {
      line += c;
    }
  }
  return line;
}

}  // namespace

LogLine ParseLogLine(std::string_view raw) {
  const std::size_t end = raw.find('>');
  if (!raw.starts_with('<') || end == std::string_view::npos) return Unstructured(raw);
  const auto priority = ParseNumber<unsigned>(raw.substr(1, end - 1));
  const std::string_view rest = raw.substr(end + 1);
  if (!priority || *priority > (LOG_FACMASK | LOG_PRIMASK) || rest.size() < kTimestampSize) {
    return Unstructured(raw);
  }
  LogLine line;
  line.facility = static_cast<int>(*priority & LOG_FACMASK);
  line.severity = static_cast<int>(*priority & LOG_PRIMASK);
  line.raw = raw;
  return ParseTagAndText(rest.substr(kTimestampSize), line) ? line : Unstructured(raw);
}

std::string PriorityName(const LogLine& line) {
  static constexpr std::array kFacilities = {"kern", "user", "mail", "daemon", "auth",    "syslog",
                                             "lpr",  "news", "uucp", "cron",   "authpriv"};
  static constexpr std::array kSeverities = {"emerg",   "alert",  "crit", "err",
                                             "warning", "notice", "info", "debug"};
  const auto facility = static_cast<std::size_t>(line.facility) >> 3U;
  const auto severity = static_cast<std::size_t>(line.severity);
  const auto name = [](const auto& names, std::size_t index) {
    return index < names.size() ? std::string(names.at(index)) : std::to_string(index);
  };
  return name(kFacilities, facility) + "." + name(kSeverities, severity);
}

SyslogSink::SyslogSink(std::string path, Listener listener)
    : path_(std::move(path)),
      listener_(std::move(listener)),
      owner_(getpid()),
      marker_("lab marker " + RandomName() + " ") {
  Bind();
  thread_ = std::thread([this] { Drain(); });
}

SyslogSink::~SyslogSink() {
  if (getpid() != owner_) {
    thread_.detach();  // it runs in the parent only
    return;
  }
  try {
    SendMarker(kLastMarker);
    thread_.join();
    RemoveSocketFile();
    Collect();
  } catch (const std::exception& error) {  // memory ran out: a test without its log is no test
    (void)std::fprintf(stderr, "%s: %s\n", path_.c_str(), error.what());
    std::abort();
  }
}

void SyslogSink::Bind() {
  const sockaddr_un address = Address(path_);
  socket_ = DatagramSocket();
  if (BindTo(socket_, address) != 0) {
    if (errno != EADDRINUSE || !NobodyReads(address)) ThrowErrno("cannot bind " + path_);
    unlink(path_.c_str());
    if (BindTo(socket_, address) != 0) ThrowErrno("cannot bind " + path_);
  }
  sender_ = DatagramSocket();
  struct stat status {};
  if (chmod(path_.c_str(), kAnyUserMayLog) != 0 || stat(path_.c_str(), &status) != 0 ||
      ConnectTo(sender_, address) != 0) {
    ThrowErrno("cannot set up " + path_);
  }
  inode_ = status.st_ino;
}

void SyslogSink::Drain() {
  std::vector<char> buffer(kLargestDatagram);
  ssize_t size = 0;
  do {
    size = recv(socket_.get(), buffer.data(), buffer.size(), 0);
  } while ((size >= 0 && Take({buffer.data(), static_cast<std::size_t>(size)})) ||
           (size < 0 && errno == EINTR));
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

// Keeps a message or heeds a marker; false at the last one.
bool SyslogSink::Take(std::string_view datagram) {
  if (datagram.starts_with(marker_)) {
    const auto marker =
        ParseNumber<std::uint64_t>(datagram.substr(marker_.size())).value_or(kLastMarker);
    const std::lock_guard lock(mutex_);
    markers_seen_ = std::max(markers_seen_, marker);
    changed_.notify_all();
    return marker != kLastMarker;
  }
  const LogLine line = ParseLogLine(datagram);
  {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  if (listener_) listener_(line);
  return true;
}

void SyslogSink::SendMarker(std::uint64_t number) {
  const std::string datagram = marker_ + std::to_string(number);
  while (send(sender_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0) {
    if (errno != EINTR) ThrowErrno("cannot write to " + path_);
  }
}

std::uint64_t SyslogSink::SendNextMarker() {
  const std::lock_guard turn(marker_turn_);
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(mutex_);
    number = ++markers_sent_;
  }
  SendMarker(number);
  return number;
}

// Returns when everything sent before the call has been taken: the queue keeps its order.
void SyslogSink::Flush() {
  if (getpid() != owner_) throw std::logic_error("the log is read by the parent process");
  const std::uint64_t number = SendNextMarker();
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return markers_seen_ >= number || ended_; });
  if (markers_seen_ < number) throw std::runtime_error("cannot read from " + path_);
}

std::vector<LogLine> SyslogSink::Lines() {
  Flush();
  const std::lock_guard lock(mutex_);
  return {lines_.begin() + static_cast<std::ptrdiff_t>(first_), lines_.end()};
}

void SyslogSink::Clear() {
  Flush();
  const std::lock_guard lock(mutex_);
  first_ = lines_.size();
}

void SyslogSink::Collect() const {
  const char* folder = std::getenv("LAB_LOG_COLLECT");
  if (folder == nullptr || *folder == '\0' || lines_.empty()) return;
  std::ofstream file(std::string(folder) + "/" + std::to_string(owner_) + "-" + RandomName() +
                     ".log");
  for (const LogLine& line : lines_) file << OnOneLine(line.raw) << '\n';
}

void SyslogSink::RemoveSocketFile() const {
  struct stat status {};
  if (stat(path_.c_str(), &status) == 0 && status.st_ino == inode_) unlink(path_.c_str());
}

}  // namespace lab
