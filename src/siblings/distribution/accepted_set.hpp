#pragma once

#include <string>
#include <string_view>

#include "siblings/distribution/parsed_manifest.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync::client_manifest {

/// The validated sidecar document with its three sections.
struct AcceptedSet {
  Document signals_index_document;
};

/// Size, digest, JSON, schema, era and market, sections, member paths: in this order. `TypeError`,
/// `ValueError`. Only the two failures of size and digest hold the phrases "signals_index sidecar size" and
/// "signals_index sidecar sha256", by which callers know a damaged transfer from a bad document.
AcceptedSet validate_accepted_distribution_set(const ParsedManifest& manifest, std::string_view body);

/// Reads the sidecar below `data_dir` and validates it. Each path of `found_signals` and `found_strategies`
/// that the manifest lists, and that this client does not exclude, must be there as a regular file.
/// `FileNotFoundError` naming the first that is missing, `OSError`, `TypeError`, `ValueError`.
AcceptedSet load_accepted_distribution_set(const std::string& data_dir, const ParsedManifest& manifest);

}  // namespace tidalcrest::sync::client_manifest
