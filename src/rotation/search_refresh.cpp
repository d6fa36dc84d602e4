#include "rotation/search_refresh.hpp"

#include <algorithm>
#include <map>

#include "host/json.hpp"
#include "host/path_set.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

const Document& document_of_universe(const Vocabularies& vocabulary, const std::string& universe) {
  const Document* document = find_member(vocabulary, universe);
  if (document == nullptr || find_member(*document, "features") == nullptr) {
    throw VocabularyScopeError("running search consumer requested unknown vocabulary universe: " +
                               text::repr(universe));
  }
  return *document;
}

// Limits vocabularies to one rotation state; a document that several consumers share is limited once.
class VocabularyScoper {
 public:
  VocabularyScoper(const RotationState& rotation_state, const Manifest* manifest)
      : _paths(rotation_state.active_relative_paths), _active_paths(_paths.begin(), _paths.end()) {
    if (manifest != nullptr) _manifest_artifacts = _rotation_manifest_artifacts(*manifest);
  }

  std::shared_ptr<const Document> scoped(const Document& vocabulary) {
    auto& known = _scoped[&vocabulary];
    if (!known) {
      known = std::make_shared<const Document>(artifact_rotation::scope_vocabulary_to_active_rotation(
          vocabulary, _active_paths, _manifest_artifacts));
    }
    return known;
  }

 private:
  const PathList _paths;
  const PathSet _active_paths;
  Artifacts _manifest_artifacts;
  std::map<const Document*, std::shared_ptr<const Document>> _scoped;
};

}  // namespace

std::optional<std::string> _rotation_consumer_named_universe(const RotationSearchConsumer& consumer) {
  const auto declared = consumer.named_universe();
  std::string universe = declared ? text::strip(*declared) : std::string();
  if (universe.empty()) return std::nullopt;
  return universe;
}

const Document& _rotation_vocabulary_for_consumer(const Vocabularies* vocabulary,
                                                  const RotationSearchConsumer& consumer) {
  if (vocabulary == nullptr || !vocabulary->is_object() || vocabulary->empty()) {
    throw VocabularyScopeError("running search rotation refresh requires loaded vocabulary");
  }
  if (find_member(*vocabulary, "features") != nullptr) return *vocabulary;  // a single document
  std::vector<const Document*> documents;
  for (const auto& [universe, document] : vocabulary->get_ref<const Document::object_t&>()) {
    if (find_member(document, "features") != nullptr) documents.push_back(&document);
  }
  if (documents.empty()) {
    throw VocabularyScopeError("running search rotation refresh requires vocabulary documents with features");
  }
  if (const auto universe = _rotation_consumer_named_universe(consumer)) {
    return document_of_universe(*vocabulary, *universe);
  }
  if (documents.size() > 1) {
    throw VocabularyScopeError(
        "running search consumer must declare named_universe when multiple vocabularies are loaded");
  }
  return *documents.front();
}

void SearchConsumers::register_rotation_search_consumer(std::shared_ptr<RotationSearchConsumer> consumer) {
  const MutexLock guard(_rotation_search_consumers_lock);
  auto& consumers = _rotation_search_consumers;
  const auto is_same = [&](const auto& known) { return known->equals(*consumer); };
  if (std::none_of(consumers.begin(), consumers.end(), is_same)) consumers.push_back(std::move(consumer));
}

void SearchConsumers::unregister_rotation_search_consumer(const RotationSearchConsumer& consumer) {
  std::shared_ptr<RotationSearchConsumer> removed;  // released outside the lock: its destructor is not ours
  const MutexLock guard(_rotation_search_consumers_lock);
  auto& consumers = _rotation_search_consumers;
  const auto is_same = [&](const auto& known) { return known->equals(consumer); };
  const auto found = std::find_if(consumers.begin(), consumers.end(), is_same);
  if (found == consumers.end()) return;
  removed = std::move(*found);
  consumers.erase(found);
}

std::vector<std::shared_ptr<RotationSearchConsumer>> SearchConsumers::_rotation_search_consumer_snapshot()
    const {
  const MutexLock guard(_rotation_search_consumers_lock);
  return _rotation_search_consumers;
}

std::vector<RefreshPayload> SearchConsumers::_rotation_search_refresh_payloads(
    const RotationState& rotation_state, const Vocabularies* vocabulary, const Manifest* manifest) const {
  std::vector<RefreshPayload> payloads;
  const auto consumers = _rotation_search_consumer_snapshot();
  if (consumers.empty()) return payloads;
  const auto view = _active.get();
  VocabularyScoper scoper(rotation_state, manifest != nullptr ? manifest : view->manifest.get());
  const auto state = std::make_shared<const RotationState>(rotation_state);
  for (const auto& consumer : consumers) {
    if (!consumer->takes_refreshes()) continue;
    const Document& document = _rotation_vocabulary_for_consumer(vocabulary, *consumer);
    payloads.push_back({consumer, state, scoper.scoped(document)});
  }
  return payloads;
}

void SearchConsumers::_deliver_rotation_search_refresh_payloads(
    const std::vector<RefreshPayload>& refresh_payloads) {
  for (const auto& payload : refresh_payloads) {
    payload.consumer->refresh_rotation_scope(*payload.rotation_state, *payload.scoped_vocabulary);
  }
}

void SearchConsumers::refresh_running_searches_for_rotation(const RotationState& rotation_state,
                                                            const Vocabularies* vocabulary,
                                                            const Manifest* manifest) const {
  _deliver_rotation_search_refresh_payloads(
      _rotation_search_refresh_payloads(rotation_state, vocabulary, manifest));
}

}  // namespace tidalcrest::sync
