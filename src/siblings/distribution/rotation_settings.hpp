#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "siblings/distribution/artifact_rotation_plan.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync::rotation_settings {

inline constexpr const char* ROTATION_SETTINGS_FILENAME = "rotation-settings.json";

/// Null (the default rule), the marker "full", or a number of GiB.
using FeatureBudgetGb = std::variant<std::monostate, artifact_rotation::FullDownload, double>;

struct RotationSettings {
  std::string algorithm = "uniform";  ///< or "family-balanced"
  std::int64_t rotation_seed = 0;
  std::string rotation_frequency = "weekly";  ///< or "manual", or "PT{h}H"
  FeatureBudgetGb feature_budget_gb;
  std::string market;                        ///< empty restricts nothing
  std::vector<std::string> named_universes;  ///< empty restricts nothing
  std::optional<std::string> family;
  std::optional<std::string> subfamily;
  /// JSON-like form, the settings file's keys.
  Document model_dump() const;
};

/// Reads `rotation-settings.json` of the data directory, strict JSON. The file and every key are optional,
/// and null stands for the default. Market and universes default to the catalog context's "current_market"
/// and "current_universes"; without a family every family is in scope, as the catalog lists them. Throws
/// `ValueError` naming the key for unknown keys and wrong values, `OSError` for a file that cannot be read.
RotationSettings load_rotation_settings(const std::string& data_dir, const Document& catalog_context);

}  // namespace tidalcrest::sync::rotation_settings
