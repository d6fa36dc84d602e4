#include "era/library_floor.hpp"

#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* ADVICE =
    "Build a local wheel with build_wheel() and install it with: pip install --upgrade "
    "/path/to/tidalcrest-*.whl";

// Version 1.0.0, with the update that a case wants.
class FakeDeployment : public deployment::Module {
 public:
  std::string current_version() override { return "1.0.0"; }
  int compare_versions(const std::string& first, const std::string& second) override {
    if (second.find_first_not_of("0123456789.") != std::string::npos)
      throw ValueError("no version: " + second);
    return first.compare(second);
  }
  std::optional<std::string> check_update(const std::string&) override { return newer(); }
  deployment::UpdateResult auto_update(const std::string& version) override {
    asked_for = version;
    return update();
  }
  std::function<std::optional<std::string>()> newer = [] { return std::nullopt; };
  std::function<deployment::UpdateResult()> update = [] { return deployment::UpdateResult{}; };
  std::string asked_for;
};

TEST(LibraryFloor, LetsTheLibraryInWhereItMeetsTheFloorOrAnUpdateLiftedIt) {
  const std::function<std::optional<std::string>()> none = [] { return std::nullopt; };
  const std::function<std::optional<std::string>()> newer = [] {
    return std::optional<std::string>("3.0.0");
  };
  const std::function<std::optional<std::string>()> unreadable = []() -> std::optional<std::string> {
    throw ConnectionError("cache gone");
  };
  const auto gives = [](deployment::UpdateResult result) { return [result] { return result; }; };
  const auto throws = []() -> deployment::UpdateResult { throw RuntimeError("pip broke"); };
  const auto refuses = []() -> deployment::UpdateResult { throw LibraryUpdateRequired("as it is"); };
  const std::string required = "LibraryUpdateRequired: tidalcrest >= 2.0.0 required for era 9";
  struct Case {
    const char* label;
    Document floor;
    std::function<std::optional<std::string>()> newer;
    std::function<deployment::UpdateResult()> update;
    std::string failure, asked_for, warning;
  };
  const Case cases[] = {
      {"no floor, nothing newer", nullptr, none, gives({}), "nothing", "", ""},
      {"floor met", "1.0.0", none, gives({}), "nothing", "", ""},
      {"below, nothing newer", "2.0.0", none, gives({}), required + ". " + ADVICE, "", ""},
      {"below, cache unreadable", "2.0.0", unreadable, gives({}), required + ". " + ADVICE, "",
       "warning: Could not check local wheel cache for library update: cache gone"},
      {"below, updated to the floor", "2.0.0", newer, gives({}), "nothing", "2.0.0", ""},
      {"below, update failed", "2.0.0", newer, gives({.success = false, .warning = "disk full"}),
       required + "; auto-update failed: disk full. " + ADVICE, "2.0.0",
       "warning: Auto-update failed: disk full"},
      {"below, update failed without a word", "2.0.0", newer, gives({.success = false, .warning = {}}),
       required + "; auto-update failed: Could not auto-update to latest.. " + ADVICE, "2.0.0",
       "warning: Auto-update failed: Could not auto-update to latest."},
      {"below, update threw", "2.0.0", newer, throws, required + "; auto-update failed: pip broke. " + ADVICE,
       "2.0.0", "warning: Auto-update failed: pip broke"},
      {"update refused", "1.0.0", newer, refuses, "LibraryUpdateRequired: as it is", "1.0.0", ""},
      {"floor met, update failed", "1.0.0", newer, throws, "nothing", "1.0.0",
       "warning: Auto-update failed: pip broke"},
      {"no version", "banana", newer, gives({}), "nothing", "1.0.0",
       "warning: Invalid min_library_version from era config: banana"},
      {"no version, nothing newer", "banana", none, gives({}), "nothing", "",
       "warning: Invalid min_library_version from era config: banana"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const testing::LogCapture log;
    const auto module = std::make_shared<FakeDeployment>();
    module->newer = c.newer;
    module->update = c.update;
    LibraryFloor library(module);
    library.look_for_update();
    const Document config =
        c.floor.is_null() ? Document::object() : Document{{"min_library_version", c.floor}};
    EXPECT_EQ(failure_of([&] { library.require(config, "9"); }), c.failure);
    EXPECT_EQ(module->asked_for, c.asked_for);
    EXPECT_EQ(
        ::testing::PrintToString(log.lines()),
        ::testing::PrintToString(c.warning.empty() ? std::vector<std::string>() : std::vector{c.warning}));
  }
}

TEST(LibraryFloor, PassesOtherFailuresOfTheLookThrough) {
  const auto module = std::make_shared<FakeDeployment>();
  module->newer = []() -> std::optional<std::string> { throw ValueError("bad cache"); };
  LibraryFloor library(module);
  EXPECT_EQ(failure_of([&] { library.look_for_update(); }), "ValueError: bad cache");
}

}  // namespace
}  // namespace tidalcrest::sync
