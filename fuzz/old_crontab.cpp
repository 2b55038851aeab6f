// Taking a command out of the older schedule. Input: the command, the text of the file.
#include <algorithm>

#include "fuzz/property.h"
#include "kivo/crond.h"
#include "lab/files.h"

namespace {

constexpr char kPath[] = "/etc/crontab";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size() - 1) + 1;
    lines.push_back(text.substr(start, end - start));
    start = end;
  }
  return lines;
}

// `kept` is `all` without some of the lines that hold `command`.
void CheckKept(const std::string& all, const std::string& kept, const std::string& command) {
  const std::vector<std::string> kept_lines = Lines(kept);
  auto next = kept_lines.begin();
  for (const std::string& line : Lines(all)) {
    if (next != kept_lines.end() && *next == line) {
      ++next;
    } else {
      fuzz::Check(line.find(command) != std::string::npos, "only lines of the command go");
      fuzz::Check(line.find('#') != line.find_first_not_of(" \t"), "comments stay");
    }
  }
  fuzz::Check(next == kept_lines.end(), "nothing is added");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parts = fuzz::Parts(data, size, 2);
  const std::string& command = parts[0];
  const std::string& text = parts[1];
  test_files::Write(kPath, text);
  if (KIVOScheduleRemove(command.c_str()) < 0) {
    fuzz::Check(command.empty(), "only no command is an error");
    return 0;
  }
  const std::string kept = test_files::Read(kPath);
  CheckKept(text, kept, command);
  fuzz::Check(KIVOScheduleRemove(command.c_str()) == 0 && test_files::Read(kPath) == kept,
              "a second time changes nothing");
  return 0;
}
