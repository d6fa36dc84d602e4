#include "download/supersede_probe.hpp"

#include "download/download_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;

const std::string VERSION = "/data/manifest/version";
const std::string PUBLIC = "/data/releases/manifest.json";

class SupersedeProbeTest : public DownloadFixture {
 protected:
  std::string outcome(std::optional<std::int64_t> version, std::optional<std::int64_t> era_number) const {
    const ManifestGeneration generation{server.url() + "/data/releases", version, era_number};
    bool superseded = false;
    const std::string failure =
        failure_of([&] { superseded = probe._download_manifest_superseded(generation); });
    return failure != "nothing" ? failure : superseded ? "yes" : "no";
  }
};

TEST_F(SupersedeProbeTest, DecidesByErasThenVersionsThenThePublicDocument) {
  struct Case {
    const char* label;
    Reply version_answer;
    Reply public_answer;
    const char* outcome;
    std::size_t public_requests;
  };
  const auto says = [](const char* rest) {
    return Reply{.body = R"({"market_id": 1, )" + std::string(rest) + "}"};
  };
  const Reply missing{.status = 404};
  const Reply same = says(R"("version": 10, "era_number": 5)");
  const Case cases[] = {
      {"later era, older version", says(R"("version": 1, "era_number": 6)"), missing, "yes", 0},
      {"earlier era, newer version", says(R"("version": 99, "era_number": 4)"), missing, "no", 0},
      {"newer version", says(R"("version": "11")"), missing, "yes", 0},
      {"unreadable era is no era", says(R"("version": 11, "era_number": "x")"), missing, "yes", 0},
      {"public document ahead", same, says(R"("version": 11, "era_number": 5, "files": {})"), "yes", 1},
      {"public document, later era", same, says(R"("version": 1, "era_number": 6, "files": {})"), "yes", 1},
      {"public document, earlier era", same, says(R"("version": 99, "era_number": 4, "files": {})"), "no", 1},
      {"public document the same", same, same, "no", 1},
      {"public document with an unreadable era", same, says(R"("version": 99, "era_number": "x")"), "no", 1},
      {"public document without a version", same, says(R"("era_number": 6)"), "no", 1},
      {"public document missing", same, missing, "no", 1},
      {"public document corrupt", same, Reply{.body = "{"}, "no", 1},
      {"public document moved", same, Reply{.status = 204}, "no", 1},
      {"public document, other market", same, Reply{.body = R"({"market_id": 2, "version": 11})"},
       "ManifestError", 1},
      {"version service down", Reply{.status = 503}, missing, "no", 0},
      {"version service broken off", Reply{.body = "{}", .reset_after = 0}, missing, "no", 0},
      {"version answer corrupt", Reply{.body = "{"}, missing, "no", 0},
      {"version answer without a version", says(R"("era_number": 6)"), missing, "no", 0},
      {"version answer, other market", Reply{.body = R"({"market_id": 2, "version": 11})"}, missing,
       "ManifestError", 0},
      {"credentials refused", Reply{.status = 401}, missing,
       "AuthError: Authentication failed while probing manifest version: HTTP 401", 0},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.label);
    server.script(VERSION, {item.version_answer});
    server.script(PUBLIC, {item.public_answer});
    const auto version_before = server.requests(VERSION).size();
    const auto public_before = server.requests(PUBLIC).size();
    EXPECT_THAT(outcome(10, 5), StartsWith(item.outcome));
    EXPECT_EQ(server.requests(VERSION).size() - version_before, 1u);
    EXPECT_EQ(server.requests(PUBLIC).size() - public_before, item.public_requests);
  }
  EXPECT_TRUE(backoff.waits().empty());
  EXPECT_EQ(server.requests(VERSION).at(0).header("Authorization"), "Bearer token");
  EXPECT_EQ(server.requests(PUBLIC).at(0).header("Authorization"), "");
}

TEST_F(SupersedeProbeTest, ComparesVersionsAloneWhereTheFileHasNoEra) {
  EXPECT_EQ(outcome({}, 5), "no");
  EXPECT_TRUE(server.requests().empty());  // a file of no generation
  server.script(VERSION, {Reply{.body = R"({"market_id": 1, "version": 10, "era_number": 9})"}});
  EXPECT_EQ(outcome(9, {}), "yes");
  EXPECT_EQ(outcome(11, {}), "no");
}

TEST_F(SupersedeProbeTest, LetsOnlyAnAuthenticationFailureOfTheTokenSupplierEscape) {
  credentials.set_get_token([]() -> std::string { throw AuthError("signed out"); });
  EXPECT_EQ(outcome(10, 5), "AuthError: signed out");
  credentials.set_get_token([]() -> std::string { throw RuntimeError("no key ring"); });
  EXPECT_EQ(outcome(10, 5), "no");
}

}  // namespace
}  // namespace tidalcrest::sync
