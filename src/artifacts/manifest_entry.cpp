#include "artifacts/manifest_entry.hpp"

#include "host/equality.hpp"
#include "host/json.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync {

const Document* ManifestEntry::find(const std::string& key) const {
  const Document* const member = _entry ? find_member(*_entry, key) : nullptr;
  return member && !member->is_null() ? member : nullptr;
}

std::string ManifestEntry::text(const std::string& key) const {
  const Document* const member = find(key);
  return member ? text::str(*member) : std::string();
}

bool ManifestEntry::declares(const std::string& sha256, std::size_t size_bytes) const {
  const Document* const size = find("size_bytes");
  const Document* const sha = find("sha256");
  return size && sha && host_equal(*size, Document(size_bytes)) && host_equal(*sha, Document(sha256));
}

ManifestGeneration data_origin_of(const Manifest& manifest) {
  const Document& base_url = manifest.base_url();
  if (base_url.is_string()) return {.base_url = base_url.get<std::string>(), .version = {}, .era_number = {}};
  // An empty address gives way to the active manifest's. A value that is no text must not: as a blank it is
  // refused like every other bad address.
  return {.base_url = text::truthy(base_url) ? " " : "", .version = {}, .era_number = {}};
}

}  // namespace tidalcrest::sync
