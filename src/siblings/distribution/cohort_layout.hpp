#pragma once

/// Names below a data directory that several of the distribution's files must agree on.
namespace tidalcrest::sync::local_cohort {

/// Holds every generation root, every staging root and the lock file.
inline constexpr const char* COHORTS_DIRECTORY = ".tidalcrest-cohorts";
inline constexpr const char* COHORT_MANIFEST_FILE = ".cohort-manifest.json";
inline constexpr const char* COHORT_COMPLETION_FILE = ".cohort-complete.json";
/// The root manifest: the one file whose replacement publishes a cohort.
inline constexpr const char* SELECTOR_FILE = "manifest.json";
inline constexpr const char* DISTRIBUTION_LOCK_FILE = ".tidalcrest-cohorts/.distribution.lock";

}  // namespace tidalcrest::sync::local_cohort
