#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "siblings/distribution/cohort_layout.hpp"
#include "siblings/distribution/completion_record.hpp"
#include "siblings/distribution/parsed_manifest.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/errors.hpp"

/// On-disk model of immutable cohort generations.
///
/// A generation root is named after the digest of the exact manifest bytes. It is complete only when its
/// manifest file and its completion record are both there, parse, and agree with that name. The selector is
/// the root `manifest.json`; replacing it by one rename is the only thing that makes a generation visible.
/// Publication goes in one order: members and completion written, one flush of the whole file system,
/// selector written aside and flushed, rename, flush of the directory. What fails before the rename leaves
/// the old selection; what fails after it is logged, and nothing rolls back.
///
/// Writers hold the exclusive distribution lock, readers the shared one; nothing here takes it. All
/// operations may be called from several threads. Failures of the disk are `OSError`.
namespace tidalcrest::sync::local_cohort {

/// One selected, complete generation. Immutable; shared by pointer to const.
struct Selection {
  std::string base_dir;                               ///< the data directory, absolute
  std::string root_dir;                               ///< the generation root, absolute
  std::shared_ptr<const std::string> manifest_bytes;  ///< the exact served bytes; never null
  SharedManifest manifest;                            ///< the parsed manifest bytes
  CompletedMembers members;  ///< `active_relative_paths` and `artifact_identities` of the completion record
  client_manifest::FileStat manifest_stat;    ///< of the manifest file that was read
  client_manifest::FileStat completion_stat;  ///< of the record that was read
};

/// A flush of the file system failed. The disk tells of a lost write once only, and what was lost still reads
/// from memory as it was written: no proof and no later flush would notice.
class FlushError : public virtual OSError {
 public:
  FlushError(const std::string& message, int error_number) : Failure(message) {
    _error_number = error_number;
  }
};

std::string manifest_sha256(const std::string& manifest_bytes);
/// `.tidalcrest-cohorts/{sha256 of the manifest bytes}`
std::string generation_relative_root(const std::string& manifest_bytes);
/// Absolute path of a newly created empty generation root; `OSError` when something stands there already.
std::string create_generation_root(const std::string& data_dir, const std::string& manifest_bytes);
/// Writes the manifest and completion files; the root counts as complete afterwards.
void complete_generation(const std::string& root, const std::string& manifest_bytes,
                         const CompletionRecord& completion);
/// Brings all that was written to the file system of a root to the disk: one flush. A handle from before the
/// first of the writes hears of each that was lost, also when another process was told of it meanwhile.
/// Throws `FlushError`.
void make_durable(const client_manifest::PinnedRoot& root);
/// Makes the generation durable, through `staged` if given (see `make_durable`), then replaces the selector:
/// the commit point. Gives the selection as it reads back. `LocalCohortError` when the generation is not
/// complete, and then nothing was touched; `FlushError` before the selector moves.
std::shared_ptr<const Selection> publish_manifest(const std::string& data_dir,
                                                  const std::string& manifest_bytes,
                                                  const client_manifest::PinnedRoot* staged = nullptr);
/// The selection read back from the selector. Without a selector: null, or `LocalCohortError` when
/// `required`. `LocalCohortError` for a selector without a complete generation, `ManifestJsonError` for a
/// corrupt one. While a selection that was read from the same two files is still alive it is given again.
std::shared_ptr<const Selection> load_active_cohort(const std::string& data_dir, bool required);
/// The exact bytes of the selector, whole generation or not; absent when there is no selector, or something
/// other than a regular file in its place: the next publication replaces that, unless it is a directory.
std::optional<std::string> read_selector_bytes(const std::string& data_dir);
/// Whether these are the bytes of the selector.
bool selector_holds(const std::string& data_dir, std::string_view manifest_bytes);

/// The members of a complete generation by its record alone; its manifest is not read. `ValueError` for a
/// record that does not belong there, `OSError`.
CompletedMembers read_completed_members(const client_manifest::PinnedRoot& generation);

/// Whether the generation still has the completion record that was read. One stat; false says only that a
/// look is due.
bool has_same_record(const Selection& selection);

/// Keeps the selected root readable until it is destroyed: a shared lock on the generation, which a collector
/// of old generations respects. Move-only.
class Pin {
 public:
  Pin(std::shared_ptr<const Selection> selection, client_manifest::PinnedRoot root);
  std::shared_ptr<const Selection> selection;
  client_manifest::PinnedRoot root;  ///< its descriptor holds the lock
  /// Measures one member against the identity that its generation recorded, and against the digest that the
  /// manifest declares. `FileNotFoundError`, `OSError`, `ValueError` (digest or size differs),
  /// `LocalCohortError` (not a member). `after_block` may end it by throwing.
  void verify_manifest_file_identity(const std::string& path, const std::string& label,
                                     const std::function<void()>& after_block = {}) const;
};

/// Pins what is selected at the moment of return. Throws `FileNotFoundError` when nothing is selected,
/// `LocalCohortError` for an incomplete cohort. Waits for a collector that holds the generation, as
/// `lock_opened_file` does.
Pin pin_active_cohort(const std::string& data_dir);

}  // namespace tidalcrest::sync::local_cohort
