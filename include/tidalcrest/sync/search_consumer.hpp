#pragma once

#include <optional>
#include <string>

#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync {

/// A running search that wants to hear of new data. It is refreshed without any lock of the consumer list, so
/// it may register or unregister from inside the call; and under the locks of a sync: what needs these (a
/// sync, a repair, a pin, a snapshot) throws `StateError` there.
class RotationSearchConsumer {
 public:
  virtual ~RotationSearchConsumer() = default;
  /// Whether the consumer takes refreshes at all; one that does not is never asked for a vocabulary.
  virtual bool takes_refreshes() const { return true; }
  /// The universe that the consumer declares; absent when it declares none.
  virtual std::optional<std::string> named_universe() const { return std::nullopt; }
  virtual void refresh_rotation_scope(const RotationState& rotation_state,
                                      const Document& scoped_vocabulary) = 0;
  /// Equality by which the list recognises a consumer. Asked under the list's lock: it only compares.
  virtual bool equals(const RotationSearchConsumer& other) const { return this == &other; }
};

}  // namespace tidalcrest::sync
