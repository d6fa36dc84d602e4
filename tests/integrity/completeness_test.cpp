#include "integrity/completeness.hpp"

#include "artifacts/fixture.hpp"
#include "artifacts/shuffle_seed.hpp"
#include "origin/generated_bytes.hpp"
#include "siblings/runtime/modules.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

// A flat root with one member of each sort, and the view that names it.
class LocalCompletenessTest : public ::testing::Test {
 protected:
  LocalCompletenessTest() {
    net.credentials.set_get_wallet_secret(
        [this] { return std::optional(origin::from_hex(vector["wallet_secret"])); });
    put(vocabulary_path("u1"), dump_json(vocabulary_document("u1")), "vocabulary");
    put("functions.json", R"({"era_number": 7})", "functions");
    put("features/a.arrow", "feature a", "feature");
    put("features/b.arrow", "feature b", "feature");
    put("modules/vault-" + CURRENT_PLATFORM + ".so", "module", "vault_module");
    put_signals_index(7);
    data["files"]["modules/elsewhere.so"] = {{"kind", "vault_module"}, {"platform", "elsewhere"}};
  }
  void put(const std::string& path, const std::string& bytes, const std::string& kind) {
    net.data.write(path, bytes);
    data["files"][path] = entry_for(bytes, kind);
  }
  void put_signals_index(int era_number) {
    const Document none = Document::object();
    const Document index{{"schema_version", 1},   {"era_number", era_number}, {"market_id", 1},
                         {"found_signals", none}, {"found_strategies", none}, {"useful_signals", none}};
    put("signals_index.json", dump_json(index), "signals_index");
  }
  void put_seed(const std::string& manifest_bytes) {
    const std::string ciphertext = origin::from_hex(vector["ciphertext"]);
    net.data.write("shuffle_seed.enc", ciphertext);
    net.data.write("shuffle_seed.enc.meta.json",
                   shuffle_seed_state::build_shuffle_seed_metadata(manifest_bytes, ciphertext));
  }
  bool complete(const RotationState* state = nullptr) {
    const auto bytes = std::make_shared<const std::string>(dump_json(data));
    if (with_seed) put_seed(*bytes);
    ActiveView view;
    view.data_dir = net.data.path();
    if (with_bytes) view.manifest_bytes = bytes;
    return test._local_manifest_files_complete(view, Manifest(data), state);
  }

  // The vector of market 1 and era 7.
  const Document vector = seed_vector(1);
  Document data = {{"era_number", 7},
                   {"market_id", 1},
                   {"functions", "functions.json"},
                   {"signals_index", {{"schema_version", 1}, {"path", "signals_index.json"}}},
                   {"files", Document::object()}};
  bool with_seed = true;
  bool with_bytes = true;
  Network net;
  ShuffleSeed seed{net.server.url(), net.http, net.active, net.seams};
  CompletenessTest test{net.hash_cache, seed};
};

TEST_F(LocalCompletenessTest, AsksForEveryProof) {
  EXPECT_TRUE(complete());
  EXPECT_TRUE(complete());  // now from the cache

  net.data.remove("features/b.arrow");
  EXPECT_FALSE(complete());
  net.data.write("features/b.arrow", "feature B");
  EXPECT_FALSE(complete());
  net.data.write("features/b.arrow", "feature b");

  net.data.write(vocabulary_path("u1"), "{}");
  EXPECT_FALSE(complete());
  net.data.write(vocabulary_path("u1"), dump_json(vocabulary_document("u1")));

  put_signals_index(8);  // as declared, but of another era
  EXPECT_FALSE(complete());
  put_signals_index(7);
  EXPECT_TRUE(complete());

  put_seed(R"({"era_number": 7, "market_id": 1})");  // of another manifest
  with_seed = false;
  EXPECT_FALSE(complete());
  net.data.remove("shuffle_seed.enc");
  EXPECT_FALSE(complete());
  with_seed = true;
  with_bytes = false;
  EXPECT_FALSE(complete());
  EXPECT_TRUE(net.log.lines(LogLevel::warning).empty());
}

TEST_F(LocalCompletenessTest, ARotationStateLimitsItToItsMembers) {
  RotationState state;
  state.active_relative_paths = {"features/a.arrow", "modules/elsewhere.so"};
  net.data.remove("features/b.arrow");
  net.data.remove(vocabulary_path("u1"));
  net.data.remove("signals_index.json");
  EXPECT_TRUE(complete(&state));
  state.active_relative_paths = {"features/a.arrow", "modules/elsewhere.so", "features/b.arrow"};
  EXPECT_FALSE(complete(&state));
  state.active_relative_paths = {"features/unknown.arrow"};
  EXPECT_FALSE(complete(&state));
}

// A cache that lies shows what is hashed all the same.
TEST_F(LocalCompletenessTest, HashesModulesInFull) {
  const std::string module = "modules/vault-" + CURRENT_PLATFORM + ".so";
  const auto lie_about = [&](const std::string& path, std::size_t size) {
    const std::string changed(size, '?');
    net.data.write(path, changed);
    net.hash_cache._remember_local_sha(net.data.path(), path, data["files"][path]["sha256"]);
  };
  lie_about("features/a.arrow", 9);
  EXPECT_TRUE(complete());
  lie_about(module, 6);
  EXPECT_FALSE(complete());
}

}  // namespace
}  // namespace tidalcrest::sync
