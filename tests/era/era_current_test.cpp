#include "era/era_current.hpp"

#include "support/failure_text.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

TEST(EraCurrent, BringsEveryShapeOfTheAnswerToOne) {
  struct Case {
    const char* body;
    const char* config;
  };
  const Case cases[] = {
      {R"({"era_number": 5})", R"({"era_number": 5})"},
      {R"({"era": null, "state": "between_eras"})", R"({"era_number": null, "state": "between_eras"})"},
      {R"({"era": null})", R"({"era_number": null, "state": "between_eras"})"},
      {R"({"era": 7, "state": null})", R"({"era_number": null, "state": null})"},
      {R"({"era": {"era_number": 7}, "state": "closing"})", R"({"era_number": 7, "state": "closing"})"},
      {R"({"era": {"era_number": 7}, "state": null})", R"({"era_number": 7})"},
      {R"({"era": {"era_number": 7, "state": "active"}, "state": "closing"})",
       R"({"era_number": 7, "state": "active"})"},
      {R"([7])", R"({})"},
      {R"("active")", R"({})"},
  };
  for (const auto& [body, config] : cases) {
    SCOPED_TRACE(body);
    EXPECT_EQ(era_config_of(body), Document::parse(config));
  }
  EXPECT_EQ(_market_era_current_url("https://api", 3), "https://api/market/3/era/current");
}

class ActiveEraTest : public testing::SyncFixture {};

TEST_F(ActiveEraTest, RefusesEveryAnswerButTheOpenEra) {
  const RuntimeKnobs knobs(nullptr, nullptr, nullptr);
  Credentials credentials;
  credentials.set_get_token([this] { return origin.token(); });
  HttpClient client(seams);
  const ManagerHttp http(client, credentials, knobs);
  const ActiveEra era(origin.server_url(), 1, http);
  const std::string unreadable = "EraError: Failed to parse active era response during transition";
  struct Case {
    int status;
    std::string body;
    std::string confirmed, confirmed_closing, superseded;  // for era 7
  };
  const std::string lower = "EraError: Active era_number=6 does not match requested transition era_number=7";
  const auto state = [](const char* text) {
    return std::string("EraError: Active era confirmation for era_number=7 returned state=") + text;
  };
  const Case cases[] = {
      {200, R"({"era_number": 7, "state": "active"})", "nothing", "nothing", "nothing"},
      {200, R"({"era": {"era_number": "7"}, "state": "closing"})", state("'closing'"), "nothing", "nothing"},
      {200, R"({"era_number": 6, "state": "active"})", lower, lower, lower},
      {200, R"({"era_number": 8, "state": "active"})",
       "EraError: Active era_number=8 does not match requested transition era_number=7",
       "EraError: Active era_number=8 does not match requested transition era_number=7", "superseded by 8"},
      {200, R"({"era_number": 7})", state("None"), state("None"), state("None")},
      {200, R"({"era_number": 7, "state": "between_eras"})", state("'between_eras'"), state("'between_eras'"),
       state("'between_eras'")},
      {200, R"({"era": null})", unreadable, unreadable, unreadable},
      {200, "not json", unreadable, unreadable, unreadable},
      {404, "", "EraError: Failed to confirm active era: HTTP 404",
       "EraError: Failed to confirm active era: HTTP 404",
       "EraError: Failed to confirm active era: HTTP 404"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    origin.clear_faults();
    const auto kind = c.status == 200 ? origin::Fault::Kind::BODY : origin::Fault::Kind::STATUS;
    origin.fault("/market/1/era/current", {.kind = kind, .status = c.status, .body = c.body, .count = 0});
    EXPECT_EQ(testing::failure_of([&] { era._confirm_active_era(7); }), c.confirmed);
    EXPECT_EQ(testing::failure_of([&] { era._confirm_active_era(7, true); }), c.confirmed_closing);
    EXPECT_EQ(testing::failure_of([&] {
                if (const auto number = era._check_transition_superseded(7, true)) {
                  EXPECT_EQ(c.superseded, "superseded by " + std::to_string(*number));
                  throw SyncError("superseded");
                }
              }),
              c.superseded.starts_with("superseded") ? "SyncError: superseded" : c.superseded);
  }
}

}  // namespace
}  // namespace tidalcrest::sync
