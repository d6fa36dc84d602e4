#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "download/manifest_generation.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

/// What the manifest declares for one file. A missing entry, one that is no object, a missing member and a
/// null member all read as absent.
class ManifestEntry {
 public:
  ManifestEntry(const Manifest& manifest, std::string_view path) : _entry(manifest.file_entry(path)) {}
  explicit ManifestEntry(const FileEntry& entry) : _entry(entry) {}

  /// Null when absent.
  Document value(std::string_view key) const;
  /// The text form of a member, empty when absent.
  std::string text(std::string_view key) const;
  /// Whether the declared digest and size, both required, are these. Nothing is converted.
  bool declares(const std::string& sha256, std::size_t size_bytes) const;
  bool exists() const noexcept { return _entry.has_value(); }
  /// None when there is no entry.
  FileEntry file_info() const noexcept { return _entry.value_or(FileEntry()); }

 private:
  std::optional<FileEntry> _entry;
};

/// The generation of a transfer that only knows where the manifest's bytes lie: it cannot be superseded.
ManifestGeneration data_origin_of(const Manifest& manifest);

}  // namespace tidalcrest::sync
