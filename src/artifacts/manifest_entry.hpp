#pragma once

#include <cstdint>
#include <string>

#include "download/manifest_generation.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

/// What the manifest declares for one file. A missing entry, one that is no object, a missing member and a
/// null member all read as absent.
class ManifestEntry {
 public:
  ManifestEntry(const Manifest& manifest, const std::string& path) : _entry(manifest.file_entry(path)) {}
  explicit ManifestEntry(const Document& entry) : _entry(&entry) {}

  /// Null when absent.
  const Document* find(const std::string& key) const;
  /// The text form of a member, empty when absent.
  std::string text(const std::string& key) const;
  /// Whether the declared digest and size, both required, are these. Nothing is converted.
  bool declares(const std::string& sha256, std::size_t size_bytes) const;
  const Document* document() const noexcept { return _entry; }

 private:
  const Document* _entry;
};

/// The generation of a transfer that only knows where the manifest's bytes lie: it cannot be superseded.
ManifestGeneration data_origin_of(const Manifest& manifest);

}  // namespace tidalcrest::sync
