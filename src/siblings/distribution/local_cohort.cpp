#include "siblings/distribution/local_cohort.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "host/digest.hpp"
#include "host/failures.hpp"
#include "host/log.hpp"
#include "siblings/distribution/contained_open.hpp"
#include "siblings/distribution/disk_calls.hpp"
#include "siblings/distribution/file_blocks.hpp"
#include "siblings/distribution/file_lock.hpp"
#include "siblings/distribution/generation_loading.hpp"

namespace tidalcrest::sync::local_cohort {
namespace {

using client_manifest::PinnedRoot;

constexpr const char* SELECTOR_LABEL = "root manifest.json";
constexpr mode_t GENERATION_MODE = 0777;  // the user's umask decides

// How often a pin starts anew when the selector moves while it is taken. A publication needs the exclusive
// distribution lock, which readers keep away, so even one turn is rare.
constexpr int PIN_ATTEMPTS = 16;

void flush_directory_after_commit(const PinnedRoot& base) {
  if (disk_calls().flush_file(base.descriptor()) == 0) return;
  log::warning("The new selection of %s is in place, but its directory could not be flushed: %s", base.path(),
               std::generic_category().message(errno));
}

bool is_same_directory_still(const PinnedRoot& root) {
  try {
    root.assert_root_unchanged();
    return true;
  } catch (const OSError&) {
    return false;
  }
}

// Runs one look at the selector. A link, a directory or a special file in its place selects no cohort; a disk
// that fails stays an `OSError`.
template <class Look>
auto look_at_selector(const Look& look) {
  try {
    return look();
  } catch (const FileNotFoundError&) {
    throw;
  } catch (const OSError& failure) {
    if (!client_manifest::means_wrong_or_missing_file(failure.error_number())) throw;
    throw LocalCohortError(failure.what());
  }
}

// The generation that the selector names; absent without a selector. A large manifest that somebody holds is
// compared, not read into memory once more.
std::optional<LoadedGeneration> load_selected_generation(const PinnedRoot& base) {
  auto known = living_selection(base);
  const auto names_the_known = [&] {
    return known && base.holds_exactly(SELECTOR_FILE, *known->manifest_bytes, SELECTOR_LABEL);
  };
  if (look_at_selector(names_the_known)) return reload_generation(base, std::move(known));
  auto manifest_bytes =
      look_at_selector([&] { return base.read_regular_file_if_present(SELECTOR_FILE, SELECTOR_LABEL); });
  if (!manifest_bytes) return std::nullopt;
  return load_generation(base, *std::move(manifest_bytes));
}

// One try to pin what the selector names; absent when the selector or the generation moved meanwhile.
std::optional<Pin> try_pin(const PinnedRoot& base) {
  const auto stat_selector = [&] { return base.stat_regular_file(SELECTOR_FILE, SELECTOR_LABEL); };
  const auto selector_before = look_at_selector(stat_selector);
  auto generation = load_selected_generation(base);
  if (!generation) return std::nullopt;  // gone since the stat
  lock_opened_file(generation->root.descriptor(), /*exclusive=*/false,
                   "the generation " + generation->root.path());
  if (!is_same_directory_still(generation->root)) return std::nullopt;
  if (look_at_selector(stat_selector) != selector_before) return std::nullopt;
  return Pin(std::move(generation->selection), std::move(generation->root));
}

// Empty when the manifest declares none.
std::string_view declared_sha256(const ParsedManifest& manifest, std::string_view path) {
  const auto entry = manifest.entries().find(path);
  return entry ? entry->text("sha256").value_or(std::string_view()) : std::string_view();
}

void require_sha256(const std::string& label, const std::string& path, std::string_view expected,
                    const std::string& measured) {
  if (measured == expected) return;
  throw ValueError(
      fmt::format("{}: {}: sha256 mismatch: expected {}, got {}", label, path, expected, measured));
}

}  // namespace

std::string manifest_sha256(const std::string& manifest_bytes) { return sha256_hex(manifest_bytes); }

std::string generation_relative_root(const std::string& manifest_bytes) {
  return std::string(COHORTS_DIRECTORY) + "/" + manifest_sha256(manifest_bytes);
}

std::string create_generation_root(const std::string& data_dir, const std::string& manifest_bytes) {
  using namespace client_manifest;
  const PinnedRoot base(data_dir);
  const std::string relative_root = generation_relative_root(manifest_bytes);
  std::string root_dir = base.display_path(relative_root);
  const MemberPlace place =
      locate_member(base.descriptor(), relative_root, MissingDirectories::create, root_dir);
  if (::mkdirat(place.directory, place.name.c_str(), GENERATION_MODE) != 0) throw_os_error(errno, root_dir);
  return root_dir;
}

void complete_generation(const std::string& root, const std::string& manifest_bytes,
                         const CompletionRecord& completion) {
  const PinnedRoot generation(root);
  generation.write_atomic(COHORT_MANIFEST_FILE, manifest_bytes, /*allow_replace=*/true);
  generation.write_atomic(COHORT_COMPLETION_FILE, completion.bytes, /*allow_replace=*/true);
  generation.assert_root_unchanged();
}

void make_durable(const PinnedRoot& root) {
  if (disk_calls().flush_file_system(root.descriptor()) == 0) return;
  const int why = errno;
  throw FlushError(
      fmt::format("flush of the file system of {}: {}", root.path(), std::generic_category().message(why)),
      why);
}

std::shared_ptr<const Selection> publish_manifest(const std::string& data_dir,
                                                  const std::string& manifest_bytes,
                                                  const PinnedRoot* staged) {
  const PinnedRoot base(data_dir);
  const LoadedGeneration published = load_generation(base, manifest_bytes);
  make_durable(staged != nullptr ? *staged : published.root);
  base.write_atomic(SELECTOR_FILE, manifest_bytes, /*allow_replace=*/true);
  flush_directory_after_commit(base);
  return load_active_cohort(data_dir, /*required=*/true);
}

std::shared_ptr<const Selection> load_active_cohort(const std::string& data_dir, bool required) {
  const PinnedRoot base(data_dir);
  if (auto generation = load_selected_generation(base)) return std::move(generation->selection);
  if (required) throw LocalCohortError("no local cohort is selected in " + base.path());
  return nullptr;
}

std::optional<std::string> read_selector_bytes(const std::string& data_dir) {
  try {
    return PinnedRoot(data_dir).read_regular_file_if_present(SELECTOR_FILE, SELECTOR_LABEL);
  } catch (const OSError& failure) {
    if (!client_manifest::means_wrong_or_missing_file(failure.error_number())) throw;
    return std::nullopt;
  }
}

bool selector_holds(const std::string& data_dir, std::string_view manifest_bytes) {
  try {
    return PinnedRoot(data_dir).holds_exactly(SELECTOR_FILE, manifest_bytes, SELECTOR_LABEL);
  } catch (const OSError& failure) {
    if (!client_manifest::means_wrong_or_missing_file(failure.error_number())) throw;
    return false;
  }
}

CompletedMembers read_completed_members(const PinnedRoot& generation) {
  const auto manifest = generation.stat_regular_file(COHORT_MANIFEST_FILE, MANIFEST_LABEL);
  return parse_completion_record(generation.read_regular_file(COHORT_COMPLETION_FILE, COMPLETION_LABEL),
                                 generation.path().substr(generation.path().rfind('/') + 1),
                                 static_cast<std::size_t>(manifest.size_bytes));
}

bool has_same_record(const Selection& selection) {
  try {
    return PinnedRoot(selection.root_dir).stat_regular_file(COHORT_COMPLETION_FILE, COMPLETION_LABEL) ==
           selection.completion_stat;
  } catch (const OSError&) {
    return false;
  }
}

Pin::Pin(std::shared_ptr<const Selection> selection, PinnedRoot root)
    : selection(std::move(selection)), root(std::move(root)) {}

void Pin::verify_manifest_file_identity(const std::string& path, const std::string& label,
                                        const std::function<void()>& after_block) const {
  const RecordedIdentity* expected = selection->members.find(path);
  if (expected == nullptr) {
    throw LocalCohortError(fmt::format("{}: {}: not a member of the active local cohort", label, path));
  }
  const auto measured =
      root.identify_regular_file(path, label, client_manifest::DEFAULT_BLOCK_BYTES, after_block);
  if (measured.size_bytes != expected->size_bytes) {
    throw ValueError(fmt::format("{}: {}: size mismatch: expected {} bytes, got {}", label, path,
                                 expected->size_bytes, measured.size_bytes));
  }
  require_sha256(label, path, expected->sha256, measured.sha256);
  const std::string_view declared = declared_sha256(*selection->manifest, path);
  if (!declared.empty()) require_sha256(label, path, declared, measured.sha256);
}

Pin pin_active_cohort(const std::string& data_dir) {
  const PinnedRoot base(data_dir);
  for (int attempt = 0; attempt < PIN_ATTEMPTS; ++attempt) {
    if (auto pin = try_pin(base)) return std::move(*pin);
  }
  throw LocalCohortError("the selected local cohort of " + base.path() +
                         " keeps changing while it is pinned");
}

}  // namespace tidalcrest::sync::local_cohort
