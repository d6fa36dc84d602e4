#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "siblings/distribution/pinned_root.hpp"

/// Operations on one member of a root, each pinning the root for its own duration. For a loop over many
/// members, pin the root once and use `PinnedRoot` itself.
namespace tidalcrest::sync::client_manifest {

std::string read_contained_regular_file(const std::string& root, const std::string& path,
                                        const std::string& label);
std::optional<std::string> read_contained_regular_file_if_present(const std::string& root,
                                                                  const std::string& path,
                                                                  const std::string& label);
/// Gives the local path, absolute.
std::string write_contained_regular_file(const std::string& root, const std::string& path,
                                         std::string_view data, bool allow_replace);
void copy_contained_regular_file(const std::string& source_root, const std::string& source_path,
                                 const std::string& target_root, const std::string& target_path);
/// One rename where both roots share a file system, else a copy and a removal. Replaces the target.
void move_contained_regular_file(const std::string& source_root, const std::string& source_path,
                                 const std::string& target_root, const std::string& target_path);
void remove_contained_regular_file(const std::string& root, const std::string& path, bool missing_ok);
FileStat stat_contained_regular_file(const std::string& root, const std::string& path,
                                     const std::string& label);
/// `chunk_bytes` bounds the memory in use (at least 512 KiB); `ValueError` unless it is positive.
std::string hash_contained_regular_file(const std::string& root, const std::string& name,
                                        const std::string& label, std::int64_t chunk_bytes);
FileIdentity identify_contained_regular_file(const std::string& root, const std::string& path,
                                             const std::string& label);
/// Gives the absolute path. `base` must be there; what is missing below it is made.
std::string ensure_contained_directory(const std::string& base, const std::string& path);
/// Removes whatever stands at `path`, with all below it. Follows no link: links and special files go
/// themselves.
void remove_contained_directory_tree(const std::string& base, const std::string& path, bool missing_ok);
/// Removes every regular file below the root whose name ends in `suffix`, except the preserved paths. Links
/// are neither followed nor removed. No member of a cohort can end in `.tmp`, so that suffix is swept
/// everywhere; any other one is not looked for below the cohorts directory, whose generations are immutable.
/// An empty suffix is a `ValueError`. A file that cannot be removed does not stop the sweep; the first such
/// failure is thrown at its end.
void cleanup_contained_regular_files(const std::string& root, const std::string& suffix,
                                     const std::set<std::string>& preserve_relative_paths);
/// Removes every regular file below the given directories (a trailing slash is welcome), except the paths
/// that `preserves` is true for, under the same rules. A prefix that reaches into the cohorts directory is a
/// `ValueError`.
void cleanup_contained_regular_files_in_prefixes(const std::string& root,
                                                 const std::vector<std::string>& prefixes,
                                                 const std::function<bool(const std::string&)>& preserves);

/// On one file named by a path outside any root; the same refusals for its last component.
std::string read_regular_file_path(const std::string& path, const std::string& label);
void write_regular_file_path(const std::string& path, std::string_view data, bool allow_replace);
std::string hash_regular_file_path(const std::string& path, const std::string& label,
                                   std::int64_t chunk_bytes);

}  // namespace tidalcrest::sync::client_manifest
