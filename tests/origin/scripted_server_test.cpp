#include "origin/scripted_server.hpp"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "origin/byte_range.hpp"
#include "origin/curl_client.hpp"

namespace tidalcrest::origin {
namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;

TEST(ByteRange, ReadsWhatAClientMayAskFor) {
  using Kind = RangeDecision::Kind;
  struct Case {
    const char* header;
    std::uint64_t size;
    Kind kind;
    std::uint64_t first = 0;
    std::uint64_t last = 0;
  };
  for (const auto& c : {
           Case{"bytes=0-", 10, Kind::PART, 0, 9},
           Case{"bytes=4-6", 10, Kind::PART, 4, 6},
           Case{"bytes=4-99", 10, Kind::PART, 4, 9},
           Case{"bytes=9-9", 10, Kind::PART, 9, 9},
           Case{"bytes=-3", 10, Kind::PART, 7, 9},
           Case{"bytes=-99", 10, Kind::PART, 0, 9},
           Case{"bytes=10-", 10, Kind::UNSATISFIABLE},
           Case{"bytes=-0", 10, Kind::UNSATISFIABLE},
           Case{"bytes=0-", 0, Kind::UNSATISFIABLE},
           Case{"bytes=-5", 0, Kind::UNSATISFIABLE},
           Case{"bytes=6-4", 10, Kind::WHOLE},
           Case{"bytes=-", 10, Kind::WHOLE},
           Case{"bytes=a-4", 10, Kind::WHOLE},
           Case{"bytes=0-1,3-4", 10, Kind::WHOLE},
           Case{"bytes=99999999999999999999-", 10, Kind::WHOLE},
           Case{"lines=0-1", 10, Kind::WHOLE},
       }) {
    SCOPED_TRACE(c.header);
    const auto got = decide_range(c.header, c.size);
    EXPECT_EQ(got.kind, c.kind);
    EXPECT_EQ(got.first, c.first);
    EXPECT_EQ(got.last, c.last);
  }
}

TEST(ScriptedServer, ServesRangesOnOneConnection) {
  ScriptedServer server;
  server.serve("/a", "0123456789", {{"X-Name", "a"}});
  CurlClient client;

  const auto whole = client.get(server.url() + "/a?x=1");
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.body, "0123456789");
  EXPECT_EQ(whole.header("x-name"), "a");
  const auto part = client.get(server.url() + "/a", {"Range: bytes=3-5"});
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, "345");
  EXPECT_EQ(part.header("content-range"), "bytes 3-5/10");
  const auto beyond = client.get(server.url() + "/a", {"Range: bytes=10-"});
  EXPECT_EQ(beyond.status, 416);
  EXPECT_EQ(beyond.header("content-range"), "bytes */10");
  EXPECT_EQ(client.get(server.url() + "/none").status, 404);
  for (const std::string no_range : {"lines=3-5", "bytes=5-3", "bytes=0-1,3-4"}) {
    const auto all = client.get(server.url() + "/a", {"Range: " + no_range});
    EXPECT_EQ(all.status, 200) << no_range;
    EXPECT_EQ(all.body, "0123456789") << no_range;
  }

  EXPECT_THAT(server.ranges_asked("/a"),
              ElementsAre("", "bytes=3-5", "bytes=10-", "lines=3-5", "bytes=5-3", "bytes=0-1,3-4"));
  EXPECT_EQ(server.requests().size(), 7u);
  EXPECT_EQ(server.connections_opened(), 1u);
}

TEST(ScriptedServer, RepliesInTurnAndRepeatsTheLast) {
  ScriptedServer server;
  server.script("/s", {{.status = 503, .headers = {{"Retry-After", "1"}}}, {.body = "fine"}});
  server.set_fallback([](const RecordedRequest& request) {
    return std::optional<Reply>(Reply{.status = 202, .body = request.method + request.path});
  });
  CurlClient client;
  EXPECT_EQ(client.get(server.url() + "/s").status, 503);
  EXPECT_EQ(client.get(server.url() + "/s").body, "fine");
  EXPECT_EQ(client.get(server.url() + "/s").body, "fine");
  EXPECT_EQ(client.get(server.url() + "/other").body, "GET/other");
}

TEST(ScriptedServer, MisbehavesAtTheGivenByte) {
  const std::string body(1'000'000, 'x');
  struct Case {
    const char* label;
    Reply reply;
    CURLcode code;
    std::size_t received;
  };
  for (const auto& c : {
           Case{"cut", {.body = body, .cut_after = 700'001}, CURLE_PARTIAL_FILE, 700'001},
           Case{"cut at once", {.body = body, .cut_after = 0}, CURLE_PARTIAL_FILE, 0},
           Case{"reset", {.body = body, .reset_after = 600'001}, CURLE_RECV_ERROR, 600'001},
           Case{"claims more", {.headers = {{"Content-Length", "9"}}, .body = "abc"}, CURLE_PARTIAL_FILE, 3},
           Case{"chunked", {.body = body, .chunked = true}, CURLE_OK, 1'000'000},
           Case{"chunked and cut", {.body = body, .cut_after = 5, .chunked = true}, CURLE_PARTIAL_FILE, 5},
           Case{
               "short stall", {.body = body, .stall_after = 500, .stall_seconds = 0.05}, CURLE_OK, 1'000'000},
       }) {
    SCOPED_TRACE(c.label);
    ScriptedServer server;
    server.script("/f", {c.reply});
    const auto got = CurlClient().get(server.url() + "/f");
    EXPECT_EQ(got.code, c.code) << curl_easy_strerror(got.code);
    EXPECT_EQ(got.body.size(), c.received);
  }
}

TEST(ScriptedServer, StopsAtOnceWhileRepliesStallAndConnectionsIdle) {
  auto server = std::make_unique<ScriptedServer>();
  server->script("/stall", {{.body = "0123456789", .stall_after = 4}});
  server->script("/delay", {{.delay_seconds = 60}});
  server->serve("/ok", "ok");
  CurlClient idle;
  EXPECT_EQ(idle.get(server->url() + "/ok").body, "ok");
  std::vector<std::thread> clients;
  for (int i = 0; i < 20; ++i) {
    clients.emplace_back([url = server->url() + (i % 2 ? "/stall" : "/delay"), i] {
      const auto got = CurlClient().get(url);
      EXPECT_NE(got.code, CURLE_OK);
      // The request counts before its first bytes are out, so the end may cut into them.
      EXPECT_TRUE(std::string_view(i % 2 ? "0123" : "").starts_with(got.body));
    });
  }
  const auto limit = steady_clock::now() + std::chrono::seconds(20);
  while (server->requests().size() < 21 && steady_clock::now() < limit) std::this_thread::yield();
  ASSERT_EQ(server->requests().size(), 21u);
  const auto before = steady_clock::now();
  server.reset();
  EXPECT_LT(steady_clock::now() - before, std::chrono::seconds(5));
  for (auto& client : clients) client.join();
}

}  // namespace
}  // namespace tidalcrest::origin
