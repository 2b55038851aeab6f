#include "devcloud/control/control.h"

#include <future>
#include <thread>

#include "lab/process.h"
#include "tests/devcloud/cloud_fixture.h"

namespace devcloud_test {
namespace {

class ControlTest : public CloudTest {
 protected:
  ClientAnswer Call(const std::string& method, const std::string& path,
                    const std::optional<std::string>& body = {},
                    std::vector<std::string> headers = {}) {
    return control_client_.Send({.url = cloud_.control().Url() + path,
                                 .method = method,
                                 .body = body,
                                 .headers = std::move(headers)});
  }

  HttpClient control_client_;
};

TEST_F(ControlTest, AccountsCanBeMadeChangedAndRemoved) {
  const ClientAnswer made =
      Call("POST", "/v1/accounts", R"({"email":"bob@example.org","password":"pw","country":"CH"})");
  EXPECT_EQ(made.status, 201);
  const std::string id = Parse(made)["user_id"].asString();
  EXPECT_EQ(Call("GET", "/v1/accounts/bob%40example.org").body, made.body);
  const ClientAnswer changed =
      Call("PATCH", "/v1/accounts/" + id,
           R"({"state":"badauth","enews":true,"critical_version_list":{"x":true},"password":"new",)"
           R"("report_cron_timestring":"1 2 * * *"})");
  EXPECT_EQ(Parse(changed)["state"], "badauth");
  EXPECT_EQ(Parse(changed)["country"], "CH");
  EXPECT_TRUE(cloud_.store().PasswordFits(id, "new"));
  EXPECT_EQ(Parse(Call("GET", "/v1/accounts")).size(), 2U);
  EXPECT_EQ(Call("DELETE", "/v1/accounts/" + id).status, 204);
  EXPECT_EQ(Call("GET", "/v1/accounts/" + id).status, 404);
}

TEST_F(ControlTest, PasswordsAreNeverShown) {
  EXPECT_EQ(Call("GET", "/v1/accounts").body.find("argon"), std::string::npos);
}

TEST_F(ControlTest, DevicesCanBeMadeLinkedAndRemoved) {
  EXPECT_EQ(Call("POST", "/v1/devices", R"({"serial":"NL2","mac":"02:00:5e:10:00:02"})").status,
            201);
  EXPECT_EQ(Call("POST", "/v1/devices", R"({"serial":"NL2","mac":"02:00:5e:10:00:02"})").status,
            409);
  const Json::Value link =
      Parse(Call("PUT", "/v1/devices/NL2/link", R"({"account":"anna@example.org"})"));
  EXPECT_EQ(link["id"].asString(), account_.user_id);
  EXPECT_EQ(Parse(Call("GET", "/v1/devices/NL2"))["link"], link);
  EXPECT_EQ(
      Parse(Call("PATCH", "/v1/devices/NL2", R"({"api_key":"k","max_accounts":1})"))["api_key"],
      "k");
  EXPECT_EQ(Call("DELETE", "/v1/devices/NL2/link").status, 204);
  EXPECT_EQ(Call("DELETE", "/v1/devices/NL2/link").status, 404);
  EXPECT_EQ(Parse(Call("GET", "/v1/devices")).size(), 2U);
  EXPECT_EQ(Call("DELETE", "/v1/devices/NL2").status, 204);
  EXPECT_EQ(Call("DELETE", "/v1/devices/NL2").status, 404);
}

TEST_F(ControlTest, LinkingBeyondTheLimitIsAConflict) {
  EXPECT_EQ(Call("PATCH", "/v1/devices/" + std::string(kSerial), R"({"max_accounts":0})").status,
            200);
  EXPECT_EQ(Call("POST", "/v1/accounts", R"({"email":"b@c","password":"p"})").status, 201);
  EXPECT_EQ(
      Call("PUT", "/v1/devices/" + std::string(kSerial) + "/link", R"({"account":"b@c"})").status,
      409);
}

TEST_F(ControlTest, FaultsCanBeSetAndCleared) {
  const ClientAnswer made =
      Call("POST", "/v1/faults", R"({"path":"/x","status":500,"body":{"a":1}})");
  EXPECT_EQ(made.status, 201);
  EXPECT_EQ(PostForm("/x", {}).body, R"({"a":1})");
  EXPECT_EQ(Parse(Call("GET", "/v1/faults"))[0], Parse(made));
  EXPECT_EQ(Call("DELETE", "/v1/faults/" + Parse(made)["id"].asString()).status, 204);
  EXPECT_EQ(Call("DELETE", "/v1/faults/1").status, 404);
  EXPECT_EQ(Call("DELETE", "/v1/faults/one").status, 400);
  EXPECT_EQ(Call("DELETE", "/v1/faults").status, 204);
}

// A client whose answer is held, on a thread of its own.
class HeldClient {
 public:
  HeldClient(const std::string& authority, const std::string& url)
      : answer_(std::async(std::launch::async, [authority, url] {
          return HttpClient(authority).Send({.url = url, .method = "GET"});
        })) {}

  bool HasAnswer() {
    return answer_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }
  ClientAnswer Answer() { return answer_.get(); }

 private:
  std::future<ClientAnswer> answer_;
};

TEST_F(ControlTest, AnswersCanBeHeldAndReleased) {
  const std::string& authority = cloud_.authority().certificate_pem();
  EXPECT_EQ(Parse(Call("GET", "/v1/held")).size(), 0U);
  Call("POST", "/v1/faults", R"({"path":"/held","hold":true,"status":200,"body":"late"})");
  HeldClient first(authority, Url("/held"));
  const Json::Value held = Parse(Call("GET", "/v1/held?wait=20"));
  ASSERT_EQ(held.size(), 1U);
  EXPECT_EQ(held[0]["path"], "/held");
  EXPECT_EQ(held[0]["method"], "GET");
  EXPECT_EQ(client_.Send({.url = Url("/other")}).status, 404) << "others go on";
  EXPECT_FALSE(first.HasAnswer());
  EXPECT_EQ(Call("DELETE", "/v1/held/" + held[0]["id"].asString()).status, 204);
  EXPECT_EQ(first.Answer().body, "late");
  EXPECT_EQ(Call("DELETE", "/v1/held/" + held[0]["id"].asString()).status, 404);
  HeldClient second(authority, Url("/held"));
  EXPECT_EQ(Parse(Call("GET", "/v1/held?wait=20")).size(), 1U);
  EXPECT_EQ(Call("DELETE", "/v1/held").status, 204);
  EXPECT_EQ(second.Answer().status, 200);
}

TEST_F(ControlTest, AnAnswerWhoseClientIsGoneIsNotHeld) {
  Call("POST", "/v1/faults", R"({"path":"/held","hold":true,"status":200})");
  lab::BackgroundProcess client({"curl", "--silent", "--insecure", Url("/held")});
  ASSERT_EQ(cloud_.held().WaitAndList(std::chrono::seconds(20)).size(), 1U);
  (void)client.Terminate();
  while (!cloud_.held().List().empty()) std::this_thread::yield();
}

TEST_F(ControlTest, StoppingEndsTheHolding) {
  Call("POST", "/v1/faults", R"({"path":"/held","hold":true,"status":200})");
  HeldClient client(cloud_.authority().certificate_pem(), Url("/held"));
  ASSERT_EQ(cloud_.held().WaitAndList(std::chrono::seconds(20)).size(), 1U);
  cloud_.Stop();
  EXPECT_NE(client.Answer().result, CURLE_OK);
  EXPECT_TRUE(cloud_.held().WaitAndList(std::chrono::hours(1)).empty()) << "waits no more";
}

TEST_F(ControlTest, RequestsCanBeReadWaitedForAndCleared) {
  auto waiting = std::async(std::launch::async, [this] {
    return HttpClient().Send({.url = cloud_.control().Url() + "/v1/requests?path=/late&wait=20"});
  });
  (void)PostForm("/early", {{"a", "1"}});
  (void)PostForm("/late", {});
  EXPECT_EQ(Parse(waiting.get())[0]["path"], "/late");
  const Json::Value all = Parse(Call("GET", "/v1/requests"));
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0]["body"], "a=1");
  EXPECT_EQ(all[0]["headers"][0][0], "Host");
  const std::string after = "/v1/requests?after=" + all[0]["id"].asString();
  EXPECT_EQ(Parse(Call("GET", after)).size(), 1U);
  EXPECT_EQ(Call("GET", "/v1/requests?after=x").status, 400);
  EXPECT_EQ(Call("DELETE", "/v1/requests").status, 204);
  EXPECT_EQ(Call("GET", "/v1/requests").body, "[]");
}

TEST_F(ControlTest, StoppingEndsTheWaiting) {
  auto waiting = std::async(std::launch::async, [this] {
    return HttpClient().Send({.url = cloud_.control().Url() + "/v1/requests?wait=60"});
  });
  ASSERT_TRUE(cloud_.control().WaitForRequests(1));
  cloud_.Stop();
  (void)waiting.get();
}

TEST_F(ControlTest, TheCertificateCanBeSwitched) {
  EXPECT_EQ(Parse(Call("PUT", "/v1/tls",
                       R"({"certificate":"expired","highest_version":"1.2"})"))["certificate"],
            "expired");
  EXPECT_EQ(Parse(Call("GET", "/v1/tls"))["highest_version"], "1.2");
  EXPECT_EQ(Call("PUT", "/v1/tls", R"({"certificate":"rusty"})").status, 400);
  EXPECT_EQ(Parse(Call("PUT", "/v1/tls", "{}"))["certificate"], "good");
  EXPECT_EQ(Call("GET", "/v1/ca").body, cloud_.authority().certificate_pem());
}

TEST_F(ControlTest, BadBodiesAreRefused) {
  for (const char* body :
       {"", "[]", "null", "{", R"({"email":"x"})", R"({"password":"x"})",
        R"({"email":7,"password":"x"})", R"({"email":"x","password":"x","enews":"yes"})",
        R"({"email":"x","password":"x","typo":1})", R"({"email":"x","password":"x","state":""})",
        R"({"email":"x","password":"x","critical_version_list":{"a":1}})",
        R"({"email":"x","password":"x","critical_version_list":[]})",
        R"({"email":"x","password":"x","report_cron_timestring":1})"}) {
    EXPECT_EQ(Call("POST", "/v1/accounts", body).status, 400) << body;
  }
  EXPECT_EQ(Call("POST", "/v1/devices", R"({"serial":"-","mac":"02:00:5e:10:00:02"})").status, 400);
  EXPECT_EQ(Call("POST", "/v1/devices", R"({"serial":"NL2","mac":"x"})").status, 400);
  EXPECT_EQ(Call("POST", "/v1/accounts", R"({"email":"anna@example.org","password":"p"})").status,
            409);
  EXPECT_EQ(Call("PUT", "/v1/devices/NL2/link", R"({"account":"x"})").status, 404);
}

TEST_F(ControlTest, WebPagesOfStrangersAreKeptOut) {
  for (const char* host :
       {"evil.example", "127.0.0.1.evil.example", "192.0.2.1", "[::2]", "[", ""}) {
    EXPECT_EQ(Call("GET", "/v1/accounts", {}, {std::string("Host: ") + host}).status, 403) << host;
  }
  for (const char* host : {"localhost:1", "127.0.0.2", "[::1]:8079"}) {
    EXPECT_EQ(Call("GET", "/v1/accounts", {}, {std::string("Host: ") + host}).status, 200) << host;
  }
  EXPECT_EQ(Call("GET", "/v1/accounts", {}, {"Origin: https://evil.example"}).status, 403);
  EXPECT_EQ(Call("POST", "/v1/tokens/1/expire", "", {"Origin: null"}).status, 403);
  EXPECT_EQ(Call("GET", "/v1/accounts", {}, {"Sec-Fetch-Site: cross-site"}).status, 403);
  EXPECT_EQ(Call("GET", "/v1/accounts", {}, {"Sec-Fetch-Site: same-site"}).status, 403);
  EXPECT_EQ(Call("POST", "/v1/tokens/1/expire", "",
                 {"Sec-Fetch-Site: cross-site", "Sec-Fetch-Mode: navigate"})
                .status,
            403);
  EXPECT_EQ(Call("GET", "/v1/accounts", {}, {"Sec-Fetch-Site: same-origin"}).status, 200);
  const std::string own = cloud_.control().Url();
  EXPECT_EQ(Call("GET", "/v1/accounts", {}, {"Origin: " + own}).status, 200);
}

}  // namespace
}  // namespace devcloud_test
