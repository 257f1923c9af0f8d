// Who gets what of a served board's page.
#include <gmock/gmock.h>

#include "testing/build.h"
#include "testing/program_output.h"
#include "tests/quilctl/test_run.h"
#include "tools/quilctl/page/page_files.h"
#include "tools/quilctl/page/page_gate.h"

namespace quil::tests {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// What a browser with the page open sends.
httplib::Request pageRequest(const std::string& method = "GET", const std::string& path = "/") {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.headers = {{"Host", "127.0.0.1:8080"}, {"Cookie", "a=b; quil_8080=secret; c=d"}};
    if (method == "POST") {
        request.headers.emplace("Origin", "http://127.0.0.1:8080");
        request.headers.emplace("Content-Type", "application/json");
    }
    return request;
}

void setHeader(httplib::Request& request, const std::string& name, const std::string& value) {
    request.headers.erase(name);
    if (!value.empty()) request.headers.emplace(name, value);
}

int statusOf(const httplib::Request& request) {
    const auto refusal = tools::PageGate{8080, "secret"}.refusalFor(request);
    return refusal ? refusal->status : 200;
}

TEST(QuilctlPageGate, LetsThePageIn) {
    EXPECT_EQ(statusOf(pageRequest()), 200);
    EXPECT_EQ(statusOf(pageRequest("POST", "/run")), 200);
}

TEST(QuilctlPageGate, AsksForTheTokenInACookie) {
    for (const std::string cookie :
         {"", "quil_8080=", "quil_8080=secre", "quil_8080=secrets", "quil_8081=secret",
          "xquil_8080=secret", "quil_8080", ";;=;", "quil_8080 =secret"}) {
        auto request = pageRequest();
        setHeader(request, "Cookie", cookie);
        EXPECT_EQ(statusOf(request), 401) << cookie;
    }
}

TEST(QuilctlPageGate, TakesTheTokenOfTheAddressOnceAtItsStart) {
    auto request = pageRequest();
    setHeader(request, "Cookie", "");
    request.params = {{"token", "secret"}};
    EXPECT_EQ(statusOf(request), 200);
    request.path = "/events";
    EXPECT_EQ(statusOf(request), 401);
    request.path = "/";
    request.params = {{"token", "secre"}};
    EXPECT_EQ(statusOf(request), 401);
}

TEST(QuilctlPageGate, RefusesAnotherHost) {
    for (const std::string host : {"", "evil.example", "127.0.0.1", "127.0.0.1:8081",
                                   "localhost:8080", "127.0.0.1:8080.evil.example"}) {
        auto request = pageRequest();
        setHeader(request, "Host", host);
        EXPECT_EQ(statusOf(request), 403) << host;
    }
}

TEST(QuilctlPageGate, RefusesAnotherOriginAndAPostWithoutOne) {
    for (const std::string origin : {"http://evil.example", "null", "https://127.0.0.1:8080"}) {
        for (const char* method : {"GET", "POST"}) {
            auto request = pageRequest(method, "/run");
            setHeader(request, "Origin", origin);
            EXPECT_EQ(statusOf(request), 403) << origin;
        }
    }
    auto request = pageRequest("POST", "/run");
    setHeader(request, "Origin", "");
    EXPECT_EQ(statusOf(request), 403);
}

TEST(QuilctlPageGate, RefusesOtherMethodsAndFormsOfOtherPages) {
    for (const char* method : {"PUT", "DELETE", "OPTIONS", "HEAD", "PATCH", "TRACE", "get", ""}) {
        EXPECT_EQ(statusOf(pageRequest(method)), 405) << method;
    }
    auto request = pageRequest("POST", "/run");
    setHeader(request, "Content-Type", "text/plain");
    EXPECT_EQ(statusOf(request), 415);
}

TEST(QuilctlPageCommand, IsOneOfTheTableInItsJsonForm) {
    const auto get = tools::pageCommandIn(R"({"words":["get","0x102","--data","0A"]})");
    ASSERT_TRUE(get);
    EXPECT_THAT(get->words,
                ElementsAre("--json", "--progress", "json", "get", "0x102", "--data", "0A"));
    EXPECT_FALSE(get->atOnce);
    EXPECT_TRUE(tools::pageCommandIn(R"({"words":["power","cut"]})")->atOnce);
    EXPECT_TRUE(tools::pageCommandIn(R"({"words":["commands","list"]})")->isLocal);
}

TEST(QuilctlPageCommand, WritesNoFileAndTakesNoOtherBoard) {
    for (const char* body :
         {"", "7", "[]", "{}", "{\"words\":7}", "{\"words\":[]}", "{\"words\":[7]}",
          "{\"words\":[\"get\",[\"1\"]]}", R"({"words":["board","new","/tmp/x"]})",
          R"({"words":["mcu","read","/tmp/x"]})", R"({"words":["serve"]})",
          R"({"words":["get","1","--trace","/tmp/x.txt"]})",
          R"({"words":["get","1","--trace=/tmp/x.txt"]})", R"({"words":["--trace=x.txt","get"]})",
          R"({"words":["get","1","--board","/tmp"]})", R"({"words":["power"]})",
          R"({"words":["powercut"]})"}) {
        EXPECT_FALSE(tools::pageCommandIn(body)) << body;
    }
}

TEST(QuilctlPageFiles, AskNobodyElseAndPutNoTextIntoMarkup) {
    for (const auto& [name, view] : tools::pageFiles()) {
        std::string text(view);
        for (const std::string known : {"http://www.w3.org/2000/svg"}) {
            while (text.find(known) != std::string::npos)
                text.erase(text.find(known), known.size());
        }
        EXPECT_THAT(text, AllOf(Not(HasSubstr("http:")), Not(HasSubstr("https:")),
                                Not(HasSubstr("innerHTML")), Not(HasSubstr("outerHTML")),
                                Not(HasSubstr("insertAdjacent")), Not(HasSubstr("document.write")),
                                Not(HasSubstr("eval(")), Not(HasSubstr("onclick"))))
            << name;
    }
    EXPECT_TRUE(tools::pageFiles().contains("/index.html"));
}

TEST(QuilctlPageToken, IsAnotherEachTime) {
    EXPECT_EQ(tools::newToken().size(), 32U);
    EXPECT_NE(tools::newToken(), tools::newToken());
}

// The program itself, asked as a browser and as others would ask it.
class QuilctlPage : public QuilctlRun {
  protected:
    void SetUp() override {
        if (!std::string(QUIL_EMULATOR).empty()) {
            GTEST_SKIP() << "a page's process is not started through the emulator";
        }
    }
};

TEST_F(QuilctlPage, ServesItsUserAndRefusesEverybodyElse) {
    const std::string board = newBoard();
    const std::string quil =
        QUIL_EMULATOR " '" QUIL_BIN_DIR "/quilctl' --quiet --board '" + board + "' ";
    const std::string script =
        quil + "serve --web > '" + board + ".said' & server=$!\n" +
        "tries=0; until grep -qs token= '" + board +
        ".said' || [ $((tries += 1)) -gt 9999 ]; do :; done\n" + "url=$(grep -o 'http://.*' '" +
        board + ".said'); origin=${url%%/?token*}\n" +
        "ask() { curl -s -o /dev/null -w '%{http_code} ' \"$@\"; }\n" +
        "ask $origin/; ask \"$origin/?token=0\"; ask -c '" + board + ".jar' \"$url\"\n" +
        "ask -b '" + board + ".jar' $origin/; ask -b '" + board + ".jar' $origin/none\n" +
        "ask -b '" + board + ".jar' -H 'Host: evil.example' $origin/\n" + "ask -b '" + board +
        ".jar' -H \"Origin: $origin\" -H 'Content-Type: application/json' " +
        "--data '{\"words\":[\"get\",\"version\"]}' $origin/run\n" +
        "head -c 99999 /dev/zero | ask -b '" + board + ".jar' -H \"Origin: $origin\" " +
        "-H 'Content-Type: application/json' --data-binary @- $origin/run\n" +
        "kill -TERM $server; wait; ask $origin/";
    EXPECT_EQ(outputOf("(" + script + ") 2>&1"), "401 401 303 200 404 403 200 413 000 ");
}

}  // namespace
}  // namespace quil::tests
