#include "artifacts/manifest_entry.hpp"

#include "host/equality.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync {

Document ManifestEntry::value(std::string_view key) const { return _entry ? _entry->value(key) : Document(); }

std::string ManifestEntry::text(std::string_view key) const {
  const Document member = value(key);
  return member.is_null() ? std::string() : text::str(member);
}

bool ManifestEntry::declares(const std::string& sha256, std::size_t size_bytes) const {
  return host_equal(value("size_bytes"), Document(size_bytes)) &&
         host_equal(value("sha256"), Document(sha256));
}

ManifestGeneration data_origin_of(const Manifest& manifest) {
  const Document& base_url = manifest.base_url();
  if (base_url.is_string()) return {.base_url = base_url.get<std::string>(), .version = {}, .era_number = {}};
  // An empty address gives way to the active manifest's. A value that is no text must not: as a blank it is
  // refused like every other bad address.
  return {.base_url = text::truthy(base_url) ? " " : "", .version = {}, .era_number = {}};
}

}  // namespace tidalcrest::sync
