#include "siblings/distribution/parsed_manifests.hpp"

#include <map>

#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "siblings/distribution/manifest_document.hpp"

namespace tidalcrest::sync::client_manifest {
namespace {

class LivingDocuments {
 public:
  std::shared_ptr<const Document> find(const std::string& sha256) {
    const MutexLock lock(_mutex);
    const auto known = _by_sha256.find(sha256);
    return known == _by_sha256.end() ? nullptr : known->second.lock();
  }
  void remember(const std::string& sha256, const std::shared_ptr<const Document>& document) {
    const MutexLock lock(_mutex);
    std::erase_if(_by_sha256, [](const auto& entry) { return entry.second.expired(); });
    _by_sha256[sha256] = document;
  }

 private:
  Mutex _mutex;  // a leaf, never held while parsing
  std::map<std::string, std::weak_ptr<const Document>> _by_sha256 GUARDED_BY(_mutex);
};

LivingDocuments& living_documents() {
  static LivingDocuments& documents = never_destroyed<LivingDocuments>();
  return documents;
}

}  // namespace

std::shared_ptr<const Document> shared_manifest_document(std::string_view body, const std::string& sha256,
                                                         const std::string& label) {
  if (auto known = living_documents().find(sha256)) return known;
  auto document = std::make_shared<const Document>(parse_distribution_manifest_bytes(body, label));
  living_documents().remember(sha256, document);
  return document;
}

}  // namespace tidalcrest::sync::client_manifest
