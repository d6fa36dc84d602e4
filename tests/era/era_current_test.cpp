#include "era/era_current.hpp"

#include "support/network.hpp"

namespace tidalcrest::sync {
namespace {

TEST(EraCurrent, BringsEveryShapeOfTheAnswerToOne) {
  const std::pair<const char*, const char*> cases[] = {
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
  for (const auto& [body, config] : cases) EXPECT_EQ(era_config_of(body), Document::parse(config)) << body;
  EXPECT_EQ(_market_era_current_url("https://api", 3), "https://api/market/3/era/current");
}

TEST(ActiveEraTest, RefusesEveryAnswerButTheOpenOne) {
  testing::Network net;
  const ActiveEra era(net.server.url(), 1, net.http);
  const std::string unreadable = "EraError: Failed to parse active era response during transition";
  struct Case {
    int status;
    std::string body;
    std::string confirmed, confirmed_closing, superseded;  // for era 7
  };
  const std::string not_found = "EraError: Failed to confirm active era: HTTP 404";
  const std::string later = "EraError: Active era_number=8 does not match requested transition era_number=7";
  const std::string lower = "EraError: Active era_number=6 does not match requested transition era_number=7";
  const auto state = [](const char* text) {
    return std::string("EraError: Active era confirmation for era_number=7 returned state=") + text;
  };
  const Case cases[] = {
      {200, R"({"era_number": 7, "state": "active"})", "nothing", "nothing", "nothing"},
      {200, R"({"era": {"era_number": "7"}, "state": "closing"})", state("'closing'"), "nothing", "nothing"},
      {200, R"({"era_number": 6, "state": "active"})", lower, lower, lower},
      {200, R"({"era_number": 8, "state": "active"})", later, later, "superseded by 8"},
      {200, R"({"era_number": 7})", state("None"), state("None"), state("None")},
      {200, R"({"era_number": 7, "state": "between_eras"})", state("'between_eras'"), state("'between_eras'"),
       state("'between_eras'")},
      {200, R"({"era": null})", unreadable, unreadable, unreadable},
      {200, "not json", unreadable, unreadable, unreadable},
      {404, "", not_found, not_found, not_found},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    net.server.script("/market/1/era/current", {{.status = c.status, .body = c.body}});
    EXPECT_EQ(failure_of([&] { era._confirm_active_era(7); }), c.confirmed);
    EXPECT_EQ(failure_of([&] { era._confirm_active_era(7, true); }), c.confirmed_closing);
    EXPECT_EQ(failure_of([&] {
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
