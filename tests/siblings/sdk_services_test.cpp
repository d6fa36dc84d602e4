#include "siblings/auth/auth.hpp"
#include "siblings/auth/identity.hpp"
#include "siblings/search_tracking/search_tracker.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

TEST(Identity, ComesFromAFileOfTheDataDirectory) {
  const testing::TempDir data;
  EXPECT_THROW(identity::resolve_identity_for_data_dir(data.path()), FileNotFoundError);
  data.write(identity::IDENTITY_FILE, R"({"schema_version": 1, "agent_id": "agent-7"})");
  EXPECT_EQ(identity::resolve_identity_for_data_dir(data.path()).agent_id, "agent-7");
  for (const char* bad : {"[]", R"({"schema_version": 2, "agent_id": "a"})", R"({"schema_version": 1})",
                          R"({"schema_version": 1, "agent_id": ""})", "{"}) {
    data.write(identity::IDENTITY_FILE, bad);
    EXPECT_THROW(identity::resolve_identity_for_data_dir(data.path()), ValueError) << bad;
  }
}

TEST(SearchTracker, KeepsTheLastTransitions) {
  const testing::TempDir data;
  const auto document = [&data] {
    return parse_strict_json(data.read(search_tracking::SEARCH_TRACKING_FILE));
  };
  const testing::LogCapture log;
  data.write(search_tracking::SEARCH_TRACKING_FILE, "damaged");
  const auto tracker = search_tracking::open_search_tracker(
      data.path(), identity::Identity{.agent_id = "agent-7", .host_object = {}});
  tracker->handle_era_transition(2, 1);
  Document full = document();
  full["transitions"] = std::vector<Document>(100, full["transitions"].at(0));
  data.write(search_tracking::SEARCH_TRACKING_FILE, full.dump());
  tracker->handle_era_transition(106, 105);
  tracker->close();
  EXPECT_THROW(tracker->handle_era_transition(9, 8), ValueError);
  EXPECT_EQ(document().at("agent_id"), "agent-7");
  EXPECT_EQ(document().at("era_number"), 106);
  EXPECT_EQ(document().at("transitions").size(), 100u);
  EXPECT_EQ(document().at("transitions").back().at("previous_era_number"), 105);
  search_tracking::open_search_tracker(data.path())->handle_era_transition(107, 106);
  EXPECT_EQ(document().at("agent_id"), nullptr);
  EXPECT_EQ(document().at("transitions").back().at("new_era_number"), 107);
}

TEST(Auth, RemembersTheLastEraThatItWasToldOf) {
  const testing::LogCapture log;
  auth::notify_era_change(12);
  EXPECT_EQ(auth::last_notified_era_number(), 12);
}

}  // namespace
}  // namespace tidalcrest::sync
