#pragma once

#include <sys/stat.h>

#include "siblings/distribution/pinned_root.hpp"

namespace tidalcrest::sync::client_manifest {

/// The record of an operating-system status.
FileStat file_stat_of(const struct stat& status) noexcept;

/// Digest and stat of an opened file whose status was just taken; the same again after reading, or `OSError`.
FileIdentity identify_opened_file(int descriptor, const struct stat& status, std::int64_t block_bytes,
                                  const std::string& what, const std::function<void()>& after_block = {});

}  // namespace tidalcrest::sync::client_manifest
