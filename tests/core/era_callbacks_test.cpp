#include "core/era_callbacks.hpp"

#include "support/sync_fixture.hpp"

namespace tidalcrest::sync {
namespace {

using ::testing::ElementsAre;

TEST(EraCallbacksTest, HearInOrderWhateverTheOthersDo) {
  const testing::LogCapture log;
  EraCallbacks callbacks;
  std::vector<std::string> heard;
  int first = 0, failing = 0, leaving = 0;
  const auto listener = [&](const std::string& name, const void* identity) {
    return EraCallback{.call =
                           [&heard, name](const std::string& event_type, std::int64_t era_number) {
                             heard.push_back(name + " " + event_type + " " + std::to_string(era_number));
                           },
                       .identity = identity};
  };
  callbacks.register_era_callback(listener("first", &first));
  callbacks.register_era_callback(
      {.call = [](const std::string&, std::int64_t) { throw std::runtime_error("busy"); },
       .identity = &failing,
       .label = "the failing one"});
  callbacks.register_era_callback({.call =
                                       [&](const std::string&, std::int64_t) {
                                         heard.emplace_back("leaving");
                                         callbacks.unregister_era_callback(
                                             {.call = {}, .identity = &leaving});
                                       },
                                   .identity = &leaving});
  callbacks.register_era_callback(listener("again", &first));

  callbacks._notify_era_callbacks("kill", 7);
  EXPECT_THAT(heard, ElementsAre("first kill 7", "leaving", "again kill 7"));
  EXPECT_THAT(log.lines(), ElementsAre("warning: Era callback failed (the failing one): busy"));

  heard.clear();
  callbacks.unregister_era_callback({.call = {}, .identity = &leaving});  // unknown by now
  callbacks.unregister_era_callback({.call = {}, .identity = &first});    // the first of the two
  callbacks._notify_era_callbacks("restart", 8);
  EXPECT_THAT(heard, ElementsAre("again restart 8"));
}

}  // namespace
}  // namespace tidalcrest::sync
