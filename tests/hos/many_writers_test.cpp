// Many processes that each write keys of one file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "klibc/keyvalue.h"
#include "lab/files.h"

namespace {

constexpr char kFile[] = "/usr/kivo/etc/veltrix-account/private/user.conf";
constexpr int kWriters = 64;
constexpr int kKeys = 16;  // of each

std::string Key(int writer, int number) {
  return "key_" + std::to_string(writer) + "_" + std::to_string(number);
}

bool WriteAll(int writer) {
  bool written = true;
  for (int number = 0; number < kKeys; ++number) {
    written =
        KLIBCFileSetKeyValue(kFile, Key(writer, number).c_str(), "here", "%s=\"%s\"\n") >= 0 &&
        written;
  }
  return written;
}

// A process that writes its keys as soon as the gate is shut, and ends with 0 when that went well.
pid_t StartWriter(const std::array<int, 2>& gate, int number) {
  const pid_t writer = fork();
  if (writer != 0) return writer;
  close(gate[1]);
  char byte = '\0';
  (void)!read(gate[0], &byte, 1);
  _exit(WriteAll(number) ? 0 : 1);
}

void ExpectSuccess(pid_t writer) {
  int status = -1;
  ASSERT_EQ(waitpid(writer, &status, 0), writer);
  EXPECT_EQ(status, 0);
}

TEST(ManyWriters, EachKeepsItsKeys) {
  test_files::Write(kFile, "# kept\nzomiID=\"anna@example.org\"\n", 0600);
  std::array<int, 2> gate{};
  ASSERT_EQ(pipe(gate.data()), 0);
  std::vector<pid_t> writers;
  writers.reserve(kWriters);
  for (int number = 0; number < kWriters; ++number) writers.push_back(StartWriter(gate, number));
  close(gate[1]);
  close(gate[0]);
  for (const pid_t writer : writers) ExpectSuccess(writer);
  const std::string text = test_files::Read(kFile);
  EXPECT_EQ(text.find("# kept\nzomiID=\"anna@example.org\"\n"), 0U);
  for (int writer = 0; writer < kWriters; ++writer) {
    for (int number = 0; number < kKeys; ++number) {
      EXPECT_NE(text.find("\n" + Key(writer, number) + "=\"here\"\n"), std::string::npos);
    }
  }
  EXPECT_EQ(test_files::ModeOf(kFile), 0600U);
}

}  // namespace
