#pragma once

#include <string>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::cli {

/// The report of `DataDirectory::status` for people: a few lines of name and value.
std::string status_text(const sync::Document& status);

}  // namespace tidalcrest::cli
