#include "artifacts/shuffle_seed.hpp"

#include "artifacts/fixture.hpp"
#include "origin/generated_bytes.hpp"
#include "tidalcrest/sync/constants.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

constexpr const char* CIPHERTEXT = "shuffle_seed.enc";
constexpr const char* METADATA = "shuffle_seed.enc.meta.json";

TEST(ShuffleKey, CoercesWhatTheManifestAndTheHeadersSay) {
  for (const Document& blank : {Document(nullptr), Document(""), Document(" \t")}) {
    EXPECT_EQ(_coerce_shuffle_key_generation(blank), std::nullopt);
    EXPECT_EQ(_coerce_shuffle_key_source(blank), std::nullopt);
  }
  EXPECT_EQ(_coerce_shuffle_key_generation(" market-era-v1 "), "market-era-v1");
  EXPECT_EQ(failure_of([] { _coerce_shuffle_key_generation(2); }),
            "SyncError: unknown shuffle_key_generation '2'");
  EXPECT_EQ(_coerce_shuffle_key_source(" vault "), "vault");
  for (const std::string& text : {std::string("a\rb"), std::string("a\nb"), std::string("a\0b", 3)}) {
    EXPECT_EQ(failure_of([&] { _coerce_shuffle_key_source(text); }),
              "SyncError: shuffle_key_source must be a single-line string");
  }
}

class ShuffleSeedTest : public ::testing::Test {
 protected:
  ShuffleSeedTest() {
    net.credentials.set_get_wallet_secret([this] { return std::optional(secret); });
  }
  std::string manifest_bytes() const { return dump_json(data); }
  origin::Reply reply(const std::string& body, const std::string& era = "7") const {
    return {.headers = {{"X-Era-Number", era}}, .body = body};
  }
  bool download() const {
    const std::string bytes = manifest_bytes();
    return seed._download_shuffle_seed(Manifest(data), net.data.path(), &bytes);
  }
  std::string validation() const {
    return failure_of([&] { seed._validate_shuffle_seed_at_root(net.data.path(), manifest_bytes()); });
  }

  // The vector of market 1 and era 7.
  const Document vector = seed_vector(1);
  std::string secret = origin::from_hex(vector["wallet_secret"]);
  const std::string ciphertext = origin::from_hex(vector["ciphertext"]);
  Document data = {{"era_number", 7}, {"market_id", 1}, {"files", Document::object()}};
  Network net;
  ShuffleSeed seed{net.server.url(), net.http, net.active, net.seams};
};

TEST_F(ShuffleSeedTest, IsFetchedWithTheTokenProvenAndKeptForItsManifest) {
  net.server.script("/data/shuffle", {reply(ciphertext)});
  EXPECT_TRUE(download());
  EXPECT_EQ(net.data.read(CIPHERTEXT), ciphertext);
  EXPECT_EQ(validation(), "nothing");
  EXPECT_THAT(net.log.lines(LogLevel::warning), SizeIs(1));
  EXPECT_FALSE(download());
  ASSERT_EQ(net.server.requests("/data/shuffle").size(), 1u);
  EXPECT_EQ(net.server.requests()[0].header("Authorization"), "Bearer token");
  data["version"] = 2;
  EXPECT_TRUE(download());
  EXPECT_EQ(validation(), "nothing");
}

TEST_F(ShuffleSeedTest, TakesRootAndBytesOfTheActiveCohortByDefault) {
  net.server.script("/data/shuffle", {reply(ciphertext)});
  EXPECT_EQ(failure_of([&] { seed._download_shuffle_seed(Manifest(data)); }),
            "SyncError: exact served manifest bytes are required for shuffle seed download");
  net.activate(nullptr, manifest_bytes());
  EXPECT_TRUE(seed._download_shuffle_seed(Manifest(data)));
  EXPECT_EQ(validation(), "nothing");
}

TEST_F(ShuffleSeedTest, AtARootIsAbsentOrInvalid) {
  EXPECT_THAT(validation(), StartsWith("FileNotFoundError: "));
  net.data.write(CIPHERTEXT, ciphertext);
  EXPECT_THAT(validation(), StartsWith("FileNotFoundError: "));
  net.data.write(METADATA, shuffle_seed_state::build_shuffle_seed_metadata(manifest_bytes(), ciphertext));
  EXPECT_EQ(validation(), "nothing");
  data["version"] = 2;
  EXPECT_THAT(validation(), StartsWith("SyncError: "));
}

TEST_F(ShuffleSeedTest, WaitsWhileTheAnswerHasTheWrongLength) {
  const origin::Reply shorter = reply(ciphertext.substr(1));
  net.server.script("/data/shuffle", {shorter, shorter, reply(ciphertext + "x"), reply(ciphertext)});
  EXPECT_TRUE(download());
  EXPECT_THAT(net.backoff.waits(), SizeIs(3));
  EXPECT_EQ(net.backoff.waits().back(),
            (RecordedBackoff::Wait{"shuffle_seed_download", 3, "partial_transfer"}));
}

TEST_F(ShuffleSeedTest, StopEndsTheWaiting) {
  net.server.script("/data/shuffle", {reply("short")});
  const ScopedBackoffContext context({.stop_requested = [this] { return net.backoff.waits().size() == 2; }});
  EXPECT_THROW(download(), SyncBackoffCancelled);
  EXPECT_EQ(net.server.requests("/data/shuffle").size(), 2u);
}

TEST_F(ShuffleSeedTest, RefusesAnAnswerThatBelongsElsewhereAndWritesNothing) {
  const auto with = [&](const std::string& name, const std::string& value) {
    origin::Reply answer = reply(ciphertext);
    answer.headers.emplace(name, value);
    return answer;
  };
  std::string flipped = ciphertext;
  flipped[20] = static_cast<char>(flipped[20] ^ 1);
  const std::pair<origin::Reply, const char*> cases[] = {
      {{.status = 401}, "AuthError: Authentication failed while downloading shuffle seed: HTTP 401"},
      {{.status = 404}, "SyncError: Failed to download shuffle seed: HTTP 404"},
      {{.body = ciphertext}, "SyncError: shuffle_seed.enc response is missing X-Era-Number"},
      {reply(ciphertext, "it's"), "EraError: shuffle_seed.enc response has invalid X-Era-Number=\"it's\""},
      {reply(ciphertext, "8"),
       "EraError: shuffle_seed.enc response era_number=8 does not match manifest era_number=7"},
      {with(SHUFFLE_KEY_GENERATION_HEADER, "market-era-v1"),
       "SyncError: shuffle seed response generation differs from selected manifest"},
      {with(SHUFFLE_KEY_GENERATION_HEADER, "legacy-era-only-v1"),
       "SyncError: retired shuffle_key_generation 'legacy-era-only-v1' is not supported; sync the current "
       "market-era-v1 distribution"},
      {with(SHUFFLE_KEY_SOURCE_HEADER, "vault"),
       "SyncError: shuffle seed response source differs from selected manifest"},
      {reply(flipped), "SyncError: "},
  };
  for (const auto& [answer, failure] : cases) {
    net.server.script("/data/shuffle", {answer});
    EXPECT_THAT(failure_of([&] { download(); }), StartsWith(failure));
    EXPECT_FALSE(net.data.has(CIPHERTEXT));
    EXPECT_FALSE(net.data.has(METADATA));
  }
  EXPECT_THAT(net.backoff.waits(), IsEmpty());
}

TEST_F(ShuffleSeedTest, AcceptsAnAnswerThatNamesTheKeyOfTheManifestOrNone) {
  data["shuffle_key_generation"] = "market-era-v1";
  data["shuffle_key_source"] = "vault";
  origin::Reply named = reply(ciphertext);
  named.headers.emplace("x-tidalcrest-shuffle-key-generation", " market-era-v1 ");
  named.headers.emplace("x-tidalcrest-shuffle-key-source", "vault");
  for (const origin::Reply& answer : {named, reply(ciphertext)}) {
    net.data.remove(CIPHERTEXT);
    net.server.script("/data/shuffle", {answer});
    EXPECT_TRUE(download());
  }
}

TEST_F(ShuffleSeedTest, NeedsAWalletSecretOf32Bytes) {
  net.server.script("/data/shuffle", {reply(ciphertext)});
  secret.pop_back();
  EXPECT_EQ(failure_of([&] { download(); }), "SyncError: wallet_secret must be exactly 32 bytes");
  net.credentials.set_get_wallet_secret([]() -> std::optional<std::string> { return std::nullopt; });
  EXPECT_EQ(failure_of([&] { download(); }), "SyncError: wallet_secret must be exactly 32 bytes");
  net.credentials.set_get_wallet_secret(nullptr);
  EXPECT_EQ(failure_of([&] { download(); }),
            "SyncError: wallet_secret supplier is required to authenticate shuffle seed state");
  EXPECT_FALSE(net.data.has(CIPHERTEXT));
}

}  // namespace
}  // namespace tidalcrest::sync
