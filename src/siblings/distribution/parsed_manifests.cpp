#include "siblings/distribution/parsed_manifests.hpp"

#include <map>

#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "siblings/distribution/manifest_document.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

class LivingManifests {
 public:
  SharedManifest find(const std::string& sha256) {
    const MutexLock lock(_mutex);
    const auto known = _by_sha256.find(sha256);
    return known == _by_sha256.end() ? nullptr : known->second.lock();
  }
  void remember(const std::string& sha256, const SharedManifest& manifest) {
    const MutexLock lock(_mutex);
    std::erase_if(_by_sha256, [](const auto& entry) { return entry.second.expired(); });
    _by_sha256[sha256] = manifest;
  }

 private:
  Mutex _mutex;  // a leaf, never held while parsing
  std::map<std::string, std::weak_ptr<const ParsedManifest>> _by_sha256 GUARDED_BY(_mutex);
};

LivingManifests& living_manifests() {
  static LivingManifests& manifests = never_destroyed<LivingManifests>();
  return manifests;
}

}  // namespace

SharedManifest shared_manifest(const std::shared_ptr<const std::string>& body, const std::string& sha256,
                               const std::string& label) {
  if (auto known = living_manifests().find(sha256)) return known;
  auto manifest = parse_distribution_manifest(body, label);
  living_manifests().remember(sha256, manifest);
  return manifest;
}

SharedManifest shared_manifest(std::string_view body, const std::string& sha256, const std::string& label) {
  if (auto known = living_manifests().find(sha256)) return known;
  return shared_manifest(std::make_shared<const std::string>(body), sha256, label);
}

}  // namespace tidalcrest::sync::client_manifest
