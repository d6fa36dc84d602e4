#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "cohort/active_view.hpp"
#include "download/manifest_generation.hpp"
#include "transport/manager_http.hpp"

namespace tidalcrest::sync {

/// The base URL of a generation, or of the active manifest where the generation has none; of any type.
Document generation_base_url(const ManifestGeneration& generation, const ActiveViewHolder& active);

/// Asks once, without backoff, whether the server has moved past a file's manifest generation. A probe that
/// cannot answer counts as no. Keeps no state; any download worker may ask at once.
class SupersedeProbe {
 public:
  SupersedeProbe(const ManagerHttp& http, const ActiveViewHolder& active, std::string server_url,
                 std::int64_t market_id);
  /// True when the server has advanced past the generation. Only authentication (`AuthError`) and market
  /// identity (`ManifestError`) failures escape.
  bool _download_manifest_superseded(const ManifestGeneration& generation) const;

 private:
  // What a served document says of its generation.
  struct Served {
    std::int64_t version = 0;
    std::optional<std::int64_t> era_number;
  };

  std::optional<HttpResult> _manifest_version_probe_once(const std::string& url) const;
  std::optional<HttpResult> _version_answer() const;
  std::optional<Served> _served_version(const std::string& body) const;
  SharedManifest _public_manifest_probe_once(const Document& base_url) const;
  bool _public_manifest_superseded(const ManifestGeneration& generation) const;

  const ManagerHttp& _http;
  const ActiveViewHolder& _active;
  const std::string _server_url;
  const std::int64_t _market_id;
};

}  // namespace tidalcrest::sync
