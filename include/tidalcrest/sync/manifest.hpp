#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/manifest_entries.hpp"

namespace tidalcrest::sync {

class ParsedManifest;

/// The three membership sections, which are present or absent together. Immutable once shared.
struct MembershipSections {
  Document found_signals;
  Document found_strategies;
  Document useful_signals;
};

/// In-memory representation of the server manifest.
///
/// Holds the sanitised manifest and is treated as immutable by everything but the one installation of the
/// membership sections after a signals index has been validated. Reading is thread-safe, also beside that
/// installation.
class Manifest {
 public:
  /// Sanitises and validates. Throws `ManifestError`.
  explicit Manifest(Document data);
  explicit Manifest(std::shared_ptr<const ParsedManifest> data);
  static Manifest from_dict(Document data) { return Manifest(std::move(data)); }
  Manifest(const Manifest&) = delete;
  Manifest& operator=(const Manifest&) = delete;
  Manifest(Manifest&& other) noexcept;

  /// A new document ready to serialise: the sanitised one with the present sections and a fresh
  /// `found_signal_count`, or without any of these keys. Throws `ManifestError`.
  Document to_dict() const;

  /// The sanitised document. For a large manifest its making, when it is asked for the first time, takes as
  /// long as reading the manifest did, and it stays in several times the memory: `entries` and `head` need
  /// neither.
  const Document& data() const;
  /// `files` of `data`; an empty object when it is missing.
  const Document& files() const;
  /// The `files` without a document of them.
  const ManifestEntries& entries() const noexcept;
  /// The members of the document, in general without `files`.
  const Document& head() const noexcept;
  /// What all of this is read from, for those inside the library; never null.
  const std::shared_ptr<const ParsedManifest>& parsed() const noexcept { return _data; }
  /// As in the document, not converted; 0 when missing (`version`, `pnl_column_count`), null when missing
  /// (`market_id`, `functions`, `signals_index`, and the string attributes).
  const Document& era_number() const noexcept { return _attribute("era_number", ZERO); }
  const Document& version() const noexcept { return _attribute("version", ZERO); }
  const Document& market_id() const noexcept { return _attribute("market_id", NONE); }
  const Document& base_url() const noexcept { return _attribute("base_url", NONE); }
  const Document& shuffle_key_generation() const noexcept {
    return _attribute("shuffle_key_generation", NONE);
  }
  const Document& shuffle_key_source() const noexcept { return _attribute("shuffle_key_source", NONE); }
  const Document& pnl_column_count() const noexcept { return _attribute("pnl_column_count", ZERO); }
  const Document& signals_index() const noexcept { return _attribute("signals_index", NONE); }
  const Document& functions() const noexcept { return _attribute("functions", NONE); }

  /// The entry of one path when it is an object.
  std::optional<FileEntry> file_entry(std::string_view path) const noexcept;

  /// Null until the document or a validated signals index gave them.
  std::shared_ptr<const MembershipSections> membership() const;
  /// Installs the sections of a validated signals index, all three at once.
  void install_membership(std::shared_ptr<const MembershipSections> sections) const;

 private:
  static const Document& ZERO;
  static const Document& NONE;
  static const Document& EMPTY;
  const Document& _attribute(const char* key, const Document& missing) const noexcept;

  std::shared_ptr<const ParsedManifest> _data;
  mutable std::mutex _membership_mutex;  // guards `_membership`; a leaf, held for the copy of one pointer
  mutable std::shared_ptr<const MembershipSections> _membership;
};

}  // namespace tidalcrest::sync
