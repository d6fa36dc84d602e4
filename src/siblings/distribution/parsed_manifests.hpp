#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "siblings/distribution/parsed_manifest.hpp"

namespace tidalcrest::sync::client_manifest {

/// The manifest of these exact bytes, whose digest is `sha256`: the one that is still held somewhere in this
/// process, else parsed as `parse_distribution_manifest` does. A large manifest costs several times as much
/// to parse as to hash, and one sync asks for the same one at several places. Thread-safe.
SharedManifest shared_manifest(const std::shared_ptr<const std::string>& body, const std::string& sha256,
                               const std::string& label);
/// The same for bytes that somebody else owns; they are copied when they have to be parsed.
SharedManifest shared_manifest(std::string_view body, const std::string& sha256, const std::string& label);

}  // namespace tidalcrest::sync::client_manifest
