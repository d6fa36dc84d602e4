#include "siblings/distribution/rotation_settings.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/text.hpp"
#include "siblings/distribution/artifact_rotation_algorithms.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::rotation_settings {
namespace {

using artifact_rotation::FULL_DOWNLOAD;
using artifact_rotation::FullDownload;

constexpr std::array KNOWN_KEYS = {
    "algorithm",       "rotation_seed", "rotation_frequency", "feature_budget_gb", "market",
    "named_universes", "family",        "subfamily"};
constexpr double MOST_BUDGET_GB =
    1e9;  // one exbibyte: a larger number is a slip, and its bytes would not fit

[[noreturn]] void refuse(std::string_view key, std::string_view wanted, const Document& value) {
  throw ValueError(
      fmt::format("{}: {} must be {}, got {}", ROTATION_SETTINGS_FILENAME, key, wanted, text::repr(value)));
}

// The value of a key; null when it is absent or null, which both stand for the default.
const Document* given(const Document& file, const char* key) {
  const Document* value = find_member(file, key);
  return value != nullptr && !value->is_null() ? value : nullptr;
}

std::optional<std::string> given_text(const Document& file, const char* key) {
  const Document* value = given(file, key);
  if (value == nullptr) return std::nullopt;
  if (!value->is_string() || value->get_ref<const std::string&>().empty())
    refuse(key, "a non-empty string", *value);
  return value->get<std::string>();
}

std::string algorithm_of(const Document& file) {
  const Document* value = given(file, "algorithm");
  if (value == nullptr) return "uniform";
  if (!value->is_string() || !artifact_rotation::is_rotation_algorithm(value->get<std::string>())) {
    refuse("algorithm", "'uniform' or 'family-balanced'", *value);
  }
  return value->get<std::string>();
}

std::int64_t seed_of(const Document& file) {
  const Document* value = given(file, "rotation_seed");
  if (value == nullptr) return 0;
  const auto seed = value->is_number_integer() ? try_int(*value) : std::nullopt;
  if (!seed) refuse("rotation_seed", "a 64-bit integer", *value);
  return *seed;
}

bool is_frequency(std::string_view text) {
  if (text == "weekly" || text == "manual") return true;
  if (!text.starts_with("PT") || !text.ends_with("H") || text.size() < 4) return false;
  const std::string_view hours = text.substr(2, text.size() - 3);
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  return std::all_of(hours.begin(), hours.end(), is_digit) &&
         hours.find_first_not_of('0') != std::string_view::npos;
}

std::string frequency_of(const Document& file) {
  const Document* value = given(file, "rotation_frequency");
  if (value == nullptr) return "weekly";
  if (!value->is_string() || !is_frequency(value->get_ref<const std::string&>())) {
    refuse("rotation_frequency", "'weekly', 'manual' or 'PT{h}H' with a whole number of hours above 0",
           *value);
  }
  return value->get<std::string>();
}

FeatureBudgetGb budget_of(const Document& file) {
  const Document* value = given(file, "feature_budget_gb");
  if (value == nullptr) return std::monostate{};
  if (*value == "full") return FULL_DOWNLOAD;
  const double gigabytes = value->is_number() ? value->get<double>() : -1;
  if (gigabytes < 0 || gigabytes > MOST_BUDGET_GB) {
    refuse("feature_budget_gb", "null, 'full' or a number from 0 to 1000000000", *value);
  }
  return gigabytes;
}

std::vector<std::string> universes_of(const Document& file, const Document& catalog_context) {
  std::vector<std::string> universes;
  if (const Document* value = given(file, "named_universes")) {
    const auto is_name = [](const Document& item) {
      return item.is_string() && !item.get_ref<const std::string&>().empty();
    };
    if (!value->is_array() || !std::all_of(value->begin(), value->end(), is_name)) {
      refuse("named_universes", "a list of non-empty strings", *value);
    }
    for (const auto& universe : *value) universes.push_back(universe.get<std::string>());
  } else if (const Document* current = given(catalog_context, "current_universes")) {
    for (const auto& universe : *current) universes.push_back(text::str(universe));
  }
  return universes;
}

std::string market_of(const Document& file, const Document& catalog_context) {
  if (auto market = given_text(file, "market")) return *market;
  const Document* current = given(catalog_context, "current_market");
  return current != nullptr ? text::str(*current) : std::string();
}

Document read_settings_file(const std::string& data_dir) {
  const auto bytes = client_manifest::read_contained_regular_file_if_present(
      data_dir, ROTATION_SETTINGS_FILENAME, "rotation settings");
  if (!bytes) return Document::object();
  Document file;
  try {
    file = parse_strict_json(*bytes);
  } catch (const ValueError& failure) {
    throw ValueError(fmt::format("{}: {}", ROTATION_SETTINGS_FILENAME, failure.what()));
  }
  if (!file.is_object()) refuse("the file", "an object", file);
  for (const auto& [key, value] : file.get_ref<const Document::object_t&>()) {
    const auto is_key = [&key = key](const char* known) { return key == known; };
    if (std::none_of(KNOWN_KEYS.begin(), KNOWN_KEYS.end(), is_key)) {
      throw ValueError(fmt::format("{}: unknown key {}", ROTATION_SETTINGS_FILENAME, text::repr(key)));
    }
  }
  return file;
}

Document budget_document(const FeatureBudgetGb& budget) {
  if (std::holds_alternative<FullDownload>(budget)) return "full";
  const auto* gigabytes = std::get_if<double>(&budget);
  return gigabytes != nullptr ? Document(*gigabytes) : Document(nullptr);
}

Document text_document(const std::optional<std::string>& value) {
  return value ? Document(*value) : Document(nullptr);
}

}  // namespace

Document RotationSettings::model_dump() const {
  return {{"algorithm", algorithm},
          {"rotation_seed", rotation_seed},
          {"rotation_frequency", rotation_frequency},
          {"feature_budget_gb", budget_document(feature_budget_gb)},
          {"market", market},
          {"named_universes", named_universes},
          {"family", text_document(family)},
          {"subfamily", text_document(subfamily)}};
}

RotationSettings load_rotation_settings(const std::string& data_dir, const Document& catalog_context) {
  const Document file = read_settings_file(data_dir);
  RotationSettings settings;
  settings.algorithm = algorithm_of(file);
  settings.rotation_seed = seed_of(file);
  settings.rotation_frequency = frequency_of(file);
  settings.feature_budget_gb = budget_of(file);
  settings.market = market_of(file, catalog_context);
  settings.named_universes = universes_of(file, catalog_context);
  settings.family = given_text(file, "family");
  settings.subfamily = given_text(file, "subfamily");
  return settings;
}

}  // namespace tidalcrest::sync::rotation_settings
