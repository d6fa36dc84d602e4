#pragma once

#include <string>

#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

/// Proves `functions.json` below a root and gives the parsed document. Never trusts a cache.
Document _validate_functions_file(const std::string& data_dir, const Manifest& manifest);

}  // namespace tidalcrest::sync
