#include "origin/origin.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/digest.hpp"
#include "host/json.hpp"
#include "origin/curl_client.hpp"
#include "origin/disk.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* FEATURE = "features/u1/signal_is/a__b__c__d.arrow";

class OriginTest : public testing::Test {
 protected:
  CurlResult api(const std::string& path, const std::optional<std::string>& post = {}) {
    return client.send(origin.server_url() + path, {.headers = {authorization()}, .post = post});
  }
  CurlResult data(const std::string& path, const std::vector<std::string>& headers = {}) {
    const std::string base = origin.current().manifest.at("base_url");
    return client.send(base + "/" + path, {.headers = headers});
  }
  std::string authorization() const { return "Authorization: Bearer " + origin.token(); }

  Origin origin;
  CurlClient client;
  ManifestBuilder content = ManifestBuilder{}.feature("u1", "signal_is", "a__b__c__d", "0123456789");
};

TEST_F(OriginTest, ServesWhatItPublished) {
  EXPECT_EQ(api("/data/manifest").status, 404);
  const auto first = origin.publish(content);
  EXPECT_EQ(api("/data/manifest").body, first.manifest_bytes);
  EXPECT_EQ(data("manifest.json").body, first.manifest_bytes);
  EXPECT_EQ(data(FEATURE).body, "0123456789");
  EXPECT_EQ(sync::parse_json(api("/data/manifest/version").body),
            (Document{{"version", 1},
                      {"era_number", 1},
                      {"market_id", 1},
                      {"manifest_sha256", sync::sha256_hex(first.manifest_bytes)}}));
  const auto seed = api("/data/shuffle");
  EXPECT_EQ(seed.body.size(), 60u);
  EXPECT_EQ(seed.header("X-Era-Number"), "1");
  EXPECT_EQ(seed.header("X-TidalCrest-Shuffle-Key-Generation"), "market-era-v1");
  EXPECT_EQ(seed.header("X-TidalCrest-Shuffle-Key-Source"), "");

  const auto second =
      origin.publish(content.file("extra.bin", "x", "reference").set("shuffle_key_source", "vault"));
  EXPECT_EQ(second.manifest.at("version"), 2);
  EXPECT_EQ(api("/data/manifest").body, second.manifest_bytes);
  EXPECT_EQ(api("/data/shuffle").header("X-TidalCrest-Shuffle-Key-Source"), "vault");
  EXPECT_EQ(client.send(first.manifest.at("base_url").get<std::string>() + "/" + FEATURE).body, "0123456789");
}

TEST_F(OriginTest, TheApiWantsTheTokenAndTheDataOriginNone) {
  origin.publish(content);
  const std::pair<std::vector<std::string>, long> cases[] = {
      {{}, 401},
      {{authorization()}, 401},
      {{"Authorization: Bearer another2"}, 401},
      {{"Authorization: Basic another"}, 401},
      {{"authorization: Bearer another"}, 200},
  };
  origin.set_token("another");
  for (const auto& [headers, status] : cases) {
    SCOPED_TRACE(::testing::PrintToString(headers));
    const auto got = client.send(origin.server_url() + "/data/manifest/version", {.headers = headers});
    EXPECT_EQ(got.status, status);
    EXPECT_EQ(client.send(origin.server_url() + "/control/faults", {.headers = headers}).status, status);
  }
  EXPECT_EQ(data(FEATURE).status, 200);
}

TEST_F(OriginTest, OnlyFilesOfAReleaseAreServed) {
  origin.publish(content);
  const std::string base = origin.data_url();
  for (const char* path :
       {"/token", "/releases/m1-e1-v1", "/releases/m1-e1-v1/features", "/releases/../token",
        "/releases/m1-e1-v1/../../wallet_secret.hex", "/releases//token", "/", "/state.json"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(client.send(base, {.target = path}).status, 404);
  }
  EXPECT_EQ(client.send(base + "/releases/m1-e1-v1/" + FEATURE, {.post = "x"}).status, 405);
}

TEST_F(OriginTest, ServesTheRangeThatIsAskedFor) {
  origin.publish(content);
  const struct {
    const char* range;
    long status;
    const char* body;
  } cases[] = {{"bytes=4-6", 206, "456"},
               {"bytes=4-99", 206, "456789"},
               {"bytes=-3", 206, "789"},
               {"bytes=-99", 206, "0123456789"},
               {"bytes=10-", 416, ""},
               {"bytes=-0", 416, ""},
               {"bytes=6-4", 200, "0123456789"},
               {"bytes=0-1,3-4", 200, "0123456789"},
               {"bytes=99999999999999999999-", 200, "0123456789"},
               {"lines=0-1", 200, "0123456789"}};
  for (const auto& [range, status, body] : cases) {
    const auto got = data(FEATURE, {std::string("Range: ") + range});
    EXPECT_EQ(got.status, status) << range;
    EXPECT_EQ(got.body, body) << range;
  }
}

TEST_F(OriginTest, FaultsHitTheRequestsTheyAreMeantFor) {
  origin.publish(content);
  const std::vector<std::string> tail = {"Range: bytes=4-"};
  struct Case {
    const char* spec;
    CURLcode code;
    long status;
    const char* body;
  };
  for (const auto& c : {
           Case{"features/* status=503 body={\"retryable\": false}", CURLE_OK, 503, "{\"retryable\": false}"},
           Case{"features/* body body=instead", CURLE_OK, 200, "instead"},
           Case{"*/a__b__?__d.arrow cut=2", CURLE_PARTIAL_FILE, 206, "45"},
           Case{"features/* reset=3", CURLE_RECV_ERROR, 206, "456"},
           Case{"features/* stall=3 seconds=0.01", CURLE_OK, 206, "456789"},
           Case{"features/* delay=0.01", CURLE_OK, 206, "456789"},
           Case{"features/* ignore-range", CURLE_OK, 200, "0123456789"},
           Case{"features/* 416", CURLE_OK, 416, ""},
           Case{"features/* wrong-bytes=5", CURLE_OK, 206, "45678\xC6"},
           Case{"features/* status=404 skip=1", CURLE_OK, 206, "456789"},
           Case{"features/u2/* status=404", CURLE_OK, 206, "456789"},
       }) {
    SCOPED_TRACE(c.spec);
    origin.clear_faults();
    const auto [pattern, fault] = parse_fault(c.spec);
    origin.fault(pattern, fault);
    const auto got = data(FEATURE, tail);
    EXPECT_EQ(got.code, c.code) << curl_easy_strerror(got.code);
    EXPECT_EQ(got.status, c.status);
    EXPECT_EQ(got.body, c.body);
  }
  origin.clear_faults();
  origin.fault("/data/manifest", {.status = 500, .headers = {{"Retry-After", "7"}}, .count = 2});
  EXPECT_EQ(api("/data/manifest").header("Retry-After"), "7");
  EXPECT_EQ(api("/data/manifest/version").status, 200);
  EXPECT_EQ(api("/data/manifest").status, 500);
  EXPECT_EQ(api("/data/manifest").status, 200);
  for (const char* text : {"", "x", "x y", "x cut=a", "x cut=1 often", "x delay=-1"}) {
    EXPECT_THROW(parse_fault(text), sync::ValueError) << text;
  }
}

TEST_F(OriginTest, FaultsCanBeSetWhileItRuns) {
  origin.publish(content);
  const char* const faults = "/control/faults";
  EXPECT_EQ(api(faults, "features/* 416\n\nnonsense").status, 400);
  EXPECT_EQ(data(FEATURE).status, 200);
  EXPECT_EQ(api(faults, "features/* 416\nfeatures/* status=500\n").status, 200);
  EXPECT_EQ(data(FEATURE).status, 416);
  EXPECT_EQ(data(FEATURE).status, 500);
  const auto list = sync::parse_json(api(faults).body);
  EXPECT_EQ(list.at(1), (Document{{"pattern", "features/*"}, {"hits", 1}, {"used_up", true}}));
}

TEST_F(OriginTest, TheReleaseSwitchesInMidDownload) {
  origin.publish(content);
  const auto next = origin.prepare(ManifestBuilder(content).feature("u1", "signal_is", "a__b__c__d", "abc"));
  origin.fault(FEATURE, {.kind = Fault::Kind::SWITCH, .after = 5});
  EXPECT_EQ(origin.current().manifest.at("version"), 1);
  EXPECT_EQ(data(FEATURE).body, "0123456789");
  EXPECT_EQ(api("/data/manifest").body, next.manifest_bytes);
  EXPECT_EQ(data(FEATURE).body, "abc");

  int calls = 0;
  origin.on_request("/data/manifest/version", [&] {
    ++calls;
    origin.publish(content);
  });
  EXPECT_EQ(sync::parse_json(api("/data/manifest/version").body).at("version"), 2);
  EXPECT_EQ(sync::parse_json(api("/data/manifest/version").body).at("version"), 3);
  EXPECT_EQ(calls, 1);
}

TEST_F(OriginTest, TakesUpWhatAnotherUserOfTheTreePublishes) {
  origin.publish(content);
  EXPECT_EQ(sync::parse_json(api("/data/manifest/version").body).at("version"), 1);
  const OriginTree other(origin.tree().root());
  other.make_current(other.add_release(content).name);
  EXPECT_EQ(sync::parse_json(api("/data/manifest/version").body).at("version"), 2);
  other.move_data_origin("https://data.example");
  const auto manifest = api("/data/manifest").body;
  EXPECT_EQ(sync::parse_json(manifest).at("base_url"), "https://data.example/releases/m1-e1-v2");
  EXPECT_EQ(sync::parse_json(api("/data/manifest/version").body).at("manifest_sha256"),
            sync::sha256_hex(manifest));
}

}  // namespace
}  // namespace tidalcrest::origin
