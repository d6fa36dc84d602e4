#include "rotation/search_refresh.hpp"

#include "support/search_consumer.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

using testing::SearchConsumer;

class SearchRefreshTest : public ::testing::Test {
 public:
  std::shared_ptr<SearchConsumer> registered(std::optional<std::string> universe = {}) {
    auto consumer = std::make_shared<SearchConsumer>(std::move(universe));
    consumers.register_rotation_search_consumer(consumer);
    return consumer;
  }
  std::string failure_with(const Document& vocabulary) {
    return failure_of([&] { consumers.refresh_running_searches_for_rotation(state, &vocabulary); });
  }

  const std::shared_ptr<const Manifest> manifest = std::make_shared<const Manifest>(parse_json(
      R"({"era_number": 7, "files": {"features/u1/signal_is/a.arrow": {"kind": "feature"},
          "features/u1/signal_is/b.arrow": {"kind": "feature"}, "features/u2/signal_is/b.arrow": {"kind": "feature"}}})"));
  const Document u1 = {{"named_universe", "u1"}, {"features", {"a", "b"}}};
  const Document u2 = {{"named_universe", "u2"}, {"features", {"a", "b"}}};
  const Document both = {{"u1", u1}, {"u2", u2}};
  const RotationState state{
      .active_relative_paths = {"features/u1/signal_is/a.arrow", "features/u2/signal_is/b.arrow"}};
  const ActiveViewHolder active{
      std::make_shared<const ActiveView>(ActiveView{nullptr, "", nullptr, manifest, nullptr})};
  SearchConsumers consumers{active};
};

TEST_F(SearchRefreshTest, EachConsumerHearsItsUniverseLimitedToTheActiveFiles) {
  const auto first = registered(" u1 ");
  const auto second = registered("u2");
  consumers.register_rotation_search_consumer(first);
  consumers.refresh_running_searches_for_rotation(state, &both);
  EXPECT_THAT(first->heard, ElementsAre(R"(["a"])"));
  EXPECT_THAT(second->heard, ElementsAre(R"(["b"])"));
  consumers.unregister_rotation_search_consumer(*second);
  consumers.unregister_rotation_search_consumer(*second);
  consumers.refresh_running_searches_for_rotation(state, &u1);
  EXPECT_EQ(first->heard.size(), 2u);
  EXPECT_EQ(second->heard.size(), 1u);
}

TEST_F(SearchRefreshTest, WithoutAManifestTheActivePathsTellWhatIsHeld) {
  const ActiveViewHolder flat{
      std::make_shared<const ActiveView>(ActiveView{nullptr, "", nullptr, nullptr, nullptr})};
  SearchConsumers of_flat_directory(flat);
  const auto consumer = std::make_shared<SearchConsumer>("u2");
  of_flat_directory.register_rotation_search_consumer(consumer);
  of_flat_directory.refresh_running_searches_for_rotation(state, &both);
  EXPECT_THAT(consumer->heard, ElementsAre(R"(["b"])"));
}

TEST_F(SearchRefreshTest, AVocabularyIsAskedForOnlyWhereItIsWanted) {
  EXPECT_THAT(consumers._rotation_search_refresh_payloads(state, nullptr), IsEmpty());
  registered()->refreshes = false;
  EXPECT_THAT(consumers._rotation_search_refresh_payloads(state, &both), IsEmpty());
}

TEST_F(SearchRefreshTest, FindsTheOneDocumentThatIsMeant) {
  const SearchConsumer undeclared;
  const SearchConsumer blank(" ");
  const SearchConsumer other("u9");
  const Document one = {{"u1", u1}, {"notes", 1}};
  EXPECT_EQ(_rotation_vocabulary_for_consumer(&u1, other), u1);  // a single document
  EXPECT_EQ(_rotation_vocabulary_for_consumer(&one, undeclared), u1);
  EXPECT_EQ(_rotation_vocabulary_for_consumer(&one, blank), u1);
  EXPECT_EQ(&_rotation_vocabulary_for_consumer(&both, SearchConsumer("u2")), find_member(both, "u2"));
  EXPECT_EQ(failure_of([&] { _rotation_vocabulary_for_consumer(&one, other); }),
            "VocabularyScopeError: running search consumer requested unknown vocabulary universe: 'u9'");
}

TEST_F(SearchRefreshTest, RefusesAVocabularyThatSettlesNothing) {
  const auto consumer = registered();
  const std::string loaded =
      "VocabularyScopeError: running search rotation refresh requires loaded vocabulary";
  EXPECT_EQ(failure_with(nullptr), loaded);
  EXPECT_EQ(failure_with(Document::object()), loaded);
  EXPECT_EQ(failure_with(Document::array({u1})), loaded);
  EXPECT_EQ(failure_of([&] { consumers.refresh_running_searches_for_rotation(state, nullptr); }), loaded);
  EXPECT_EQ(
      failure_with({{"u1", 1}}),
      "VocabularyScopeError: running search rotation refresh requires vocabulary documents with features");
  EXPECT_EQ(failure_with(both),
            "VocabularyScopeError: running search consumer must declare named_universe when multiple "
            "vocabularies are loaded");
  EXPECT_THAT(consumer->heard, IsEmpty());
}

TEST_F(SearchRefreshTest, ARaisingConsumerStopsTheDelivery) {
  registered("u1")->on_refresh = [] { throw RuntimeError("no"); };
  const auto later = registered("u1");
  EXPECT_EQ(failure_with(both), "RuntimeError: no");
  EXPECT_THAT(later->heard, IsEmpty());
}

}  // namespace
}  // namespace tidalcrest::sync
