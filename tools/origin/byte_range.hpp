#pragma once

#include <cstdint>
#include <string>

namespace tidalcrest::origin {

/// What a Range header means for a body of a known size.
struct RangeDecision {
  enum class Kind { WHOLE, PART, UNSATISFIABLE } kind = Kind::WHOLE;
  std::uint64_t first = 0;
  std::uint64_t last = 0;  ///< inclusive
};

/// Reads one `bytes=` range: `a-b`, `a-` or `-n`. Everything malformed, and a list of ranges, gives WHOLE.
RangeDecision decide_range(const std::string& header, std::uint64_t size);

}  // namespace tidalcrest::origin
