#pragma once

#include <string>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// `DataDirectory::status`. Throws only where the directory itself cannot be read.
Document directory_status(const std::string& data_dir);

}  // namespace tidalcrest::sync
