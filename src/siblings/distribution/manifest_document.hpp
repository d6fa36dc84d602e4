#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "siblings/distribution/parsed_manifest.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync::client_manifest {

/// Parses the exact bytes of a distribution manifest: strict JSON, an object, at most 256 MiB; every key of
/// `files` a manifest relative path that cannot collide with what the client keeps, every value an object.
/// `ManifestJsonError` for corrupt JSON, `ValueError` for a wrong shape; every text names the label. Linear
/// in the number of bytes.
Document parse_distribution_manifest_bytes(std::string_view body, const std::string& label);
/// The same, kept as its text where that is plain.
SharedManifest parse_distribution_manifest(std::shared_ptr<const std::string> body, const std::string& label);

/// The path itself when it obeys the manifest path rule; `ValueError` saying which rule broke otherwise.
const std::string& validate_manifest_relative_path(const std::string& path);
void check_manifest_relative_path(std::string_view path);
/// The same for a value of any type; what is no string is a `TypeError`.
std::string validate_manifest_relative_path(const Document& path);

/// The sidecar's relative path, or absent when the manifest declares none. `TypeError` or `ValueError`.
std::optional<std::string> validate_signals_index_manifest_declaration(const ParsedManifest& manifest);

}  // namespace tidalcrest::sync::client_manifest
