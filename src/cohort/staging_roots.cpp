#include "cohort/staging_roots.hpp"

#include <optional>
#include <utility>

#include "host/log.hpp"
#include "host/text.hpp"
#include "host/unusable.hpp"
#include "siblings/distribution/cohort_roots.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

// The root of the selected generation, when these bytes are the ones selected and its completion record still
// reads: then it is mended. A disk that fails says nothing about the generation, and never gets it cleared.
std::optional<std::string> mendable_selected_root(const std::string& data_dir,
                                                  const std::string& served_manifest_bytes,
                                                  const std::string& manifest_sha256) {
  if (!local_cohort::selector_holds(data_dir, served_manifest_bytes)) return std::nullopt;
  const client_manifest::PinnedRoot base(data_dir);
  const std::string relative_root = std::string(local_cohort::COHORTS_DIRECTORY) + "/" + manifest_sha256;
  try {
    std::string completion_bytes =
        client_manifest::PinnedRoot(base, relative_root)
            .read_regular_file(local_cohort::COHORT_COMPLETION_FILE, "local cohort completion record");
    local_cohort::parse_completion_record(std::move(completion_bytes), manifest_sha256,
                                          served_manifest_bytes.size());
    return base.display_path(relative_root);
  } catch (const OSError& failure) {
    if (!client_manifest::means_wrong_or_missing_file(failure.error_number())) throw;
    return std::nullopt;
  } catch (const ValueError&) {
    return std::nullopt;
  }
}

// An earlier attempt for this identity makes room for an empty root. What it holds is not thrown away yet:
// the members may be proven again and taken over.
void move_leftover_aside(const std::string& data_dir, const std::string& name, const Seams& seams) {
  try {
    local_cohort::rename_cohort_root(
        data_dir, name,
        local_cohort::LEFTOVER_ROOT_PREFIX + text::hex(seams.random_bytes(local_cohort::ROOT_TOKEN_BYTES)));
  } catch (const FileNotFoundError&) {
    // The usual case: there is none.
  }
}

void clear_leftover(const std::string& data_dir, const std::string& manifest_sha256, const Seams& seams) {
  const auto refuse = [](const std::exception& failure) {
    throw SyncError(std::string("Unable to clear incomplete local cohort generation: ") + failure.what());
  };
  try {
    move_leftover_aside(data_dir, manifest_sha256, seams);
  } catch (const Failure& failure) {
    if (!is_unusable(failure)) throw;
    refuse(failure);
  }
}

}  // namespace

StagingRoots choose_staging_roots(const std::string& data_dir, const ActiveView& view,
                                  const std::string& served_manifest_bytes, const Seams& seams) {
  StagingRoots roots;
  roots.manifest_sha256 = local_cohort::manifest_sha256(served_manifest_bytes);
  roots.active_root = view.data_dir;
  roots.active_is_generation = view.cohort != nullptr;
  roots.same_identity = roots.active_is_generation && view.manifest_bytes != nullptr &&
                        *view.manifest_bytes == served_manifest_bytes;
  if (!roots.same_identity) {
    if (auto selected_root = mendable_selected_root(data_dir, served_manifest_bytes, roots.manifest_sha256)) {
      roots.active_root = std::move(*selected_root);
      roots.active_is_generation = true;
      roots.same_identity = true;
    }
  }
  if (roots.same_identity) {
    roots.repair_relative = std::string(local_cohort::COHORTS_DIRECTORY) + "/.repair-" +
                            roots.manifest_sha256 + "-" +
                            text::hex(seams.random_bytes(local_cohort::ROOT_TOKEN_BYTES));
    roots.candidate_root = client_manifest::ensure_contained_directory(data_dir, roots.repair_relative);
  } else {
    clear_leftover(data_dir, roots.manifest_sha256, seams);
    roots.candidate_root = local_cohort::create_generation_root(data_dir, served_manifest_bytes);
  }
  // A later attempt can tell from it what the staged files and prefixes were for.
  client_manifest::write_contained_regular_file(roots.candidate_root, local_cohort::COHORT_MANIFEST_FILE,
                                                served_manifest_bytes, /*allow_replace=*/true);
  return roots;
}

void remove_unflushed_root(const std::string& data_dir, const std::string& served_manifest_bytes) noexcept {
  try {
    client_manifest::remove_contained_directory_tree(
        data_dir, local_cohort::generation_relative_root(served_manifest_bytes), /*missing_ok=*/true);
  } catch (const std::exception& failure) {
    log::warning("A generation that was not flushed could not be removed: %s", failure.what());
  }
}

void remove_repair_staging_root(const std::string& data_dir, const StagingRoots& roots) noexcept {
  if (roots.repair_relative.empty()) return;
  try {
    client_manifest::remove_contained_directory_tree(data_dir, roots.repair_relative, /*missing_ok=*/true);
  } catch (const std::exception& failure) {
    log::debug("best-effort local cohort repair staging cleanup failed: %s", failure.what());
  }
}

}  // namespace tidalcrest::sync
