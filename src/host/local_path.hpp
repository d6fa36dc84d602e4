#pragma once

#include <string>

namespace tidalcrest::sync {

/// `name` below `directory`, with one separator between them.
std::string join_path(const std::string& directory, const std::string& name);

/// The path with a leading `~` or `~user` replaced by that home directory; as it stands when there is none.
std::string expand_home(const std::string& path);

/// Absolute and lexically normalised: no `.`, no `..`, no empty segment, no trailing separator. The file
/// system is asked for the working directory only, so symbolic links stay as they are. `OSError` when there
/// is none.
std::string absolute_path(const std::string& path);

}  // namespace tidalcrest::sync
