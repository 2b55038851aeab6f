#include "core/backtrace.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/platform_fixture.h"

namespace nodelink {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// One heap block of pointers and texts, as backtrace_symbols gives it: the caller frees it.
char** SymbolBlock(const std::vector<std::string>& symbols) {
  std::size_t size = symbols.size() * sizeof(char*);
  for (const std::string& symbol : symbols) size += symbol.size() + 1;
  auto* block = static_cast<char**>(std::malloc(size));
  char* text = reinterpret_cast<char*>(block + symbols.size());
  for (std::size_t index = 0; index < symbols.size(); ++index) {
    block[index] = text;
    std::memcpy(text, symbols[index].c_str(), symbols[index].size() + 1);
    text += symbols[index].size() + 1;
  }
  return block;
}

class BacktraceTest : public PlatformTest {
 protected:
  // The stack that the next capture finds; the first symbol is the capturing code.
  static void SetStack(const std::vector<std::string>& symbols) {
    hooks().backtrace = [symbols](void**, int) { return static_cast<int>(symbols.size()); };
    hooks().backtrace_symbols = [symbols](void* const*, int) { return SymbolBlock(symbols); };
  }

  // The line of a frame with this symbol.
  static std::string LineOf(const std::string& symbol) {
    SetStack({"capture", symbol});
    return Backtrace(16).lines().at(0);
  }
};

TEST_F(BacktraceTest, NoStackGivesTheLineEmpty) {
  SetStack({});
  EXPECT_THAT(Backtrace(16).lines(), ElementsAre("- empty"));
}

TEST_F(BacktraceTest, StackOfOneFrameGivesNoLine) {
  SetStack({"capture"});
  EXPECT_THAT(Backtrace(16).lines(), IsEmpty());
}

TEST_F(BacktraceTest, EveryFrameButTheCapturingOneGivesALine) {
  SetStack({"capture", "first", "second", "third"});
  EXPECT_THAT(Backtrace(16).lines(), ElementsAre("- first", "- second", "- third"));
}

TEST_F(BacktraceTest, AsksForAsManyFramesAsTheDepth) {
  std::vector<int> sizes;
  hooks().backtrace = [&sizes](void**, int size) {
    sizes.push_back(size);
    return 0;
  };
  const Backtrace shallow(3);
  const Backtrace deep(16);
  EXPECT_THAT(sizes, ElementsAre(3, 16));
}

TEST_F(BacktraceTest, RealStackIsNoDeeperThanAsked) {
  EXPECT_THAT(Backtrace(3).lines(), testing::SizeIs(2));
  EXPECT_THAT(Backtrace(16).lines(), testing::Each(testing::StartsWith("- ")));
}

TEST_F(BacktraceTest, NoMemoryForSymbolsGivesNoLine) {
  hooks().backtrace = [](void**, int) { return 2; };
  hooks().backtrace_symbols = [](void* const*, int) -> char** { return nullptr; };
  EXPECT_THAT(Backtrace(16).lines(), IsEmpty());
}

TEST_F(BacktraceTest, FunctionIsDemangled) {
  EXPECT_EQ(LineOf("/usr/kivo/bin/nodelink(_ZN8nodelink4UserC1Ev+0x1f) [0x55d0]"),
            "- /usr/kivo/bin/nodelink: nodelink::User::User() +0x1f");
}

TEST_F(BacktraceTest, NameThatIsNotMangledIsKept) {
  EXPECT_EQ(LineOf("libc.so.6(__libc_start_main+0x85) [0x7f]"),
            "- libc.so.6: __libc_start_main +0x85");
}

TEST_F(BacktraceTest, FrameWithoutFunctionKeepsItsOffset) {
  EXPECT_EQ(LineOf("nodelink(+0x12ab) [0x7f]"), "- nodelink:  +0x12ab");
}

TEST_F(BacktraceTest, SymbolWithoutTheThreePartsIsKeptWhole) {
  for (const std::string symbol : {"[0x7f001122]", "nodelink(main) [0x7f]", "nodelink(main+0x1",
                                   "nodelink main+0x1) [0x7f]", "lib+x(main) [0x7f]", ")+(", ""}) {
    EXPECT_EQ(LineOf(symbol), "- " + symbol);
  }
}

}  // namespace
}  // namespace nodelink
