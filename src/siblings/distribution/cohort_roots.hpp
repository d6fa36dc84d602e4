#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// The directories that the cohort store keeps side by side, whole or not.
namespace tidalcrest::sync::local_cohort {

inline constexpr const char* REPAIR_ROOT_PREFIX = ".repair-";      ///< staging aside of a live generation
inline constexpr const char* LEFTOVER_ROOT_PREFIX = ".leftover-";  ///< a failed staging, moved out of the way
inline constexpr const char* REMOVED_ROOT_PREFIX = ".removed-";    ///< a collected generation on its way out
inline constexpr std::size_t ROOT_TOKEN_BYTES = 16;                ///< of randomness behind such a prefix

enum class CohortRootKind {
  complete,    ///< a generation root with its manifest and completion files
  incomplete,  ///< a generation root without them: a staging that failed or was killed
  repair,
  leftover,
  removed,
};

struct CohortRoot {
  std::string name;           ///< below the cohorts directory
  std::string relative_path;  ///< below the data directory
  std::string path;
  CohortRootKind kind = CohortRootKind::incomplete;
  std::int64_t changed_ns = 0;  ///< of the completion file, else the root's own modification time
};

/// Every root, newest first. What is no directory, or has another name, is none of ours and is left out.
/// Empty when there is no cohorts directory. Throws `OSError`.
std::vector<CohortRoot> list_cohort_roots(const std::string& data_dir);

/// Bytes of the regular files below a directory, and the newest modification time of anything in it.
struct TreeMeasure {
  std::int64_t bytes = 0;
  std::int64_t newest_ns = 0;
};
TreeMeasure measure_tree(const std::string& path);

/// Whether a pin in any process holds the generation. The caller holds the exclusive distribution lock, so
/// that no new pin can come. Throws `OSError`.
bool is_pinned(const CohortRoot& root);

/// Renames a root inside the cohorts directory; one call, so that a crash leaves the one name or the other.
/// Throws `FileNotFoundError`, `OSError`.
void rename_cohort_root(const std::string& data_dir, const std::string& from_name,
                        const std::string& to_name);

}  // namespace tidalcrest::sync::local_cohort
