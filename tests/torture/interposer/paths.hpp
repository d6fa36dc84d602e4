#pragma once

#include <string>

namespace tidalcrest::torture {

/// Where a path that starts at `directory` leads, as far as the kernel tells; empty when it does not.
std::string absolute_path(int directory, const char* path);
/// Where an open file lies; empty for what is no file or directory.
std::string path_of(int descriptor);
/// Whether a path lies below the directory whose files count.
bool counts(const std::string& path);
bool is_regular(int descriptor);
unsigned long inode_of(int descriptor);

}  // namespace tidalcrest::torture
