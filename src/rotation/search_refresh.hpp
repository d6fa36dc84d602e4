#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cohort/active_view.hpp"
#include "host/mutex.hpp"
#include "rotation/catalog.hpp"
#include "tidalcrest/sync/search_consumer.hpp"

namespace tidalcrest::sync {

/// What one consumer will be told. Consumers share the state, and those of one universe the scoped
/// vocabulary.
struct RefreshPayload {
  std::shared_ptr<RotationSearchConsumer> consumer;
  std::shared_ptr<const RotationState> rotation_state;
  std::shared_ptr<const Document> scoped_vocabulary;
};

/// The universe that the consumer declares, stripped; absent when that leaves nothing.
std::optional<std::string> _rotation_consumer_named_universe(const RotationSearchConsumer& consumer);
/// The one document of `vocabulary` that concerns the consumer; null stands for an absent vocabulary.
/// `VocabularyScopeError` when there is none, or more than one could be meant.
const Document& _rotation_vocabulary_for_consumer(const Vocabularies* vocabulary,
                                                  const RotationSearchConsumer& consumer);

/// The running searches of a manager, and what they are told. Refreshes are prepared before anything changes
/// and delivered afterwards, on the caller's thread. The lock guards the list alone and is never held while a
/// consumer runs, so that a consumer may register or unregister from inside.
class SearchConsumers {
 public:
  explicit SearchConsumers(const ActiveViewHolder& active) : _active(active) {}
  /// One that the list already holds, by equality, is not added again.
  void register_rotation_search_consumer(std::shared_ptr<RotationSearchConsumer> consumer);
  void unregister_rotation_search_consumer(const RotationSearchConsumer& consumer);
  /// `vocabulary` null: absent. `manifest` null: the active one. `VocabularyScopeError`.
  std::vector<RefreshPayload> _rotation_search_refresh_payloads(const RotationState& rotation_state,
                                                                const Vocabularies* vocabulary,
                                                                const Manifest* manifest = nullptr) const;
  /// A consumer that throws stops the delivery; the later ones are told nothing.
  static void _deliver_rotation_search_refresh_payloads(const std::vector<RefreshPayload>& refresh_payloads);
  /// Prepares and delivers; for a caller that rotated by itself.
  void refresh_running_searches_for_rotation(const RotationState& rotation_state,
                                             const Vocabularies* vocabulary,
                                             const Manifest* manifest = nullptr) const;

 private:
  std::vector<std::shared_ptr<RotationSearchConsumer>> _rotation_search_consumer_snapshot() const;
  const ActiveViewHolder& _active;
  mutable Mutex _rotation_search_consumers_lock;  // a leaf
  std::vector<std::shared_ptr<RotationSearchConsumer>> _rotation_search_consumers
      GUARDED_BY(_rotation_search_consumers_lock);
};

}  // namespace tidalcrest::sync
