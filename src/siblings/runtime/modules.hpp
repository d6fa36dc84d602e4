#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// Tag of the running process: `linux_x86_64`, `linux_aarch64`, `macosx_arm64` and so on.
extern const std::string& CURRENT_PLATFORM;
inline constexpr const char* RUNTIME_MODULE_KIND_SUFFIX = "_module";

/// Whether a kind names a runtime module that is supported; the one supported kind is "vault_module".
bool is_runtime_module_kind(std::string_view kind);
/// Module name of a runtime extension source, absent for any other file.
std::optional<std::string> runtime_module_name_from_kind(const std::string& kind,
                                                         const std::string& relative_path);

namespace extension_snapshot {
/// `runtime_snapshots/{module_name}/{first 16 hex of sha256}/{last segment}` and a mapping with at least
/// `size_bytes` and `source_sha256`.
std::pair<std::string, Document> snapshot_record(const std::string& module_name,
                                                 const std::string& source_relative_path,
                                                 const std::string& source_sha256,
                                                 const Document& size_bytes);
}  // namespace extension_snapshot

}  // namespace tidalcrest::sync
