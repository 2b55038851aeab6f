// Replays what strace recorded of a program's file calls and writes down what a power failure could
// have left at each moment:
//
//   power_loss TRACE START OUT FOLDER...
//
// FOLDERs are the ones whose files count, START holds these files as they were before, under their
// own paths, and taken for durable. For each state that differs from all before, OUT gets a folder:
//
//   NNN-strict  only what was made durable: data by fsync of the file, names by fsync of the folder
//   NNN-names   names (and cuts) ahead of data: every name as it was, and under it the durable data
//   only
//
// and a file NNN-*.at that names the call before. Printed is each file that is not durable at the
// end. Exit status 1 when the record has a call that this model does not know.
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Call {
  std::string text;
  std::string name;
  std::vector<std::string> arguments;
  std::string result;
};

struct File {
  std::string written;
  std::string durable;
  unsigned mode = 0600;
  bool emptied = false;  // since it was last made durable
};

using Names = std::map<std::string, std::shared_ptr<File>>;

// --- Reading the record. ---

std::string Unescaped(std::string_view text) {
  static const std::map<char, char> kLetters = {
      {'n', '\n'}, {'t', '\t'}, {'r', '\r'}, {'v', '\v'}, {'f', '\f'}};
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      plain += text[i];
      continue;
    }
    const char next = text[++i];
    const auto letter = kLetters.find(next);
    if (letter != kLetters.end()) {
      plain += letter->second;
    } else if (next >= '0' && next <= '7') {
      unsigned value = 0;
      const char* begin = text.data() + i;
      const auto end =
          std::from_chars(begin, begin + std::min<std::size_t>(3, text.size() - i), value, 8);
      plain += static_cast<char>(value);
      i += static_cast<std::size_t>(end.ptr - begin) - 1;
    } else {
      plain += next;
    }
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

// "write(5</a/b>, "text", 4) = 4"
Call ParseCall(const std::string& text) {
  const std::size_t open = text.find('(');
  Call call{text.substr(0, 160), text.substr(0, open), {}, ""};
  std::string_view rest = std::string_view(text).substr(open + 1);
  while (!rest.starts_with(')')) {
    const std::size_t length = ArgumentLength(rest);
    call.arguments.emplace_back(rest.substr(0, length));
    rest.remove_prefix(rest[length] == ',' ? length + 2 : length);
  }
  const std::size_t result = rest.find("= ");
  if (result != std::string_view::npos) {
    call.result = rest.substr(result + 2);
  }
  return call;
}

// A call during which another process was seen stands in two lines.
std::vector<Call> ReadTrace(const std::string& path) {
  constexpr std::string_view kUnfinished = " <unfinished ...>";
  constexpr std::string_view kResumed = " resumed>";
  std::ifstream file(path);
  std::map<std::string, std::string> begun;
  std::vector<Call> calls;
  for (std::string line; std::getline(file, line);) {
    const std::size_t space = line.find(' ');
    const std::string process = line.substr(0, space);
    std::string text = line.substr(line.find_first_not_of(' ', space));
    if (text.ends_with(kUnfinished)) {
      begun[process] = text.substr(0, text.size() - kUnfinished.size());
      continue;
    }
    if (text.starts_with("<... ")) {
      text = begun[process] + text.substr(text.find(kResumed) + kResumed.size());
    }
    if (std::isalpha(static_cast<unsigned char>(text.front())) != 0 && !text.ends_with('?')) {
      calls.push_back(ParseCall(text));
    }
  }
  return calls;
}

// The path of a descriptor, "5</a/b>" or "AT_FDCWD</a>".
std::string PathOf(std::string_view descriptor) {
  const std::size_t begin = descriptor.find('<');
  const std::size_t end = descriptor.rfind('>');
  return begin == std::string_view::npos ? ""
                                         : Unescaped(descriptor.substr(begin + 1, end - begin - 1));
}

std::string TextOf(std::string_view quoted) {
  if (!quoted.starts_with('"') || !quoted.ends_with('"')) {
    throw std::runtime_error("not a whole text: " + std::string(quoted.substr(0, 80)));
  }
  return Unescaped(quoted.substr(1, quoted.size() - 2));
}

std::string Joined(std::string_view folder, std::string_view quoted_name) {
  return (fs::path(PathOf(folder)) / TextOf(quoted_name)).lexically_normal();
}

// --- The disk. ---

class Disk {
 public:
  Disk(std::set<std::string> folders, const fs::path& start) : folders_(std::move(folders)) {
    for (const std::string& folder : folders_) {
      for (const auto& entry : fs::directory_iterator(start.string() + folder)) {
        if (entry.is_regular_file()) {
          Load(entry.path(), folder + "/" + entry.path().filename().string());
        }
      }
    }
    durable_names_ = names_;
  }

  void Apply(const Call& call);

  const Names& names() const { return names_; }
  const Names& durable_names() const { return durable_names_; }

 private:
  void Load(const fs::path& from, const std::string& path) {
    std::ifstream file(from, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const auto mode = static_cast<unsigned>(fs::status(from).permissions());
    names_[path] = std::make_shared<File>(File{text, text, mode});
  }

  bool Watched(const std::string& path) const {
    return folders_.contains(fs::path(path).parent_path());
  }

  bool ChangesData(const Call& call);
  bool ChangesNames(const Call& call);
  void RefuseWatched(const Call& call) const;
  void Open(const std::string& path, const Call& call, std::size_t flags);
  void Sync(const std::string& path);
  void Rename(const std::string& from, const std::string& to);
  File* At(const std::string& path) const {
    const auto found = names_.find(path);
    return found == names_.end() ? nullptr : found->second.get();
  }

  std::set<std::string> folders_;
  Names names_;
  Names durable_names_;
};

void Disk::Open(const std::string& path, const Call& call, std::size_t flags) {
  if (!Watched(path)) {
    return;
  }
  const std::string& how = call.arguments[flags];
  if (At(path) == nullptr && how.find("O_CREAT") != std::string::npos) {
    const unsigned mode = static_cast<unsigned>(std::stoul(call.arguments[flags + 1], nullptr, 8));
    names_[path] = std::make_shared<File>(File{"", "", mode});
  }
  if (File* file = At(path); file != nullptr && how.find("O_TRUNC") != std::string::npos) {
    file->written.clear();
    file->emptied = true;
  }
}

// All of a file's data, or all of a folder's names.
void Disk::Sync(const std::string& path) {
  if (File* file = At(path)) {
    file->durable = file->written;
    file->emptied = false;
  }
  if (!folders_.contains(path)) {
    return;
  }
  const auto inside = [&](const auto& entry) {
    return fs::path(entry.first).parent_path() == path;
  };
  std::erase_if(durable_names_, inside);
  for (const auto& entry : names_) {
    if (inside(entry)) {
      durable_names_.insert(entry);
    }
  }
}

void Disk::Rename(const std::string& from, const std::string& to) {
  if (Watched(from) != Watched(to)) {
    throw std::runtime_error("renamed across folders: " + from + " to " + to);
  }
  if (At(from) != nullptr) {
    names_[to] = names_[from];
    names_.erase(from);
  }
}

bool Disk::ChangesData(const Call& call) {
  const std::vector<std::string>& arguments = call.arguments;
  if (call.name == "openat") {
    Open(Joined(arguments[0], arguments[1]), call, 2);
  } else if (call.name == "open") {
    Open(TextOf(arguments[0]), call, 1);
  } else if (call.name == "write") {
    if (File* file = At(PathOf(arguments[0]))) {
      file->written += TextOf(arguments[1]).substr(0, std::stoul(call.result));
    }
  } else if (call.name == "fsync" || call.name == "fdatasync") {
    Sync(PathOf(arguments[0]));
  } else if (call.name == "fchmod" || call.name == "chmod") {
    if (File* file = At(call.name == "chmod" ? TextOf(arguments[0]) : PathOf(arguments[0]))) {
      file->mode = static_cast<unsigned>(std::stoul(arguments[1], nullptr, 8));
    }
  } else {
    return false;
  }
  return true;
}

bool Disk::ChangesNames(const Call& call) {
  const std::vector<std::string>& arguments = call.arguments;
  if (call.name == "rename") {
    Rename(TextOf(arguments[0]), TextOf(arguments[1]));
  } else if (call.name == "renameat" || call.name == "renameat2") {
    Rename(Joined(arguments[0], arguments[1]), Joined(arguments[2], arguments[3]));
  } else if (call.name == "unlink") {
    names_.erase(TextOf(arguments[0]));
  } else if (call.name == "unlinkat") {
    names_.erase(Joined(arguments[0], arguments[1]));
  } else {
    return false;
  }
  return true;
}

void Disk::RefuseWatched(const Call& call) const {
  for (const std::string& argument : call.arguments) {
    if (Watched(argument.starts_with('"') ? TextOf(argument) : PathOf(argument))) {
      throw std::runtime_error("cannot replay " + call.text);
    }
  }
}

void Disk::Apply(const Call& call) {
  const bool failed = call.result.starts_with('-');
  const bool maps_a_copy = call.name == "mmap" && call.text.find("MAP_SHARED") == std::string::npos;
  if (!failed && !maps_a_copy && !ChangesData(call) && !ChangesNames(call)) {
    RefuseWatched(call);
  }
}

// --- The states. ---

class States {
 public:
  explicit States(fs::path out) : out_(std::move(out)) {}

  void Note(const Disk& disk, const std::string& at) {
    Write(disk.durable_names(), Ahead::kNothing, at);
    Write(disk.names(), Ahead::kNames, at);
  }

 private:
  enum class Ahead { kNothing, kNames };

  void Write(const Names& names, Ahead ahead, const std::string& at) {
    std::map<std::string, std::string> state;
    for (const auto& [path, file] : names) {
      state[path] = ahead == Ahead::kNames && file->emptied ? "" : file->durable;
    }
    if (!seen_.insert(state).second) {
      return;
    }
    std::string number = std::to_string(seen_.size());
    number.insert(0, 3 - std::min<std::size_t>(3, number.size()), '0');
    const std::string folder = out_ / (number + (ahead == Ahead::kNames ? "-names" : "-strict"));
    fs::create_directories(folder);
    std::ofstream(folder + ".at") << at << '\n';
    for (const auto& [path, file] : names) {
      const fs::path copy = folder + path;
      fs::create_directories(copy.parent_path());
      std::ofstream(copy, std::ios::binary) << state[path];
      fs::permissions(copy, static_cast<fs::perms>(file->mode));
    }
  }

  fs::path out_;
  std::set<std::map<std::string, std::string>> seen_;
};

void PrintWhatIsNotDurable(const Disk& disk) {
  for (const auto& [path, file] : disk.names()) {
    const auto durable = disk.durable_names().find(path);
    if (durable == disk.durable_names().end() || durable->second != file ||
        file->durable != file->written) {
      std::cout << path << " may be lost\n";
    }
  }
  for (const auto& [path, file] : disk.durable_names()) {
    if (!disk.names().contains(path)) {
      std::cout << path << " may come back\n";
    }
  }
}

void Replay(const std::vector<std::string>& arguments) {
  Disk disk({arguments.begin() + 4, arguments.end()}, arguments[2]);
  States states(arguments[3]);
  states.Note(disk, "the start");
  for (const Call& call : ReadTrace(arguments[1])) {
    disk.Apply(call);
    states.Note(disk, call.text);
  }
  PrintWhatIsNotDurable(disk);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv, argv + argc);
  if (arguments.size() < 5) {
    std::cerr << "Usage: power_loss TRACE START OUT FOLDER...\n";
    return 2;
  }
  try {
    Replay(arguments);
  } catch (const std::exception& failure) {
    std::cerr << "power_loss: " << failure.what() << '\n';
    return 1;
  }
  return 0;
}
