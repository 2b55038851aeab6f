#include "deviceapi/zomi_token_generation.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "core/error_code.h"
#include "tests/deviceapi/row_text.h"
#include "tests/support/platform_fixture.h"

namespace {

using nodelink::DeviceSerialNumberGet;
using nodelink::DeviceTokenGenerate;
using nodelink::kDeviceTokenSize;
using nodelink::Md5Hex;
using nodelink::TokenHashRounds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::uint32_t kUntouchedCode = 77;
constexpr char kTriple[] = "[0x0A12 flash.c:42]";

struct Vector {
  std::string serial;
  std::string id;
  std::string password;
  std::string token;

  [[nodiscard]] std::string Text() const { return serial + id + password; }
};

std::string OrNone(const std::string& word) { return word == "-" ? "" : word; }

std::vector<Vector> ReadVectors() {
  std::ifstream file(TOKEN_VECTORS);
  std::vector<Vector> vectors;
  Vector line;
  while (file >> line.serial >> line.id >> line.password >> line.token) {
    vectors.push_back({line.serial, OrNone(line.id), OrNone(line.password), line.token});
  }
  return vectors;
}

std::string Md5(const std::string& text) {
  std::array<char, kDeviceTokenSize> digest{};
  EXPECT_EQ(Md5Hex(text.c_str(), digest.data(), digest.size()), 0);
  return digest.data();
}

int Rounds(const std::string& text) { return std::stoi(Md5(text).substr(0, 1), nullptr, 16) + 1; }

class TokenTest : public PlatformTest {
 protected:
  TokenTest() {
    platform().SetFailureTriple({0x0A12, "flash.c", 42});
    nodelink::SetLastErrorCode(kUntouchedCode);
  }

  ~TokenTest() override { EXPECT_EQ(nodelink::LastErrorCode(), kUntouchedCode); }

  int Generate(const std::string& serial, const char* id, const char* password) {
    std::fill(serial_.begin(), serial_.end(), '\0');
    serial.copy(serial_.data(), serial_.size() - 1);
    return DeviceTokenGenerate(id, password, serial_.data(), serial_.size(), token_.data(),
                               token_.size());
  }

  // The token, "" after a failure.
  std::string Token(const std::string& serial, const char* id, const char* password) {
    return Generate(serial, id, password) == 0 ? token_.data() : "";
  }

  std::array<char, 256> serial_{};
  std::array<char, kDeviceTokenSize> token_{};
};

TEST_F(TokenTest, EveryTokenIsTheOneThatAnIndependentProgramComputed) {
  const auto vectors = ReadVectors();
  ASSERT_GE(vectors.size(), 16U);
  for (const Vector& vector : vectors) {
    SCOPED_TRACE(vector.Text());
    EXPECT_EQ(Token(vector.serial, vector.id.c_str(), vector.password.c_str()), vector.token);
  }
}

TEST_F(TokenTest, TheVectorsCoverEveryFirstDigit) {
  std::set<int> rounds;
  for (const Vector& vector : ReadVectors()) rounds.insert(Rounds(vector.Text()));
  EXPECT_EQ(rounds.size(), 16U);
}

TEST_F(TokenTest, TheFirstDigitOfTheFirstDigestCountsTheRounds) {
  int digests = 0;
  hooks().md5_final = [&] {
    ++digests;
    return std::nullopt;
  };
  for (const Vector& vector : ReadVectors()) {
    const int rounds = Rounds(vector.Text());
    digests = 0;
    (void)Token(vector.serial, vector.id.c_str(), vector.password.c_str());
    EXPECT_EQ(digests, 1 + 2 * rounds) << vector.Text();
  }
}

TEST_F(TokenTest, EmptyAndNullCredentialsAreTheSame) {
  const std::string alone = Token("NL0000028A", nullptr, nullptr);
  EXPECT_EQ(alone, ReadVectors().front().token);
  EXPECT_EQ(Token("NL0000028A", "", ""), alone);
  EXPECT_EQ(Token("NL0000028A", "", nullptr), alone);
}

TEST_F(TokenTest, ThePartsAreJoinedWithoutASeparator) {
  EXPECT_EQ(Token("A", "bc", "d"), Token("Abcd", nullptr, nullptr));
  EXPECT_EQ(Token("A", nullptr, "bcd"), Token("Ab", "cd", nullptr));
}

TEST_F(TokenTest, IsAlways32LowerCaseHexDigits) {
  for (int number = 0; number < 300; ++number) {
    EXPECT_THAT(Token("S" + std::to_string(number), "\xff\n", "%s%n"),
                MatchesRegex("[0-9a-f]{32}"));
  }
}

TEST_F(TokenTest, AGivenSerialNumberIsUsedAndThePlatformNotAsked) {
  EXPECT_EQ(Generate("GIVEN1", nullptr, nullptr), 0);
  EXPECT_STREQ(serial_.data(), "GIVEN1");
  EXPECT_EQ(platform().call_count("KLIBGetSerialNumber"), 0U);
}

TEST_F(TokenTest, AnEmptySerialBufferIsFilledFromTheDevice) {
  EXPECT_EQ(Generate("", "id", "pw"), 0);
  EXPECT_STREQ(serial_.data(), "FAKE123456789");
  const std::string token = token_.data();
  EXPECT_EQ(token, Token("FAKE123456789", "id", "pw"));
}

TEST_F(TokenTest, ASmallTokenBufferGetsTheBeginning) {
  std::array<char, 9> small{};
  ASSERT_EQ(Generate("NL0000028A", nullptr, nullptr), 0);
  ASSERT_EQ(DeviceTokenGenerate(nullptr, nullptr, serial_.data(), serial_.size(), small.data(),
                                small.size()),
            0);
  EXPECT_EQ(std::string(small.data()), std::string(token_.data()).substr(0, 8));
}

TEST_F(TokenTest, ANullSerialBufferFails) {
  EXPECT_EQ(DeviceTokenGenerate("id", "pw", nullptr, 0, token_.data(), token_.size()), -1);
  EXPECT_THAT(Log(), ElementsAre("zomi_token_generation Wrong parameters"));
}

TEST_F(TokenTest, AnUnreadableSerialNumberEndsIt) {
  platform().FailNext("KLIBGetSerialNumber");
  EXPECT_EQ(Generate("", nullptr, nullptr), -1);
  EXPECT_THAT(Log(), ElementsAre(std::string("zomi_token_generation Failed to get serial number "
                                             "from flash. ") +
                                 kTriple));
  EXPECT_EQ(platform().call_count("KLIBCStrCat"), 0U);
}

TEST_F(TokenTest, NoMemoryEndsIt) {
  hooks().calloc_fails = [](std::size_t size) { return size == 1024; };
  EXPECT_EQ(Generate("NL1", "id", "pw"), -1);
  hooks().calloc_fails = nullptr;
  EXPECT_THAT(Log(), ElementsAre("zomi_token_generation Fail to allocate"));
}

class TokenConcatTest : public TokenTest, public testing::WithParamInterface<int> {};

TEST_P(TokenConcatTest, AFailedAppendEndsIt) {
  platform().FailCall("KLIBCStrCat", GetParam());
  EXPECT_EQ(Generate("NL1", "id", "pw"), -1);
  EXPECT_THAT(Log(), ElementsAre("zomi_token_generation Fail to concat string"));
  EXPECT_EQ(platform().call_count("KLIBCStrCat"), static_cast<std::size_t>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(SerialIdPassword, TokenConcatTest, testing::Values(1, 2, 3));

TEST_F(TokenTest, ATextBeyondTheFirstBlockIsHashedWhole) {
  const std::string id(1500, 'i');
  const std::string password(1500, 'p');
  const std::string token = Token("NL1", id.c_str(), password.c_str());
  std::array<char, kDeviceTokenSize> expected{};
  ASSERT_EQ(TokenHashRounds(("NL1" + id + password).c_str(), expected.data(), expected.size()), 0);
  EXPECT_EQ(token, expected.data());
}

// A digest step that fails, at each of the three digests of a text whose first digest begins with
// 0: the text itself, the text in the one round, and the text with its digest.
struct Md5Failure {
  const char* step;
  int nth;
};

void PrintTo(const Md5Failure& row, std::ostream* out) { *out << row.step << row.nth; }

class TokenMd5Test : public TokenTest, public testing::WithParamInterface<Md5Failure> {
 protected:
  void FailNthStep() {
    auto& all = hooks();
    auto& hook = std::string(GetParam().step) == "Init"     ? all.md5_init
                 : std::string(GetParam().step) == "Update" ? all.md5_update
                                                            : all.md5_final;
    hook = [this]() -> std::optional<int> {
      return ++calls_ == GetParam().nth ? std::optional(0) : std::nullopt;
    };
  }

 private:
  int calls_ = 0;
};

TEST_P(TokenMd5Test, AFailedDigestNamesItsText) {
  const std::string text = "NL0000028A";
  const std::string scratch = text + Md5(text);
  FailNthStep();
  EXPECT_EQ(Generate(text, nullptr, nullptr), -1);
  EXPECT_THAT(
      Log(),
      ElementsAre("zomi_token_generation Failed to get md5 string from \"" +
                      (GetParam().nth == 3 ? scratch : text) + "\".",
                  std::string("zomi_token_generation GenerateToken Failed, err=[0x0000 :0]")));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, TokenMd5Test,
    testing::Values(Md5Failure{"Init", 1}, Md5Failure{"Init", 2}, Md5Failure{"Init", 3},
                    Md5Failure{"Update", 1}, Md5Failure{"Update", 2}, Md5Failure{"Update", 3},
                    Md5Failure{"Final", 1}, Md5Failure{"Final", 2}, Md5Failure{"Final", 3}),
    [](const auto& test) { return test.param.step + std::to_string(test.param.nth); });

TEST_F(TokenTest, AFailedTokenCarriesThePlatformsError) {
  platform().FailNext("KLIBGetSerialNumber");
  ASSERT_EQ(Generate("", nullptr, nullptr), -1);
  ClearLog();
  hooks().md5_init = [] { return 0; };
  EXPECT_EQ(Generate("NL1", nullptr, nullptr), -1);
  EXPECT_THAT(Log(), ElementsAre("zomi_token_generation Failed to get md5 string from \"NL1\".",
                                 std::string("zomi_token_generation GenerateToken Failed, err=") +
                                     kTriple));
}

// --- the check of the serial number ---------------------------------------------------------

struct Serial {
  const char* text;
  bool accepted;
};

void PrintTo(const Serial& row, std::ostream* out) { *out << RowText(row.text); }

class SerialCheckTest : public TokenTest, public testing::WithParamInterface<Serial> {
 protected:
  void ExpectLogAtLine(int line) {
    if (GetParam().accepted) {
      EXPECT_THAT(LogWithLines(), IsEmpty());
      return;
    }
    EXPECT_THAT(LogWithLines(),
                ElementsAre("zomi_token_generation:" + std::to_string(line) +
                            " Serial number is invalid: [" + GetParam().text + "][0x0000 :0]"));
  }

  [[nodiscard]] static int Expected() { return GetParam().accepted ? 0 : -1; }
};

TEST_P(SerialCheckTest, OfAGivenSerialNumber) {
  if (*GetParam().text == '\0') {
    return;  // an empty one is not given
  }
  EXPECT_EQ(Generate(GetParam().text, nullptr, nullptr), Expected());
  ExpectLogAtLine(90);
}

TEST_P(SerialCheckTest, OfTheDevicesSerialNumber) {
  platform().device.serial_number = GetParam().text;
  EXPECT_EQ(DeviceSerialNumberGet(serial_.data(), serial_.size()), Expected());
  EXPECT_STREQ(serial_.data(), GetParam().text);
  ExpectLogAtLine(67);
}

TEST_P(SerialCheckTest, OfTheDevicesSerialNumberEndsTheToken) {
  platform().device.serial_number = GetParam().text;
  EXPECT_EQ(Generate("", nullptr, nullptr), Expected());
  ExpectLogAtLine(67);
}

INSTANTIATE_TEST_SUITE_P(
    FirstCharacter, SerialCheckTest,
    testing::Values(Serial{"0", true}, Serial{"9 of them", true}, Serial{"a-", true},
                    Serial{"z", true}, Serial{"A%s%n", true}, Serial{"Z&hs_token=0", true},
                    Serial{"", false}, Serial{"-NL1", false}, Serial{" NL1", false},
                    Serial{"/", false}, Serial{":", false}, Serial{"@", false}, Serial{"[", false},
                    Serial{"`", false}, Serial{"{", false}, Serial{"_1", false},
                    Serial{"\xc3\x84NL", false}, Serial{"\tNL", false}),
    kRowNumber);

TEST_F(TokenTest, TheDevicesSerialNumberIsReadInto36Bytes) {
  platform().device.serial_number = std::string(60, 'S');
  EXPECT_EQ(DeviceSerialNumberGet(serial_.data(), serial_.size()), 0);
  EXPECT_EQ(serial_.data(), std::string(35, 'S'));
  EXPECT_THAT(platform().calls(), ElementsAre(fake_hos::Call{"KLIBGetSerialNumber", {"36"}}));
}

TEST_F(TokenTest, TheDevicesSerialNumberIsCutAtTheBuffer) {
  std::array<char, 5> small{};
  EXPECT_EQ(DeviceSerialNumberGet(small.data(), small.size()), 0);
  EXPECT_STREQ(small.data(), "FAKE");
}

TEST_F(TokenTest, NoBufferForTheSerialNumberIsAWrongParameter) {
  EXPECT_EQ(DeviceSerialNumberGet(nullptr, 36), -1);
  EXPECT_THAT(Log(), ElementsAre("zomi_token_generation Wrong parameters"));
  EXPECT_THAT(platform().calls(), IsEmpty());
}

// --- the iterated digest ---------------------------------------------------------------------

TEST_F(TokenTest, NoTextToHashIsAParameterError) {
  EXPECT_EQ(TokenHashRounds(nullptr, token_.data(), token_.size()), -1);
  EXPECT_THAT(Log(), ElementsAre("zomi_token_generation Parameter error"));
}

TEST_F(TokenTest, AnEmptyTextHasATokenToo) {
  EXPECT_EQ(TokenHashRounds("", token_.data(), token_.size()), 0);
  EXPECT_THAT(token_.data(), MatchesRegex("[0-9a-f]{32}"));
}

std::string IteratedMd5(std::string text, int rounds) {
  for (; rounds > 0; --rounds) text = Md5(text + Md5(text));
  return text;
}

// The rounds are counted from the whole text, and hash what the working buffer holds of it.
TEST_F(TokenTest, ATextBeyondTheWorkingBufferIsCutForTheRoundsOnly) {
  constexpr std::size_t kHeld = 4095;
  for (const std::size_t length : {kHeld, kHeld + 1, kHeld + 905}) {
    std::string text(length, 'x');
    text.back() = 'y';
    ASSERT_EQ(TokenHashRounds(text.c_str(), token_.data(), token_.size()), 0);
    EXPECT_EQ(token_.data(), IteratedMd5(text.substr(0, kHeld), Rounds(text))) << length;
  }
}

// --- the digest -----------------------------------------------------------------------------

struct Digest {
  const char* text;
  const char* hex;
};

void PrintTo(const Digest& row, std::ostream* out) { *out << RowText(row.text); }

class Md5HexTest : public TokenTest, public testing::WithParamInterface<Digest> {};

TEST_P(Md5HexTest, IsTheMd5OfTheText) { EXPECT_EQ(Md5(GetParam().text), GetParam().hex); }

INSTANTIATE_TEST_SUITE_P(Rfc1321, Md5HexTest,
                         testing::Values(Digest{"", "d41d8cd98f00b204e9800998ecf8427e"},
                                         Digest{"a", "0cc175b9c0f1b6a831c399e269772661"},
                                         Digest{"abc", "900150983cd24fb0d6963f7d28e17f72"},
                                         Digest{"message digest",
                                                "f96b697d7cb7938d525a2f31aaf161d0"},
                                         Digest{"1234567890123456789012345678901234567890"
                                                "1234567890123456789012345678901234567890",
                                                "57edf4a22be3c955ac49da2e2107b67a"}),
                         kRowNumber);

TEST_F(TokenTest, TheDigestsBufferIsZeroedWhole) {
  std::string buffer(64, 'x');
  ASSERT_EQ(Md5Hex("abc", buffer.data(), buffer.size()), 0);
  EXPECT_EQ(buffer, "900150983cd24fb0d6963f7d28e17f72" + std::string(32, '\0'));
  hooks().md5_final = [] { return 0; };
  buffer.assign(64, 'x');
  EXPECT_EQ(Md5Hex("abc", buffer.data(), buffer.size()), -1);
  EXPECT_EQ(buffer, std::string(64, '\0'));
}

TEST_F(TokenTest, ABufferWithoutRoomForTheNulIsNotOverrun) {
  std::string buffer(33, 'x');
  EXPECT_EQ(Md5Hex("abc", buffer.data(), 32), 0);
  EXPECT_EQ(buffer.substr(0, 31), "900150983cd24fb0d6963f7d28e17f7");
  EXPECT_EQ(buffer[32], 'x');
}

TEST_F(TokenTest, ATooSmallBufferOrNoTextIsRefused) {
  std::string buffer(31, 'x');
  EXPECT_EQ(Md5Hex("abc", buffer.data(), buffer.size()), -1);
  EXPECT_EQ(buffer, std::string(31, 'x'));
  EXPECT_EQ(Md5Hex(nullptr, token_.data(), token_.size()), -1);
  EXPECT_EQ(Md5Hex("abc", token_.data(), 0), -1);
  EXPECT_THAT(Log(), IsEmpty());
}

}  // namespace
