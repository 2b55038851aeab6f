// A program that is to be confined and does what it likes. How it starts is the name of the file
// that it was started as a link to; what it does later is the question.

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "base/channel.h"
#include "base/confinement.h"
#include "base/message.h"

namespace {

using base::kChannel;

std::string Frame(std::string_view text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  std::string frame(sizeof length, '\0');
  std::memcpy(frame.data(), &length, sizeof length);
  return frame.append(text);
}

void Say(std::string_view bytes) {
  if (send(kChannel, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) std::_Exit(EXIT_FAILURE);
}

std::string GoodWords() { return Frame(base::MessageWriter().Number(0).Number(0).Take()); }

[[noreturn]] void Wait() {
  for (;;) pause();
}

[[noreturn]] void Die() { std::_Exit(EXIT_SUCCESS); }

[[noreturn]] void TalkForEver() {
  for (;;) Say(std::string(4096, 'x'));
}

// The child, which nobody kills, has the channel too.
[[noreturn]] void LeaveChild() {
  if (fork() == 0) Wait();
  Die();
}

[[noreturn]] void HangUp() {
  (void)close(kChannel);
  Wait();
}

void Start(std::string_view character) {
  const std::string words = GoodWords();
  if (character == "silent") Wait();
  if (character == "talkative") TalkForEver();
  if (character == "dead") Die();
  if (character == "gone") HangUp();
  if (character == "parent") LeaveChild();
  if (character == "cut") Say(words.substr(0, words.size() - 1)), Wait();
  if (character == "halfway") Say(words.substr(0, words.size() - 1)), Die();
  if (character == "huge") Say("\xff\xff\xff\xff"), Wait();
  if (character == "wordy") Say(Frame(std::string(65, '\0'))), Wait();
  if (character == "brief") Say(Frame("")), Wait();
  if (character == "strange") Say(Frame(std::string(16, '\x7f'))), Wait();
  if (character == "unknown") Say(Frame(base::MessageWriter().Number(11).Number(0).Take())), Wait();
  if (character == "negative") {
    Say(Frame(base::MessageWriter().Number(-1).Number(0).Take())), Wait();
  }
  if (character == "refused") Say(Frame(base::MessageWriter().Number(10).Number(1).Take())), Wait();
  if (character == "hasty") Say(words + Frame("stale")), Wait();
  Say(words);
  if (character == "short") Die();
}

void Answer(const std::string& question) {
  if (question == "silence") Wait();
  if (question == "talk") TalkForEver();
  if (question == "death") Die();
  if (question == "hang up") HangUp();
  if (question == "child") LeaveChild();
  if (question == "cut") Say(Frame("answer").substr(0, 7)), Wait();
  if (question == "cut length") Say("\x06"), Wait();
  if (question == "halfway") Say(Frame("answer").substr(0, 7)), Die();
  if (question == "huge") Say("\xff\xff\xff\xff"), Wait();
  if (question == "long") Say(Frame(std::string(4097, 'x'))), Wait();
  if (question == "twice") Say(Frame("first") + Frame("stale")), Wait();
  if (question == "too much") Say(Frame("first") + "x"), Wait();
  if (question == "deaf") Say(Frame("first")), Wait();
  if (question == "last") Say(Frame("first")), Die();
  Say(Frame(question == "pid" ? std::to_string(getpid()) : question));
}

std::string Character(const char* program) {
  return std::filesystem::read_symlink(program).filename();
}

}  // namespace

int main(int, char** argv) {
  Start(Character(argv[0]));
  while (const auto question = base::ReceiveFrame(kChannel, 4096)) Answer(*question);
  std::_Exit(EXIT_SUCCESS);
}
