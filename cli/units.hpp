#pragma once

#include <cstdint>
#include <string>

namespace tidalcrest::cli {

/// `912 B`, `3.4 MB`: powers of 1000.
std::string bytes_text(double bytes);
/// `1,234,567`
std::string count_text(std::int64_t count);
/// `1 file`, `1,234 files`: for nouns that take an s.
std::string counted(std::int64_t count, const std::string& noun);
/// `4 s`, `3 min 20 s`, `2 h 5 min`
std::string duration_text(double seconds);

}  // namespace tidalcrest::cli
