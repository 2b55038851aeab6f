// Compares what all tests together made the program log with the list of its log formats.
//
//   log_formats_test LIST
//
// The environment variable LAB_LOG_COLLECT names the folder where the tests left the log lines
// (lab/syslog_sink.h). Exit status 77 says that there is none.

#include <regex.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "lab/syslog_sink.h"

namespace {

constexpr int kSkipped = 77;
constexpr int kWrongUsage = 2;

// A log line of the program: "FILE:LINE MESSAGE" at a priority.
struct Message {
  std::string priority;
  std::string file;
  std::string line;
  std::string text;
};

// POSIX expressions: unlike std::regex they do not recurse, and log lines may be long.
class Pattern {
 public:
  explicit Pattern(const std::string& expression) {
    if (regcomp(&compiled_, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
      throw std::runtime_error("no expression: " + expression);
    }
  }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;
  ~Pattern() { regfree(&compiled_); }

  bool Matches(const std::string& text) const {
    return regexec(&compiled_, text.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  regex_t compiled_{};
};

// What the printf conversion that begins at `format[start]` prints; `start` moves behind it.
std::string ConversionExpression(std::string_view format, std::size_t& start) {
  const std::size_t end = format.find_first_of("sdimuxX%", start + 1);
  if (end == std::string_view::npos) {
    throw std::runtime_error("unknown conversion in: " + std::string(format));
  }
  start = end + 1;
  switch (format[end]) {
    case 'd':
    case 'i': return "-?[0-9]+";
    case 'u': return "[0-9]+";
    case 'x': return "[0-9a-f]+";
    case 'X': return "[0-9A-F]+";
    case '%': return "%";
    default: return ".*";
  }
}

std::string Literal(char c) {
  return std::string_view("\\^$.[]|()*+?{}").find(c) == std::string_view::npos
             ? std::string(1, c)
             : std::string("\\") + c;
}

std::string Expression(std::string_view format) {
  std::string expression = "^";
  for (std::size_t index = 0; index < format.size();) {
    if (format[index] == '%') {
      expression += ConversionExpression(format, index);
    } else {
      expression += Literal(format[index++]);
    }
  }
  return expression + "$";
}

// One row of the list.
class Format {
 public:
  explicit Format(const std::string& row) : row_(row) {
    std::istringstream columns(row);
    std::string format;
    if (!(columns >> priority_ >> file_ >> line_) || !std::getline(columns >> std::ws, format)) {
      throw std::runtime_error("not four columns: " + row);
    }
    pattern_ = std::make_unique<Pattern>(Expression(format));
  }

  const std::string& row() const { return row_; }
  const std::string& file() const { return file_; }
  bool seen() const { return seen_; }

  // Notes that it was seen, if it is this one.
  bool Accepts(const Message& message) {
    const bool accepted = message.file == file_ && message.priority == priority_ &&
                          (line_ == "*" || message.line == line_) &&
                          pattern_->Matches(message.text);
    seen_ = seen_ || accepted;
    return accepted;
  }

 private:
  std::string row_;
  std::string priority_;
  std::string file_;
  std::string line_;
  std::unique_ptr<Pattern> pattern_;
  bool seen_ = false;
};

std::vector<Format> ReadList(const std::string& path) {
  std::ifstream list(path);
  std::vector<Format> formats;
  std::string row;
  while (std::getline(list, row)) {
    if (!row.empty() && row.front() != '#') formats.emplace_back(row);
  }
  if (formats.empty()) throw std::runtime_error("no formats in " + path);
  return formats;
}

// Empty file and line when the line is not one of the program's.
Message ParseMessage(const std::string& raw) {
  const lab::LogLine line = lab::ParseLogLine(raw);
  const std::size_t space = line.text.find(' ');
  const std::size_t colon = line.text.rfind(':', space);
  if (space == std::string::npos || colon == std::string::npos) return {};
  return {lab::PriorityName(line), line.text.substr(0, colon),
          line.text.substr(colon + 1, space - colon - 1), line.text.substr(space + 1)};
}

class Comparison {
 public:
  explicit Comparison(std::vector<Format> formats) : formats_(std::move(formats)) {
    for (const Format& format : formats_) files_.insert(format.file());
  }

  void Take(const std::string& raw) {
    const Message message = ParseMessage(raw);
    if (!files_.contains(message.file)) return;
    ++taken_;
    bool listed = false;
    for (Format& format : formats_) {  // all of them: one line may fit two rows
      listed = format.Accepts(message) || listed;
    }
    if (!listed) {
      constexpr std::size_t kShown = 200;
      unlisted_.insert(message.priority + "  " + message.file + "  " + message.line + "  " +
                       message.text.substr(0, kShown));
    }
  }

  // Prints what is wrong; false when something is. In an ordinary user's lab, which has no other
  // users, some failures cannot be made.
  bool Report() const {
    std::cout << taken_ << " log lines\n";
    bool good = true;
    for (const Format& format : formats_) {
      if (!format.seen()) {
        std::cout << "never logged: " << format.row() << '\n';
        good = good && geteuid() != 0;
      }
    }
    for (const std::string& line : unlisted_) {
      std::cout << "not in the list: " << line << '\n';
      good = false;
    }
    return good;
  }

 private:
  std::vector<Format> formats_;
  std::set<std::string> files_;
  std::set<std::string> unlisted_;
  std::size_t taken_ = 0;
};

int Compare(const std::string& list, const std::string& folder) {
  Comparison comparison(ReadList(list));
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path());
    std::string raw;
    while (std::getline(file, raw)) comparison.Take(raw);
  }
  return comparison.Report() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: log_formats_test LIST\n";
    return kWrongUsage;
  }
  const char* folder = std::getenv("LAB_LOG_COLLECT");
  if (folder == nullptr || *folder == '\0') {
    std::cout << "skipped: LAB_LOG_COLLECT names no folder of collected log lines\n";
    return kSkipped;
  }
  try {
    return Compare(argv[1], folder);
  } catch (const std::exception& error) {
    std::cerr << "log_formats_test: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
