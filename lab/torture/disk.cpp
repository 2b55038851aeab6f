#include "lab/torture/disk.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <utility>

namespace torture {
namespace {

namespace fs = std::filesystem;

struct File {
  std::string written;
  std::string durable;
  mode_t mode = 0600;
  bool emptied = false;  // since it was last made durable
};

using Names = std::map<std::string, std::shared_ptr<File>>;

std::string Joined(std::string_view folder, std::string_view quoted_name) {
  return (fs::path(PathOf(folder)) / TextOf(quoted_name)).lexically_normal();
}

mode_t ModeIn(const std::string& octal) {
  return static_cast<mode_t>(std::stoul(octal, nullptr, 8));
}

class Disk {
 public:
  Disk(std::set<std::string> folders, const Files& start) : folders_(std::move(folders)) {
    for (const auto& [path, copy] : start) {
      names_[path] = std::make_shared<File>(File{copy.text, copy.text, copy.mode});
    }
    durable_names_ = names_;
  }

  void Apply(const TracedCall& call);

  const Names& names() const { return names_; }
  const Names& durable_names() const { return durable_names_; }

 private:
  using Arguments = std::vector<std::string>;

  bool Watched(const std::string& path) const {
    return folders_.contains(fs::path(path).parent_path());
  }

  bool ChangesData(const TracedCall& call, const Arguments& arguments);
  bool ChangesNames(const TracedCall& call, const Arguments& arguments);
  void RefuseWatched(const TracedCall& call, const Arguments& arguments) const;
  void Open(const std::string& path, const Arguments& arguments, std::size_t flags);
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

void Disk::Open(const std::string& path, const Arguments& arguments, std::size_t flags) {
  if (!Watched(path)) return;
  const std::string& how = arguments.at(flags);
  if (At(path) == nullptr && how.find("O_CREAT") != std::string::npos) {
    names_[path] = std::make_shared<File>(File{"", "", ModeIn(arguments.at(flags + 1))});
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
  if (!folders_.contains(path)) return;
  const auto inside = [&](const auto& entry) {
    return fs::path(entry.first).parent_path() == path;
  };
  std::erase_if(durable_names_, inside);
  for (const auto& entry : names_) {
    if (inside(entry)) durable_names_.insert(entry);
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

bool Disk::ChangesData(const TracedCall& call, const Arguments& arguments) {
  if (call.name == "openat") {
    Open(Joined(arguments.at(0), arguments.at(1)), arguments, 2);
  } else if (call.name == "open") {
    Open(TextOf(arguments.at(0)), arguments, 1);
  } else if (call.name == "write") {
    if (File* file = At(PathOf(arguments.at(0)))) {
      file->written += TextOf(arguments.at(1)).substr(0, std::stoul(call.result));
    }
  } else if (call.name == "fsync" || call.name == "fdatasync") {
    Sync(PathOf(arguments.at(0)));
  } else if (call.name == "fchmod" || call.name == "chmod") {
    const std::string& which = arguments.at(0);
    if (File* file = At(call.name == "chmod" ? TextOf(which) : PathOf(which))) {
      file->mode = ModeIn(arguments.at(1));
    }
  } else {
    return false;
  }
  return true;
}

bool Disk::ChangesNames(const TracedCall& call, const Arguments& arguments) {
  if (call.name == "rename") {
    Rename(TextOf(arguments.at(0)), TextOf(arguments.at(1)));
  } else if (call.name == "renameat" || call.name == "renameat2") {
    Rename(Joined(arguments.at(0), arguments.at(1)), Joined(arguments.at(2), arguments.at(3)));
  } else if (call.name == "unlink") {
    names_.erase(TextOf(arguments.at(0)));
  } else if (call.name == "unlinkat") {
    names_.erase(Joined(arguments.at(0), arguments.at(1)));
  } else {
    return false;
  }
  return true;
}

void Disk::RefuseWatched(const TracedCall& call, const Arguments& arguments) const {
  for (const std::string& argument : arguments) {
    if (Watched(argument.starts_with('"') ? TextOf(argument) : PathOf(argument))) {
      throw std::runtime_error("cannot replay " + call.text.substr(0, 160));
    }
  }
}

void Disk::Apply(const TracedCall& call) {
  const bool failed = call.result.starts_with('-');
  const bool maps_a_copy = call.name == "mmap" && !call.Contains("MAP_SHARED");
  if (failed || maps_a_copy) return;
  const Arguments arguments = ArgumentsOf(call);
  if (!ChangesData(call, arguments) && !ChangesNames(call, arguments)) {
    RefuseWatched(call, arguments);
  }
}

// --- The states. ---

enum class Ahead { kNothing, kNames };

class States {
 public:
  void Note(const Disk& disk, const std::string& at) {
    Add(disk.durable_names(), Ahead::kNothing, at);
    Add(disk.names(), Ahead::kNames, at);
  }
  std::vector<DiskState> Take() { return std::move(states_); }

 private:
  void Add(const Names& names, Ahead ahead, const std::string& at) {
    std::map<std::string, std::string> texts;
    Files files;
    for (const auto& [path, file] : names) {
      const bool cut = ahead == Ahead::kNames && file->emptied;
      texts[path] = cut ? "" : file->durable;
      files[path] = {texts[path], file->mode};
    }
    if (!seen_.insert(std::move(texts)).second) return;
    std::string number = std::to_string(seen_.size());
    number.insert(0, 3 - std::min<std::size_t>(3, number.size()), '0');
    states_.push_back({number + (ahead == Ahead::kNames ? "-names" : "-strict"), at.substr(0, 160),
                       std::move(files)});
  }

  std::set<std::map<std::string, std::string>> seen_;
  std::vector<DiskState> states_;
};

std::vector<std::string> WhatIsNotDurable(const Disk& disk) {
  std::vector<std::string> files;
  for (const auto& [path, file] : disk.names()) {
    const auto durable = disk.durable_names().find(path);
    if (durable == disk.durable_names().end() || durable->second != file ||
        file->durable != file->written) {
      files.push_back(path + " may be lost");
    }
  }
  for (const auto& [path, file] : disk.durable_names()) {
    if (!disk.names().contains(path)) files.push_back(path + " may come back");
  }
  return files;
}

}  // namespace

PowerLoss CutPower(const Trace& trace, const Files& start, const std::set<std::string>& folders) {
  std::vector<TracedCall> calls;
  std::copy_if(trace.calls.begin(), trace.calls.end(), std::back_inserter(calls),
               [](const TracedCall& call) { return call.ended(); });
  std::sort(calls.begin(), calls.end(),
            [](const auto& one, const auto& other) { return one.end_line < other.end_line; });
  Disk disk(folders, start);
  States states;
  states.Note(disk, "the start");
  for (const TracedCall& call : calls) {
    disk.Apply(call);
    states.Note(disk, call.text);
  }
  return {states.Take(), WhatIsNotDurable(disk)};
}

}  // namespace torture
