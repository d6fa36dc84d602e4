#pragma once

#include <memory>
#include <string>

#include "siblings/distribution/local_cohort.hpp"

namespace tidalcrest::sync::local_cohort {

inline constexpr const char* MANIFEST_LABEL = "local cohort manifest";
inline constexpr const char* COMPLETION_LABEL = "local cohort completion record";

/// A complete generation and the handle through which it was proven complete.
struct LoadedGeneration {
  std::shared_ptr<const Selection> selection;
  client_manifest::PinnedRoot root;
};

/// Opens the generation of these manifest bytes below `base`. `ManifestJsonError` when they are not JSON,
/// `LocalCohortError` when there is no complete generation of them.
LoadedGeneration load_generation(const client_manifest::PinnedRoot& base, std::string manifest_bytes);
/// The same for the bytes of a selection that somebody holds: given again while its two files are the ones
/// that were read.
LoadedGeneration reload_generation(const client_manifest::PinnedRoot& base,
                                   std::shared_ptr<const Selection> known);
/// The newest selection below `base` that somebody holds; null for none.
std::shared_ptr<const Selection> living_selection(const client_manifest::PinnedRoot& base);

}  // namespace tidalcrest::sync::local_cohort
