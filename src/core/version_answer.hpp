#pragma once

#include "host/json.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync {

/// The manifest hash of a version answer: the first non-empty one of the three keys under which a server may
/// state it; null when there is none.
inline const Document* manifest_hash_hint(const Document& version_data) {
  for (const char* key : {"manifest_sha256", "manifest_sha", "sha256"}) {
    const Document* value = find_member(version_data, key);
    if (value != nullptr && text::truthy(*value)) return value;
  }
  return nullptr;
}

}  // namespace tidalcrest::sync
