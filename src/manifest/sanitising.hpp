#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

// A served manifest can list files that this client must never see or fetch: declaration files of agent
// bundles, runtime modules of no supported kind, and the retired long PnL files. They are removed from what
// was parsed before it becomes a `Manifest`; the served bytes stay as they were.

bool _is_agent_bundle_declaration_file(std::string_view file_path, const FileEntry& file_info);
bool _is_unsupported_runtime_module_file(std::string_view file_path, const FileEntry& file_info);
std::optional<std::string> _retired_unsupported_runtime_module_name_from_path(const std::string& file_path);
bool _is_retired_unsupported_runtime_module_path(const std::string& file_path);
bool _is_retired_found_pnl_long_file(std::string_view file_path);
bool _manifest_has_agent_bundle_declarations(const Manifest& manifest);
bool _manifest_has_retired_found_pnl_long_files(const Manifest& manifest);

/// Each rewrite leaves its input alone, and gives the input object itself when it drops nothing. They
/// validate nothing; only a document or a `files` that is no JSON object is a `TypeError`.
using SharedDocument = std::shared_ptr<const Document>;
SharedDocument _drop_agent_bundle_declaration_files(const SharedDocument& manifest_data);
SharedDocument _drop_unsupported_runtime_module_files(const SharedDocument& manifest_data);
SharedDocument _drop_retired_found_pnl_long_files(const SharedDocument& manifest_data);
SharedDocument _sanitize_manifest_data_for_sync(const SharedDocument& manifest_data);
/// The same; what is kept as its text stays that.
std::shared_ptr<const ParsedManifest> _sanitize_manifest_for_sync(
    const std::shared_ptr<const ParsedManifest>& manifest);

}  // namespace tidalcrest::sync
