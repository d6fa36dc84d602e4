#pragma once

#include <string>

namespace tidalcrest::sync::deployment {

/// Negative, 0 or positive as `first` is lower than, equal to or higher than `second`; `ValueError` when
/// either is no version.
int compare_version_texts(const std::string& first, const std::string& second);

}  // namespace tidalcrest::sync::deployment
