#pragma once

#include <string>

#include "cohort/active_view.hpp"
#include "integrity/hash_cache.hpp"

namespace tidalcrest::sync {

class ShuffleSeed;
struct RotationState;

/// Whether the active cohort still holds all that the manifest demands. Asks only; repairs nothing, and never
/// raises for a bad file: each failed proof is a plain, silent false. An unchanged member costs one stat.
class CompletenessTest {
 public:
  CompletenessTest(HashCache& hash_cache, const ShuffleSeed& shuffle_seed)
      : _hash_cache(hash_cache), _shuffle_seed(shuffle_seed) {}
  /// `active_rotation_state` null: absent, and every member, the vocabularies and the signals index are
  /// proven; otherwise the members that it names, and nothing else.
  bool _local_manifest_files_complete(const ActiveView& view, const Manifest& manifest,
                                      const RotationState* active_rotation_state) const;

 private:
  class Members;

  bool _has_valid_shuffle_seed(const ActiveView& view) const;
  bool _rotation_members_match(const ActiveView& view, const Manifest& manifest,
                               const RotationState& state) const;
  bool _all_members_match(const ActiveView& view, const Manifest& manifest) const;

  HashCache& _hash_cache;
  const ShuffleSeed& _shuffle_seed;
};

}  // namespace tidalcrest::sync
