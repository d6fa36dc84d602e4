#include "core/registry.hpp"

#include <filesystem>

#include "host/never_destroyed.hpp"

namespace tidalcrest::sync {

Registry& Registry::of_this_process() {
  static Registry& registry = never_destroyed<Registry>();
  return registry;
}

std::string canonical_path(const std::string& data_dir) {
  if (data_dir.empty()) return data_dir;  // no directory: the construction says so
  std::error_code failure;
  const auto canonical = std::filesystem::weakly_canonical(std::filesystem::absolute(data_dir), failure);
  return failure ? std::filesystem::absolute(data_dir).lexically_normal().string() : canonical.string();
}

}  // namespace tidalcrest::sync
