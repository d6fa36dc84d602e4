#include "core/directory_status.hpp"

#include <sys/stat.h>

#include <optional>
#include <utility>

#include "core/consumer_count.hpp"
#include "core/request_gate.hpp"
#include "core/selected_cohort.hpp"
#include "download/local_files.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/local_path.hpp"
#include "host/text.hpp"
#include "rotation/catalog.hpp"
#include "siblings/distribution/cohort_roots.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "siblings/distribution/lock.hpp"
#include "siblings/distribution/rotation_settings.hpp"
#include "siblings/distribution/sync_progress.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/rotation.hpp"

namespace tidalcrest::sync {
namespace {

using local_cohort::CohortRootKind;
using local_cohort::Selection;

std::int64_t declared_bytes(const Selection& selection) {
  const ManifestEntries& entries = selection.manifest->entries();
  std::int64_t bytes = 0;
  for (const auto& path : selection.members.active_relative_paths) {
    const auto entry = entries.find(path);
    if (entry) bytes += manifest_file_size(*entry).second;
  }
  return bytes;
}

Document describe_cohort(const Selection& selection) {
  return {{"era_number", member_or_null(selection.manifest->head(), "era_number")},
          {"version", member_or_null(selection.manifest->head(), "version")},
          {"market_id", member_or_null(selection.manifest->head(), "market_id")},
          {"manifest_sha256", local_cohort::manifest_sha256(*selection.manifest_bytes)},
          {"root_dir", absolute_path(selection.root_dir)},
          {"manifest_files", selection.manifest->entries().size()},
          {"members", selection.members.active_relative_paths.size()},
          {"member_bytes", declared_bytes(selection)}};
}

Document describe_generations(const std::vector<local_cohort::CohortRoot>& roots) {
  std::size_t complete = 0;
  for (const auto& root : roots) complete += root.kind == CohortRootKind::complete ? 1 : 0;
  return {{"complete", complete}, {"unfinished", roots.size() - complete}};
}

Document describe_rotation(const std::string& data_dir, const Selection* selection) {
  if (selection == nullptr) return feature_rotation_status_payload(data_dir);
  const Manifest manifest(selection->manifest);
  const Document context = _rotation_catalog_context(manifest, _rotation_manifest_artifacts(manifest));
  const auto settings = rotation_settings::load_rotation_settings(data_dir, context);
  return feature_rotation_status_payload(data_dir, settings.model_dump());
}

Document describe_consumers(const std::string& data_dir) {
  const auto text = client_manifest::read_contained_regular_file_if_present(data_dir, CONSUMER_COUNT_FILENAME,
                                                                            "consumer count");
  return text ? Document(to_int(std::string_view(*text))) : Document(nullptr);
}

Document describe_transition(const std::string& data_dir) {
  const auto process_id = client_manifest::read_contained_regular_file_if_present(
      data_dir, TRANSITION_LOCK_FILENAME, "transition marker");
  if (!process_id) return nullptr;
  return {{"process_id", text::strip(*process_id)}};
}

// The root in which the writer of this moment gathers members: only one process stages at a time.
std::optional<std::string> staging_root(const std::vector<local_cohort::CohortRoot>& newest_first) {
  for (const auto& root : newest_first) {
    if (root.kind == CohortRootKind::incomplete || root.kind == CohortRootKind::repair) return root.path;
  }
  return std::nullopt;
}

std::optional<std::int64_t> bytes_at(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return status.st_size;
}

struct Arrived {
  std::int64_t files = 0;
  std::int64_t bytes = 0;
};

// Of the files of a download set, what the staging root holds: whole ones, and the prefixes of others.
Arrived count_arrived(const Document& files, const std::string& root) {
  Arrived arrived;
  for (const auto& [path, entry] : files.get_ref<const Document::object_t&>()) {
    const std::string local_path = join_path(root, path);
    if (const auto whole = bytes_at(local_path)) {
      ++arrived.files;
      arrived.bytes += *whole;
    } else {
      arrived.bytes += bytes_at(local_path + ".tmp").value_or(0);
    }
  }
  return arrived;
}

Document describe_progress(const std::string& data_dir, const std::vector<local_cohort::CohortRoot>& roots,
                           bool busy) {
  const auto text = client_manifest::read_contained_regular_file_if_present(data_dir, SYNC_PROGRESS_FILENAME,
                                                                            "sync progress file");
  if (!text) return nullptr;
  const Document shown = parse_json(*text);
  if (!shown.is_object()) throw ValueError(std::string(SYNC_PROGRESS_FILENAME) + " is no JSON object");
  Document progress = {{"running", busy}};
  for (const char* key : {"phase", "era_number", "version", "updated_at", "backoff"}) {
    progress[key] = member_or_null(shown, key);
  }
  const Document* files = find_member(shown, "files");
  const bool has_set = files != nullptr && files->is_object();
  const auto root = staging_root(roots);
  const Arrived arrived = has_set && root ? count_arrived(*files, *root) : Arrived{};
  progress["files"] = has_set ? Document(files->size()) : Document(nullptr);
  progress["bytes"] = member_or_null(shown, "total_bytes");
  progress["files_arrived"] = arrived.files;
  progress["bytes_arrived"] = arrived.bytes;
  return progress;
}

// Makes one part of the report; a part that cannot be made is null, and the reason is kept.
class Report {
 public:
  template <class Describe>
  Document part(const char* name, const Describe& describe) {
    try {
      return describe();
    } catch (const std::exception& failure) {
      _problems.push_back(std::string(name) + ": " + failure.what());
      return nullptr;
    }
  }
  const Document& problems() const noexcept { return _problems; }

 private:
  Document _problems = Document::array();
};

}  // namespace

Document directory_status(const std::string& data_dir) {
  Report report;
  std::shared_ptr<const Selection> selection;
  const Document cohort = report.part("cohort", [&]() -> Document {
    selection = selected_cohort(data_dir, /*required=*/false);
    return selection ? describe_cohort(*selection) : Document(nullptr);
  });
  const bool damaged = !report.problems().empty();
  const Document busy = report.part("busy", [&] { return Document(distribution_lock_is_busy(data_dir)); });
  const auto roots = local_cohort::list_cohort_roots(data_dir);
  Document status = {
      {"data_dir", absolute_path(data_dir)},
      {"state", damaged            ? "damaged"
                : cohort.is_null() ? "empty"
                                   : "active"},
      {"cohort", cohort},
      {"generations", describe_generations(roots)},
      {"rotation", report.part("rotation", [&] { return describe_rotation(data_dir, selection.get()); })},
      {"consumers", report.part("consumers", [&] { return describe_consumers(data_dir); })},
      {"busy", busy},
      {"transition", report.part("transition", [&] { return describe_transition(data_dir); })},
      {"progress", report.part("progress", [&] { return describe_progress(data_dir, roots, busy == true); })},
  };
  status["problems"] = report.problems();
  return status;
}

}  // namespace tidalcrest::sync
