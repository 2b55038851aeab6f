#include "lab/torture/trace.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <map>
#include <stdexcept>

namespace torture {
namespace {

constexpr std::string_view kUnfinished = " <unfinished ...>";
constexpr std::string_view kResumed = " resumed>";

// What follows a backslash at `text[i]`, which moves on to the last letter of it.
char Unescaped(std::string_view text, std::size_t& i) {
  static const std::map<char, char> kLetters = {
      {'n', '\n'}, {'t', '\t'}, {'r', '\r'}, {'v', '\v'}, {'f', '\f'}};
  const auto letter = kLetters.find(text[i]);
  if (letter != kLetters.end()) return letter->second;
  if (text[i] < '0' || text[i] > '7') return text[i];
  unsigned value = 0;
  const char* begin = text.data() + i;
  const auto end =
      std::from_chars(begin, begin + std::min<std::size_t>(3, text.size() - i), value, 8);
  i += static_cast<std::size_t>(end.ptr - begin) - 1;
  return static_cast<char>(value);
}

std::string Unescaped(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escaped = text[i] == '\\' && i + 1 < text.size();
    plain += escaped ? Unescaped(text, ++i) : text[i];
  }
  return plain;
}

// The length of the argument that `text` begins with; texts are quoted and paths stand in <>.
std::size_t ArgumentLength(std::string_view text) {
  bool quoted = false;
  int depth = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted && c == '\\') {
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && (c == '<' || c == '[' || c == '{' || c == '(')) {
      ++depth;
    } else if (!quoted && depth > 0 && (c == '>' || c == ']' || c == '}' || c == ')')) {
      --depth;
    } else if (!quoted && depth == 0 && (c == ',' || c == ')')) {
      return i;
    }
  }
  throw std::runtime_error("cut off: " + std::string(text.substr(0, 80)));
}

void SetEnd(std::size_t line, TracedCall& call) {
  call.end_line = line;
  const std::size_t equals = call.text.rfind(" = ");  // the reason of a failure has no such sign
  if (equals != std::string::npos) call.result = call.text.substr(equals + 3);
  call.injected = call.text.ends_with("(INJECTED)");
}

class Reader {
 public:
  Trace Read(std::ifstream& file) {
    for (std::string line; std::getline(file, line);) {
      ++line_;
      const std::size_t space = line.find(' ');
      if (space == std::string::npos) continue;
      Take(static_cast<pid_t>(std::stol(line)), line.substr(line.find_first_not_of(' ', space)));
    }
    return std::move(trace_);
  }

 private:
  void Take(pid_t process, const std::string& text) {
    if (text.starts_with("+++ killed by SIGKILL")) trace_.killed = true;
    if (text.starts_with("<... ")) {
      Resume(process, text);
    } else if (std::isalpha(static_cast<unsigned char>(text.front())) != 0) {
      Begin(process, text);
    }
  }

  // A call during which another process was seen stands in two lines.
  void Begin(pid_t process, const std::string& text) {
    TracedCall call{.process = process, .name = text.substr(0, text.find('(')), .text = text};
    if (text.ends_with(kUnfinished)) {
      call.text.resize(text.size() - kUnfinished.size());
      begun_[process] = trace_.calls.size();
    } else {
      SetEnd(line_, call);
    }
    trace_.calls.push_back(std::move(call));
  }

  void Resume(pid_t process, const std::string& text) {
    const auto begun = begun_.find(process);
    const std::size_t rest = text.find(kResumed);
    if (begun == begun_.end() || rest == std::string::npos) return;
    TracedCall& call = trace_.calls[begun->second];
    call.text += text.substr(rest + kResumed.size());
    SetEnd(line_, call);
    begun_.erase(begun);
  }

  Trace trace_;
  std::map<pid_t, std::size_t> begun_;
  std::size_t line_ = 0;
};

}  // namespace

Trace ReadTrace(const std::string& path) {
  std::ifstream file(path);
  return Reader().Read(file);
}

std::vector<std::string> ArgumentsOf(const TracedCall& call) {
  std::vector<std::string> arguments;
  std::string_view rest = std::string_view(call.text).substr(call.name.size() + 1);
  while (!rest.starts_with(')')) {
    const std::size_t length = ArgumentLength(rest);
    arguments.emplace_back(rest.substr(0, length));
    rest.remove_prefix(rest[length] == ',' ? length + 2 : length);
  }
  return arguments;
}

std::string PathOf(std::string_view descriptor) {
  const std::size_t begin = descriptor.find('<');
  const std::size_t end = descriptor.rfind('>');
  return begin == std::string_view::npos ? ""
                                         : Unescaped(descriptor.substr(begin + 1, end - begin - 1));
}

std::string TextOf(std::string_view quoted) {
  if (quoted.size() < 2 || !quoted.starts_with('"') || !quoted.ends_with('"')) {
    throw std::runtime_error("not a whole text: " + std::string(quoted.substr(0, 80)));
  }
  return Unescaped(quoted.substr(1, quoted.size() - 2));
}

}  // namespace torture
