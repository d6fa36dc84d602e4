#pragma once

#include "host/path_set.hpp"
#include "siblings/distribution/artifact_rotation_descriptors.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync::artifact_rotation {

/// A copy of the vocabulary whose `features` (an object keyed by feature name, or a list of names or of
/// objects with a `name`) holds only those that have an active or mandatory file in the vocabulary's
/// universe. `VocabularyScopeError` for another shape.
Document scope_vocabulary_to_active_rotation(const Document& vocabulary, const PathSet& active_relative_paths,
                                             const Artifacts& manifest_artifacts);

}  // namespace tidalcrest::sync::artifact_rotation
