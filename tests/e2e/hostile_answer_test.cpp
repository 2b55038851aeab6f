// Whatever a verified server answers: every flow ends with a failure it knows, within bounded
// memory and time, and leaves the device as it was.
#include <cstdlib>
#include <utility>

#include "tests/e2e/https_flow.h"

namespace {

using devcloud::Delivery;
using devcloud::Response;

constexpr std::size_t kMebibyte = 1024 * 1024;
constexpr std::size_t kLargest = kMebibyte;  // that the programs take in
constexpr long kMostMemory = 24 * 1024;      // KiB
constexpr char kPeakFile[] = "/var/tmp/peak";

// What an answer may come to: some are odd, but what they say can be understood.
enum class Outcome { kFailure, kAny };

struct HostileAnswer {
  const char* name;
  Response response;
  Outcome outcome = Outcome::kFailure;
};

std::string Repeat(const std::string& text, std::size_t size) {
  std::string all;
  all.reserve(size + text.size());
  while (all.size() < size) all += text;
  return all;
}

// A list as long as an answer may be, of the shortest items.
std::string ListOf(const std::string& item) {
  return "[" + Repeat(item + ",", kLargest - 3 * item.size() - 10) + item + "]";
}

// As many as may be, and as long as there is room for.
std::string ListOfTexts() {
  const std::string text = "\"" + std::string(kLargest / 10'000 - 5, 'x') + "\"";
  return "[" + Repeat(text + ",", kLargest - 5000) + text + "]";
}

std::string Members(const std::string& value) {
  std::string all;
  for (int number = 0; all.size() < kLargest - 1200; ++number) {
    all += ",\"" + std::to_string(number) + "\":" + value;
  }
  return all;
}

// A profile, an identity, tokens, a grant and a key in one: every flow finds what it asks for.
std::string Everything(const std::string& text, const std::string& versions) {
  std::string all = R"({"code":"good","expires_in":3600)";
  for (const char* name :
       {"email", "full_name", "country", "timezone", "notify_language", "id", "user_id",
        "access_token", "id_token", "refresh_token", "grant_code", "api_key", "auth_key"}) {
    all += std::string(",\"") + name + "\":\"" + text + "\"";
  }
  for (const char* name : {"activated", "disabled", "enews", "enews_local_promotion",
                           "critical_release", "realname_validation_pass"}) {
    all += std::string(",\"") + name + "\":true";
  }
  return all + ",\"critical_version_list\":{\"1\":true" + versions + "}}";
}

// Of which indentation makes 18 MB.
std::string NestedLists() {
  std::string lists;
  for (int count = 0; count < 9; ++count) {
    lists += std::string(990, '[') + std::string(990, ']') + ",";
  }
  return "[" + lists + "1]";
}

std::string With(std::string object, const std::string& member) {
  object.pop_back();
  return object + ",\"more\":" + member + "}";
}

Response Body(std::string body, std::vector<devcloud::Header> headers = {}) {
  return {.headers = std::move(headers), .body = std::move(body)};
}

Response Delivered(Delivery delivery, std::string body) {
  return {.body = std::move(body), .fault = {.delivery = delivery}};
}

Response Raw(std::string bytes) { return Delivered(Delivery::kRaw, std::move(bytes)); }

std::string Zipped() {
  return lab::RunProcess({"sh", "-c", "head -c 33554432 /dev/zero | gzip -9"}).out;
}

std::vector<HostileAnswer> BadTexts() {
  const std::string part((kLargest - 2000) / 13, 'x');
  const std::string expanding((kLargest - 2000) / 13, '\x01');
  return {
      {"empty", Body("")},
      {"not UTF-8", Body("{\"code\":\"\xff\xfe\",\"\xc0\x80\":\"\xed\xa0\x80\"}")},
      {"NUL", Body(std::string("{\"code\":\"go\0od\"}", 15))},
      {"UTF-16", Body(std::string("\xff\xfe{\0}\0", 6))},
      {"deep list", Body(std::string(200'000, '['))},
      {"deep member", Body("{\"code\":" + Repeat("{\"a\":", 200'000))},
      {"many numbers", Body(ListOf("1"))},
      {"many lists", Body(ListOf("[]"))},
      {"many comments", Body(ListOf("/**/1"))},
      {"many members", Body("{\"code\":\"badsys\"" + Members("0") + "}")},
      {"many objects", Body("{\"code\":\"badsys\"" + Members("{}") + "}")},
      {"long text", Body("{\"code\":\"" + std::string(kLargest - 20, 'x') + "\"}")},
      {"escapes", Body("{\"code\":\"" + Repeat("\\u0001", kLargest - 20) + "\"}")},
      {"long rubbish", Body(std::string(kLargest, 'x'))},
      {"huge exponent", Body("{\"code\":1e999999999}")},
      {"long number", Body("{\"code\":" + std::string(200'000, '9') + "}")},
      {"duplicate keys", Body(R"({"code":"badsys","code":"good"})"), Outcome::kAny},
      {"long values", Body(Everything(part, "")), Outcome::kAny},
      {"values that grow", Body(Everything(expanding, "")), Outcome::kAny},
      {"many versions", Body(Everything("x", Members("true"))), Outcome::kAny},
      {"one long text",
       Body(With(Everything("x", ""), '"' + std::string(kLargest - 2000, ',') + '"')),
       Outcome::kAny},
      {"texts of few values", Body(With(Everything("x", ""), ListOfTexts())), Outcome::kAny},
      {"nested lists", Body(With(Everything("x", ""), NestedLists())), Outcome::kAny},
      {"nested lists and no tokens", Body(With("{\"code\":\"badsys\"}", NestedLists()))},
  };
}

std::vector<HostileAnswer> BadBodies() {
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string zipped = Zipped();
  return {
      {"nothing", Delivered(Delivery::kDrop, "")},
      {"truncated", Delivered(Delivery::kTruncate, R"({"code":"good"}            )")},
      {"length beyond", Raw("HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\n{\"code\":\"good\"}")},
      {"length below zero", Raw("HTTP/1.1 200 OK\r\nContent-Length: -9\r\n\r\n{}")},
      {"length too large", Raw("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n{}"),
       Outcome::kAny},
      {"two lengths",
       Body("{\"code\":\"x\"}", {{"Content-Length", "12"}, {"Content-Length", "3"}})},
      {"cut chunk", Raw(chunked + "f\r\n{\"code\"")},
      {"no last chunk", Raw(chunked + "f\r\n{\"code\":\"good\"}\r\n")},
      {"huge chunk", Raw(chunked + "FFFFFFFFFFFFFFFFF\r\n{}")},
      {"no chunk", Raw(chunked + "nonsense")},
      {"endless", Delivered(Delivery::kEndless, "{}")},
      {"oversized", Body(std::string(2 * kMebibyte, ' '))},
      {"gzip bomb", Body(zipped, {{"Content-Encoding", "gzip"}})},
      {"gzip twice", Body(zipped, {{"Content-Encoding", "gzip, gzip"}})},
      {"no gzip", Body("{\"code\":\"x\"}", {{"Content-Encoding", "gzip"}})},
      {"unknown encoding", Body("{\"code\":\"x\"}", {{"Content-Encoding", "nonsense"}})},
  };
}

std::vector<HostileAnswer> BadHeads() {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string later = "HTTP/1.1 100 Continue\r\n\r\n";
  return {
      {"HTTP/0.9", Raw("{\"code\":\"good\"}")},
      {"HTTP/9.9", Raw("HTTP/9.9 200 OK\r\n\r\n{\"code\":\"x\"}")},
      {"binary", Raw(Repeat(std::string("\0\xff\x16\x03", 4), 4096))},
      {"status of no number", Raw("HTTP/1.1 abc OK\r\n\r\n{}")},
      {"status 0", Raw("HTTP/1.1 000 OK\r\n\r\n{}")},
      {"100 without end", Delivered(Delivery::kRawEndless, later)},
      {"100 and no more", Raw(Repeat(later, 1000))},
      {"switch of protocols", Raw("HTTP/1.1 101 Switching Protocols\r\nUpgrade: h2c\r\n\r\n")},
      {"204 with a body", Raw("HTTP/1.1 204 No Content\r\nContent-Length: 2\r\n\r\n{}")},
      {"huge header", Raw(ok + "X: " + std::string(8 * kMebibyte, 'x') + "\r\n\r\n{}")},
      {"headers without end", Raw(ok + Repeat("X-Header: some text\r\n", 16 * kMebibyte))},
      {"thousands of headers",
       Raw(ok + Repeat("Set-Cookie: a=b\r\n", 250'000) + "\r\n{\"code\":\"x\"}")},
      {"header without a name", Raw(ok + ": x\r\n x\r\n\r\n{\"code\":\"x\"}")},
      {"NUL in a header", Raw(ok + std::string("X: a\0b\r\n", 8) + "\r\n{\"code\":\"x\"}")},
  };
}

class HostileAnswerTest : public HttpsFlowTest {
 protected:
  void Answer(const HostileAnswer& answer) {
    SCOPED_TRACE(answer.name);
    Prepare();
    const std::string before = State();
    bad_.SetAnswer(answer.response);
    bad_.server().ClearRequests();
    const auto result = RunFlow({"/usr/bin/time", "--quiet", "-f", "%M", "-o", kPeakFile});
    EXPECT_FALSE(bad_.server().requests().empty());
    EXPECT_FALSE(result.timed_out);
    if (answer.outcome == Outcome::kFailure) {
      ExpectFailure(result);
      EXPECT_EQ(State(), before);
    }
    EXPECT_THAT(result.exit_status, testing::AnyOf(0, 1, 255));
    ExpectLittleMemory();
  }

  static void ExpectLittleMemory() {
#if !defined(__SANITIZE_ADDRESS__) && defined(NDEBUG)
    const long peak = std::strtol(test_files::Read(kPeakFile).c_str(), nullptr, 10);
    EXPECT_GT(peak, 0);
    EXPECT_LT(peak, kMostMemory) << "KiB";
#endif
  }
};

TEST_P(HostileAnswerTest, BadTextIsAFailure) {
  for (const HostileAnswer& answer : BadTexts()) Answer(answer);
}

TEST_P(HostileAnswerTest, BadBodyIsAFailure) {
  for (const HostileAnswer& answer : BadBodies()) Answer(answer);
}

TEST_P(HostileAnswerTest, BadHeadIsAFailure) {
  for (const HostileAnswer& answer : BadHeads()) Answer(answer);
}

// On a clock that runs a hundred and twenty times as fast.
class SlowAnswerTest : public HostileAnswerTest {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer and the fast clock both want to be loaded first";
#endif
  }

  void ExpectGivenUp(std::size_t bytes, std::chrono::milliseconds pause) {
    Prepare();
    const std::string before = State();
    Response response = Delivered(Delivery::kSlow, std::string(kMebibyte, ' '));
    response.fault.slow_bytes = bytes;
    response.fault.slow_interval = pause;
    bad_.SetAnswer(response);
    ExpectFailure(RunFlow(FastClock(40)));
    EXPECT_EQ(State(), before);
    // Whoever talks to the server kept its limit; nobody had to be stopped.
    EXPECT_THAT(Log(), testing::Not(testing::Contains(testing::HasSubstr("Failed to ask"))));
  }
};

TEST_P(SlowAnswerTest, AByteASecondIsGivenUp) { ExpectGivenUp(1, std::chrono::seconds(1)); }

// Fast enough for a limit on speed alone.
TEST_P(SlowAnswerTest, ASteadyTrickleIsGivenUp) {
  ExpectGivenUp(1000, std::chrono::milliseconds(50));
}

TEST_P(SlowAnswerTest, SilenceIsGivenUp) { ExpectGivenUp(1, std::chrono::hours(1)); }

INSTANTIATE_TEST_SUITE_P(Flows, HostileAnswerTest, testing::ValuesIn(HttpsFlows()), NameOfFlow);
INSTANTIATE_TEST_SUITE_P(Flows, SlowAnswerTest, testing::ValuesIn(HttpsFlows()), NameOfFlow);

}  // namespace
