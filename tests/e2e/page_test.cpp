// The files of the trend page, as a browser gets them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "support/plant.h"

namespace orva::test {
namespace {

using ::testing::HasSubstr;

class PageTest : public ::testing::Test {
 protected:
  // A host with a folder "pages" beside its configuration.
  static PlantConfig withPages(const std::string& more = {}) {
    PlantConfig config;
    config.http = R"({"port": 0, "web": "pages")" + more + "}";
    return config;
  }
  static void writePages(const Plant& plant) {
    std::filesystem::create_directories(plant.folder().path("pages/js"));
    plant.folder().write("pages/index.html", "<p>trend");
    plant.folder().write("pages/state.html", "<p>state");
    plant.folder().write("pages/js/page.js", "draw()");
    plant.folder().write("pages/notes.md", "not for browsers");
    plant.folder().write("secret.txt", "secret");
    std::filesystem::create_symlink(plant.folder().path("secret.txt"),
                                    plant.folder().path("pages/link.txt"));
  }
};

TEST_F(PageTest, EachFileHasItsPathAndType) {
  Plant plant(withPages());
  writePages(plant);
  ASSERT_TRUE(plant.start());
  const std::pair<const char*, const char*> kPages[] = {{"/", "<p>trend"},
                                                        {"/index.html", "<p>trend"},
                                                        {"/?from=1&to=2", "<p>trend"},
                                                        {"/state", "<p>state"},
                                                        {"/js/page.js", "draw()"}};
  for (const auto& [path, body] : kPages) {
    const HttpReply reply = httpGet(plant.port(), path);
    EXPECT_EQ(reply.status, 200) << path;
    EXPECT_EQ(reply.body, body) << path;
    EXPECT_THAT(reply.field("Content-Security-Policy"), HasSubstr("default-src 'none'"));
    EXPECT_EQ(reply.field("X-Content-Type-Options"), "nosniff");
  }
  EXPECT_EQ(httpGet(plant.port(), "/").field("Content-Type"), "text/html; charset=utf-8");
  EXPECT_EQ(httpGet(plant.port(), "/js/page.js").field("Content-Type"),
            "text/javascript; charset=utf-8");
}

TEST_F(PageTest, NoPathLeadsOutOfTheFolder) {
  Plant plant(withPages());
  writePages(plant);
  ASSERT_TRUE(plant.start());
  for (const char* path :
       {"/../secret.txt", "/js/../../secret.txt", "/%2e%2e/secret.txt", "/..%2fsecret.txt",
        "//secret.txt", "/js//page.js", "/link.txt", "/notes.md", "/js", "/js/",
        "/pages/index.html", "/index.html/", "/INDEX.HTML"}) {
    const HttpReply reply = httpGet(plant.port(), path);
    EXPECT_EQ(reply.status, 404) << path;
    EXPECT_EQ(reply.body.find("secret"), std::string::npos) << path;
  }
}

TEST_F(PageTest, WhatTheBrowserHasIsNotSentAgain) {
  Plant plant(withPages());
  writePages(plant);
  ASSERT_TRUE(plant.start());
  const HttpReply first = httpGet(plant.port(), "/");
  const std::string tag = first.field("ETag");
  ASSERT_FALSE(tag.empty());
  EXPECT_EQ(first.field("Cache-Control"), "no-cache");
  const HttpReply again = httpGet(plant.port(), "/", "If-None-Match: " + tag + "\r\n");
  EXPECT_EQ(again.status, 304);
  EXPECT_EQ(again.body, "");
  EXPECT_EQ(again.field("ETag"), tag);
  EXPECT_EQ(httpGet(plant.port(), "/state", "If-None-Match: " + tag + "\r\n").status, 200);
}

// On one connection, as browsers do: the reply without a body must not confuse the next one.
TEST_F(PageTest, AnAnswerWithoutABodyKeepsTheConnection) {
  Plant plant(withPages());
  writePages(plant);
  ASSERT_TRUE(plant.start());
  const std::string tag = httpGet(plant.port(), "/").field("ETag");
  HttpConnection connection(plant.port());
  connection.send(httpRequest("GET", "/", {}, "If-None-Match: " + tag + "\r\n"));
  EXPECT_EQ(connection.receive().status, 304);
  connection.send(httpRequest("GET", "/state"));
  EXPECT_EQ(connection.receive().body, "<p>state");
}

TEST_F(PageTest, ThePageIsServedWithoutATokenAndItsDataAreNot) {
  Plant plant(withPages(R"(, "token": "abc")"));
  writePages(plant);
  ASSERT_TRUE(plant.start());
  EXPECT_EQ(httpGet(plant.port(), "/").status, 200);
  EXPECT_EQ(httpGet(plant.port(), "/js/page.js").status, 200);
  for (const char* path : {"/api/items", "/api/history?item=a", "/metrics", "/no.js"}) {
    EXPECT_EQ(httpGet(plant.port(), path).status, 401) << path;
  }
  EXPECT_EQ(httpGet(plant.port(), "/api/items", "Authorization: Bearer abc\r\n").status, 200);
}

TEST_F(PageTest, AHostWithoutPagesSaysWhatIsMissing) {
  Plant plant(withPages());
  ASSERT_TRUE(plant.start());
  const HttpReply reply = httpGet(plant.port(), "/");
  EXPECT_EQ(reply.status, 404);
  EXPECT_EQ(reply.field("Content-Type"), "text/plain; charset=utf-8");
  EXPECT_THAT(reply.body, HasSubstr("there is no index.html in " + plant.folder().path("pages")));
  EXPECT_EQ(httpGet(plant.port(), "/api/items").status, 200);
}

TEST_F(PageTest, AFolderThatIsNoPageIsNotServed) {
  Plant plant(withPages());
  writePages(plant);
  plant.folder().write("pages/large.txt", std::string((8U << 20) + 1, 'x'));
  ASSERT_TRUE(plant.start());
  EXPECT_THAT(httpGet(plant.port(), "/").body, HasSubstr("more than 8 MB"));
  EXPECT_EQ(httpGet(plant.port(), "/state").status, 404);
}

// Pages count "now" from it: the controller's clock may differ from the browser's.
TEST_F(PageTest, EveryAnswerTellsTheHostsTime) {
  Plant plant(withPages());
  ASSERT_TRUE(plant.start());
  const std::int64_t told = std::stoll(httpGet(plant.port(), "/api/items").field("X-Orva-Time"));
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  EXPECT_LE(told, now);
  EXPECT_GT(told, now - 60'000);
}

}  // namespace
}  // namespace orva::test
