#include "base/confined_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ostream>
#include <string>

#include "base/confinement.h"
#include "lab/files.h"
#include "tests/support/child.h"

namespace {

using std::chrono::milliseconds;
using testing::StartsWith;

constexpr char kHostile[] = HOSTILE_PROGRAM;  // hostile_program.cpp
constexpr char kProgram[] = "/usr/kivo/lib/program";
constexpr std::size_t kLongest = 4096;
constexpr milliseconds kEver{60'000};  // for what must come to an end by itself
constexpr milliseconds kSoon{200};     // for what does not

constexpr char kTimedOut[] = "no answer: Connection timed out";
constexpr char kEnded[] = "no answer: Broken pipe";
constexpr char kTooLong[] = "no answer: Message too long";

// Running or not yet waited for.
bool HasChildren() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

class ConfinedProgramTest : public testing::Test {
 protected:
  ConfinedProgramTest() { Become("good"); }
  ~ConfinedProgramTest() override {
    program_.Stop();
    EXPECT_FALSE(HasChildren());
  }

  // The next program that is started is of this character.
  static void Become(const std::string& character) {
    const std::string file = "/usr/kivo/lib/" + character;
    for (const std::string& link : {file, std::string(kProgram)}) test_files::Remove(link);
    ASSERT_EQ(symlink(kHostile, file.c_str()), 0);
    ASSERT_EQ(symlink(file.c_str(), kProgram), 0);
  }

  // The answer, or why there is none.
  std::string Ask(const std::string& question, milliseconds limit = kEver) {
    std::string why;
    const auto answer = program_.Ask(question, kLongest, limit, why);
    EXPECT_EQ(answer.has_value(), why.empty());
    EXPECT_TRUE(answer || !HasChildren()) << "it still runs, or was not waited for";
    return answer ? "answer: " + *answer : why;
  }

  void ExpectGood() { EXPECT_EQ(Ask("good?"), "answer: good?"); }

  base::ConfinedProgram program_{kProgram};
};

TEST_F(ConfinedProgramTest, AnswersOneQuestionAfterTheOther) {
  const std::string pid = Ask("pid");
  EXPECT_EQ(Ask("one"), "answer: one");
  EXPECT_EQ(Ask(""), "answer: ");
  EXPECT_EQ(Ask(std::string(kLongest, 'x')), "answer: " + std::string(kLongest, 'x'));
  EXPECT_EQ(Ask("pid"), pid);
}

TEST_F(ConfinedProgramTest, IsNotStartedBeforeItIsAsked) { EXPECT_FALSE(HasChildren()); }

TEST_F(ConfinedProgramTest, EndsWithTheObject) {
  {
    std::string why;
    base::ConfinedProgram program(kProgram);
    EXPECT_TRUE(program.Ask("x", kLongest, kEver, why));
    EXPECT_TRUE(HasChildren());
  }
  EXPECT_FALSE(HasChildren());
}

TEST_F(ConfinedProgramTest, StartsAnewAfterAStop) {
  const std::string pid = Ask("pid");
  program_.Stop();
  EXPECT_FALSE(HasChildren());
  EXPECT_NE(Ask("pid"), pid);
}

// --- From the start. ---

struct Start {
  const char* character;
  milliseconds limit;
  const char* why;
};

void PrintTo(const Start& start, std::ostream* out) { *out << start.character; }

class BadStart : public ConfinedProgramTest, public testing::WithParamInterface<Start> {};

TEST_P(BadStart, IsNoAnswer) {
  Become(GetParam().character);
  EXPECT_EQ(Ask("question", GetParam().limit), GetParam().why);
  Become("good");
  ExpectGood();
}

INSTANTIATE_TEST_SUITE_P(
    Of, BadStart,
    testing::Values(Start{"silent", kSoon, "it did not start: Connection timed out"},
                    Start{"cut", kSoon, "it did not start: Connection timed out"},
                    Start{"talkative", kEver, "it did not start: Message too long"},
                    Start{"huge", kEver, "it did not start: Message too long"},
                    Start{"wordy", kEver, "it did not start: Message too long"},
                    Start{"dead", kEver, "it did not start: Broken pipe"},
                    Start{"gone", kEver, "it did not start: Broken pipe"},
                    Start{"parent", kEver, "it did not start: Broken pipe"},
                    Start{"halfway", kEver, "it did not start: Broken pipe"},
                    Start{"brief", kEver, "it began with other words"},
                    Start{"strange", kEver, "it began with other words"},
                    Start{"unknown", kEver, "it began with other words"},
                    Start{"negative", kEver, "it began with other words"},
                    Start{"refused", kEver,
                          "failed to give up its system calls: Operation not permitted"},
                    Start{"hasty", kEver, "it spoke without being asked"}),
    [](const auto& start) { return start.param.character; });

// Whether the question still finds it is a matter of chance.
TEST_F(ConfinedProgramTest, IsNoAnswerOfAProgramThatDiesAfterItsFirstWords) {
  Become("short");
  EXPECT_THAT(Ask("question"), StartsWith("no answer: "));
  Become("good");
  ExpectGood();
}

TEST_F(ConfinedProgramTest, SaysWhyItCannotBeStarted) {
  test_files::Remove(kProgram);
  EXPECT_EQ(Ask("x"), "failed to start: No such file or directory");
  test_files::Write(kProgram, "text", 0644);
  EXPECT_EQ(Ask("x"), "failed to start: Permission denied");
  test_files::Write(kProgram, "text", 0755);
  EXPECT_EQ(Ask("x"), "failed to start: Exec format error");
  test_files::Remove(kProgram);
  test_files::MakeFolder(kProgram);
  EXPECT_EQ(Ask("x"), "failed to start: Permission denied");
  Become("good");
  ExpectGood();
}

// As by a damaged /dev.
TEST_F(ConfinedProgramTest, SaysThatItsStreamsWouldLeadSomewhere) {
  const std::string why = RunInChild([this] {
    test_files::Write("/tmp/nobodys", "", 0);
    EXPECT_EQ(unshare(CLONE_NEWNS), 0);
    EXPECT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    EXPECT_EQ(mount("/tmp/nobodys", "/dev/null", nullptr, MS_BIND, nullptr), 0);
    return Ask("x");
  });
  EXPECT_EQ(why, "failed to close its descriptors: Permission denied");
}

// --- Later. ---

struct Question {
  const char* text;
  milliseconds limit;
  const char* why;
};

void PrintTo(const Question& question, std::ostream* out) { *out << question.text; }

class BadAnswer : public ConfinedProgramTest, public testing::WithParamInterface<Question> {};

TEST_P(BadAnswer, IsNone) {
  ExpectGood();  // it runs when the limit begins
  EXPECT_EQ(Ask(GetParam().text, GetParam().limit), GetParam().why);
  ExpectGood();
}

INSTANTIATE_TEST_SUITE_P(
    To, BadAnswer,
    testing::Values(Question{"silence", kSoon, kTimedOut}, Question{"cut", kSoon, kTimedOut},
                    Question{"cut length", kSoon, kTimedOut}, Question{"talk", kEver, kTooLong},
                    Question{"huge", kEver, kTooLong}, Question{"long", kEver, kTooLong},
                    Question{"death", kEver, kEnded}, Question{"hang up", kEver, kEnded},
                    Question{"child", kEver, kEnded}, Question{"halfway", kEver, kEnded}));

TEST_F(ConfinedProgramTest, GivesNoSecondAnswerToTheNextQuestion) {
  for (const char* question : {"twice", "too much"}) {
    EXPECT_EQ(Ask(question), "answer: first");
    EXPECT_EQ(Ask("second"), "it spoke without being asked") << question;
    ExpectGood();
  }
}

TEST_F(ConfinedProgramTest, DoesNotWaitForAProgramThatReadsNoQuestion) {
  EXPECT_EQ(Ask("deaf"), "answer: first");
  EXPECT_EQ(Ask(std::string(4 * 1024 * 1024, 'x'), kSoon), kTimedOut);
  ExpectGood();
}

TEST_F(ConfinedProgramTest, EndsAtAQuestionThatIsTooLongForTheProgram) {
  EXPECT_THAT(Ask(std::string(kLongest + 1, 'x')), StartsWith("no answer: "));
  ExpectGood();
}

// The answer of a program that then dies is one; whether the next question finds it dead or dying
// is a matter of chance, and the one after that is answered.
TEST_F(ConfinedProgramTest, SurvivesAProgramThatDiesBetweenQuestions) {
  EXPECT_EQ(Ask("last"), "answer: first");
  EXPECT_THAT(Ask("next"), testing::AnyOf("answer: next", StartsWith("no answer: ")));
  ExpectGood();
}

TEST_F(ConfinedProgramTest, IsNotSharedWithAChild) {
  const std::string pid = Ask("pid");
  const std::string childs = RunInChild([this] {
    std::string why;
    return "answer: " + program_.Ask("pid", kLongest, kEver, why).value_or(why);
  });
  EXPECT_THAT(childs, testing::MatchesRegex("answer: [0-9]+"));
  EXPECT_NE(childs, pid);
  EXPECT_EQ(Ask("pid"), pid);
}

TEST_F(ConfinedProgramTest, IsNotStoppedByAChild) {
  const std::string pid = Ask("pid");
  RunInChild([this] {
    program_.Stop();
    return "";
  });
  EXPECT_EQ(Ask("pid"), pid);
}

}  // namespace
