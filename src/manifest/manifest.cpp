#include "tidalcrest/sync/manifest.hpp"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "host/json.hpp"
#include "host/never_destroyed.hpp"
#include "host/text.hpp"
#include "manifest/as_manifest_error.hpp"
#include "manifest/sanitising.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "siblings/distribution/parsed_manifest.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

struct Section {
  const char* name;
  Document MembershipSections::*member;
};
constexpr std::array<Section, 3> SIGNALS_INDEX_SECTIONS = {{
    {"found_signals", &MembershipSections::found_signals},
    {"found_strategies", &MembershipSections::found_strategies},
    {"useful_signals", &MembershipSections::useful_signals},
}};

SharedManifest sanitised(const SharedManifest& data) {
  try {
    return _sanitize_manifest_for_sync(data);
  } catch (const TypeError& failure) {
    throw ManifestError(failure.what());
  }
}

std::shared_ptr<const MembershipSections> document_membership(const Document& head) {
  std::vector<std::string> missing;
  for (const Section& section : SIGNALS_INDEX_SECTIONS) {
    if (find_member(head, section.name) == nullptr) missing.push_back(section.name);
  }
  if (missing.size() == SIGNALS_INDEX_SECTIONS.size()) return nullptr;
  if (!missing.empty()) {
    throw ManifestError("manifest membership sections must be supplied together; missing " +
                        text::list_text(missing));
  }
  auto sections = std::make_shared<MembershipSections>();
  for (const Section& section : SIGNALS_INDEX_SECTIONS) {
    const Document& value = *find_member(head, section.name);
    if (!value.is_object())
      throw ManifestError(fmt::format("manifest {} must be a JSON object", section.name));
    (*sections).*section.member = value;
  }
  return sections;
}

bool is_absent(const MembershipSections& sections, const Section& section) {
  return (sections.*section.member).is_null();
}

}  // namespace

const Document& Manifest::ZERO = never_destroyed<const Document>(0);
const Document& Manifest::NONE = never_destroyed<const Document>(nullptr);
const Document& Manifest::EMPTY = never_destroyed<const Document>(Document::object());

Manifest::Manifest(Document data) : Manifest(std::make_shared<const ParsedManifest>(std::move(data))) {}

Manifest::Manifest(SharedManifest data) : _data(sanitised(data)) {
  as_manifest_error([this] { client_manifest::validate_signals_index_manifest_declaration(*_data); });
  const Document* era_number = find_member(head(), "era_number");
  if (era_number == nullptr || era_number->is_null()) {
    throw ManifestError("manifest.json missing required era_number");
  }
  _membership = document_membership(head());
}

// Two pointers are copied: what was moved from stays whole.
// NOLINTNEXTLINE(performance-move-constructor-init)
Manifest::Manifest(Manifest&& other) noexcept : _data(other._data), _membership(other.membership()) {}

Document Manifest::to_dict() const {
  Document copy = _data->document();
  const auto sections = membership();
  std::size_t absent = 0;
  for (const Section& section : SIGNALS_INDEX_SECTIONS) {
    if (!sections || is_absent(*sections, section)) ++absent;
  }
  if (absent == SIGNALS_INDEX_SECTIONS.size()) {
    for (const Section& section : SIGNALS_INDEX_SECTIONS) copy.erase(section.name);
    copy.erase("found_signal_count");
    return copy;
  }
  if (absent != 0) {
    throw ManifestError(
        "manifest membership state is incomplete; all membership sections must be loaded together");
  }
  for (const Section& section : SIGNALS_INDEX_SECTIONS) copy[section.name] = (*sections).*section.member;
  copy["found_signal_count"] = sections->found_signals.size();
  return copy;
}

const Document& Manifest::data() const { return _data->whole(); }

const Document& Manifest::files() const {
  const Document* files = find_member(data(), "files");
  return files == nullptr ? EMPTY : *files;
}

const ManifestEntries& Manifest::entries() const noexcept { return _data->entries(); }

const Document& Manifest::head() const noexcept { return _data->head(); }

std::optional<FileEntry> Manifest::file_entry(std::string_view path) const noexcept {
  const auto entry = entries().find(path);
  return entry && entry->is_object() ? entry : std::nullopt;
}

std::shared_ptr<const MembershipSections> Manifest::membership() const {
  const std::lock_guard lock(_membership_mutex);
  return _membership;
}

void Manifest::install_membership(std::shared_ptr<const MembershipSections> sections) const {
  const std::lock_guard lock(_membership_mutex);
  _membership.swap(sections);  // the ones before go after the lock
}

const Document& Manifest::_attribute(const char* key, const Document& missing) const noexcept {
  const Document* value = find_member(head(), key);
  return value == nullptr ? missing : *value;
}

}  // namespace tidalcrest::sync
