#include "siblings/distribution/shuffle_seed_state.hpp"

#include "origin/generated_bytes.hpp"
#include "support/test.hpp"
#include "support/test_data.hpp"

namespace tidalcrest::sync::shuffle_seed_state {
namespace {

Document vectors() { return testing::test_data("shuffle_seed.json").at("vectors"); }

std::string manifest_of(std::int64_t market_id, std::int64_t era_number) {
  return fmt::format(
      R"({{"era_number": {}, "market_id": {}, "shuffle_key_source": "server", "files": {{}}}})", era_number,
      market_id);
}

struct Pair {
  std::string manifest_bytes, ciphertext, metadata_bytes, wallet_secret;
  AuthenticatedSeed validate() const {
    return validate_shuffle_seed_pair(manifest_bytes, ciphertext, metadata_bytes, wallet_secret);
  }
};

Pair pair_of(const Document& vector) {
  Pair pair;
  pair.manifest_bytes = manifest_of(vector.at("market_id"), vector.at("era_number"));
  pair.ciphertext = origin::from_hex(vector.at("ciphertext"));
  pair.metadata_bytes = build_shuffle_seed_metadata(pair.manifest_bytes, pair.ciphertext);
  pair.wallet_secret = origin::from_hex(vector.at("wallet_secret"));
  return pair;
}

TEST(ShuffleSeedState, OpensExactlyWhatAnotherProgramSealed) {
  for (const Document& vector : vectors()) {
    SCOPED_TRACE(vector.at("why").get<std::string>());
    const Pair pair = pair_of(vector);
    if (vector.at("opens").get<bool>()) {
      const AuthenticatedSeed seed = pair.validate();
      EXPECT_EQ(seed.market_id, vector.at("market_id"));
      EXPECT_EQ(seed.era_number, vector.at("era_number"));
    } else {
      EXPECT_THAT(failure_of([&] { pair.validate(); }), HasSubstr("does not open with this wallet secret"));
    }
  }
}

TEST(ShuffleSeedState, WritesASidecarThatBindsCiphertextAndManifest) {
  const Pair pair = pair_of(vectors().at(0));
  EXPECT_EQ(pair.metadata_bytes,
            fmt::format(R"({{"ciphertext_sha256": "{}", "ciphertext_size_bytes": 60, "era_number": 1, )"
                        R"("manifest_sha256": "{}", "market_id": 1, "schema_version": 1, )"
                        R"("shuffle_key_generation": null, "shuffle_key_source": "server"}})",
                        sha256_hex(pair.ciphertext), sha256_hex(pair.manifest_bytes)));
}

TEST(ShuffleSeedState, RefusesASidecarThatDiffersInAnyField) {
  const Pair good = pair_of(vectors().at(0));
  const Document sidecar = parse_json(good.metadata_bytes);
  for (const auto& [key, value] : sidecar.get_ref<const Document::object_t&>()) {
    Document changed = sidecar;
    changed[key] = value.is_number() ? Document(value.get<int>() + 1) : Document("other");
    Pair pair = good;
    pair.metadata_bytes = dump_json(changed);
    EXPECT_THAT(failure_of([&] { pair.validate(); }), HasSubstr(key + " does not match"));
    changed.erase(key);
    pair.metadata_bytes = dump_json(changed);
    EXPECT_THAT(failure_of([&] { pair.validate(); }), HasSubstr(key + " does not match"));
  }
  Pair pair = good;
  pair.metadata_bytes.insert(1, R"("more": 1, )");
  EXPECT_THAT(failure_of([&] { pair.validate(); }), HasSubstr("has unknown keys"));
  for (const char* bad : {"", "[]", R"({"schema_version": 1, "schema_version": 1})"}) {
    pair.metadata_bytes = bad;
    EXPECT_THROW(pair.validate(), ShuffleSeedStateError) << bad;
  }
}

// The same market and era, but other bytes: the seed would open, the sidecar does not belong.
TEST(ShuffleSeedState, RefusesAnotherManifestOfTheSameMarketAndEra) {
  Pair pair = pair_of(vectors().at(0));
  pair.manifest_bytes += " ";
  EXPECT_THAT(failure_of([&] { pair.validate(); }), HasSubstr("manifest_sha256 does not match"));
  pair.metadata_bytes = build_shuffle_seed_metadata(pair.manifest_bytes, pair.ciphertext);
  EXPECT_NO_THROW(pair.validate());
}

// What is remembered of the last manifest must never answer for another one.
TEST(ShuffleSeedState, KeepsManifestsApartThatAlternate) {
  for (const std::size_t which : {0, 1, 0, 1}) {
    const Document vector = testing::seed_vector(which);
    EXPECT_EQ(pair_of(vector).validate().era_number, vector.at("era_number"));
  }
  EXPECT_NE(testing::seed_vector(0).at("era_number"), testing::seed_vector(1).at("era_number"));
}

TEST(ShuffleSeedState, RefusesWhatCannotBeASeedOrItsManifest) {
  const Pair good = pair_of(vectors().at(0));
  const auto with = [&](auto change) {
    Pair pair = good;
    change(pair);
    return failure_of([&] { pair.validate(); });
  };
  const auto of_manifest = [&](const char* text) {
    return with([&](Pair& pair) { pair.manifest_bytes = text; });
  };
  const std::string kind = "ShuffleSeedStateError: ";
  EXPECT_EQ(with([](Pair& pair) { pair.ciphertext.pop_back(); }),
            kind + "shuffle_seed.enc has invalid size: expected 60 bytes, got 59");
  EXPECT_EQ(of_manifest(R"({"market_id": "1", "era_number": 1})"),
            kind + "manifest market_id must be an integer, got '1'");
  EXPECT_EQ(of_manifest(R"({"market_id": 1, "era_number": true})"),
            kind + "manifest era_number must be an integer, got True");
  EXPECT_THAT(of_manifest("{"), HasSubstr("shuffle seed manifest is not valid JSON"));
  EXPECT_EQ(of_manifest(R"({"market_id": 1, "era_number": 1, "shuffle_key_generation": "legacy"})"),
            kind + "manifest shuffle_key_generation 'legacy' is not supported");
}

}  // namespace
}  // namespace tidalcrest::sync::shuffle_seed_state
