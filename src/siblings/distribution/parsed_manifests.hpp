#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync::client_manifest {

/// The document of these exact bytes, whose digest is `sha256`: the one that is still held somewhere in this
/// process, else parsed as `parse_distribution_manifest_bytes` does. A large manifest costs twenty times as
/// much to parse as to hash, and one sync asks for the same one at several places. Thread-safe.
std::shared_ptr<const Document> shared_manifest_document(std::string_view body, const std::string& sha256,
                                                         const std::string& label);

}  // namespace tidalcrest::sync::client_manifest
