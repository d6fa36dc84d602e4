#include "siblings/runtime/modules.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "host/digest.hpp"
#include "host/never_destroyed.hpp"
#include "host/text.hpp"
#include "siblings/distribution/manifest_document.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

#if defined(__linux__)
constexpr const char* SYSTEM_TAG = "linux";
#elif defined(__APPLE__)
constexpr const char* SYSTEM_TAG = "macosx";
#else
constexpr const char* SYSTEM_TAG = "unknown";
#endif

#if defined(__x86_64__)
constexpr const char* MACHINE_TAG = "x86_64";
#elif defined(__aarch64__) && defined(__APPLE__)
constexpr const char* MACHINE_TAG = "arm64";
#elif defined(__aarch64__)
constexpr const char* MACHINE_TAG = "aarch64";
#elif defined(__riscv) && __riscv_xlen == 64
constexpr const char* MACHINE_TAG = "riscv64";
#elif defined(__powerpc64__)
constexpr const char* MACHINE_TAG = "ppc64le";
#else
constexpr const char* MACHINE_TAG = "unknown";
#endif

constexpr const char* SUPPORTED_RUNTIME_MODULE_KIND = "vault_module";
constexpr std::size_t SNAPSHOT_DIGITS = 16;

std::string last_segment(const std::string& relative_path) {
  return relative_path.substr(relative_path.rfind('/') + 1);
}

}  // namespace

const std::string& CURRENT_PLATFORM =
    never_destroyed<const std::string>(std::string(SYSTEM_TAG) + "_" + MACHINE_TAG);

bool is_runtime_module_kind(std::string_view kind) { return kind == SUPPORTED_RUNTIME_MODULE_KIND; }

std::optional<std::string> runtime_module_name_from_kind(const std::string& kind,
                                                         const std::string& relative_path) {
  if (!is_runtime_module_kind(kind)) return std::nullopt;
  const std::string name = last_segment(relative_path);
  for (const char* extension : {".so", ".pyd"}) {
    const std::string ending = "-" + CURRENT_PLATFORM + extension;
    if (name.size() > ending.size() && name.ends_with(ending))
      return name.substr(0, name.size() - ending.size());
  }
  return std::nullopt;
}

namespace extension_snapshot {

std::pair<std::string, Document> snapshot_record(const std::string& module_name,
                                                 const std::string& source_relative_path,
                                                 const std::string& source_sha256,
                                                 const Document& size_bytes) {
  if (!is_sha256_text(source_sha256)) {
    throw ValueError(fmt::format("runtime module {} has no valid sha256: {}", text::repr(module_name),
                                 text::repr(source_sha256)));
  }
  const std::string snapshot_path =
      fmt::format("runtime_snapshots/{}/{}/{}", module_name, source_sha256.substr(0, SNAPSHOT_DIGITS),
                  last_segment(source_relative_path));
  client_manifest::validate_manifest_relative_path(snapshot_path);
  return {snapshot_path, Document{{"module_name", module_name},
                                  {"source_relative_path", source_relative_path},
                                  {"source_sha256", source_sha256},
                                  {"size_bytes", size_bytes}}};
}

}  // namespace extension_snapshot

}  // namespace tidalcrest::sync
