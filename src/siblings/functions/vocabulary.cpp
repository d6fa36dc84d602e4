#include "siblings/functions/vocabulary.hpp"

#include <fmt/format.h>

#include <unordered_set>

#include "host/equality.hpp"
#include "host/integer.hpp"
#include "host/json.hpp"
#include "host/never_destroyed.hpp"
#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* MERGED_SECTIONS[] = {"rotations", "filtrations", "reductions", "aggregations",
                                           "functions"};

void require_member(const Document& vocabulary, const char* key, const Document& expected) {
  const Document* found = find_member(vocabulary, key);
  if (found == nullptr || !host_equal(*found, expected)) {
    throw ValueError(fmt::format("vocabulary {}={} does not match expected {}", key,
                                 found == nullptr ? "None" : text::repr(*found), text::repr(expected)));
  }
}

void add_missing_members(Document& section, const Document& added) {
  for (const auto& [name, value] : added.get_ref<const Document::object_t&>()) section.emplace(name, value);
}

// Equal values get equal texts: true, 1 and 1.0 are one number.
Document with_one_form_of_numbers(const Document& value) {
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_number_float()) {
    const auto whole = try_int(value);
    return whole && host_equal(value, *whole) ? Document(*whole) : value;
  }
  if (!value.is_structured()) return value;
  Document copy = value;
  for (Document& item : copy) item = with_one_form_of_numbers(item);
  return copy;
}

void add_missing_items(Document& section, const Document& added) {
  const auto identity = [](const Document& item) {
    return dump_json(with_one_form_of_numbers(item), {.sort_keys = true});
  };
  std::unordered_set<std::string> known;
  for (const Document& item : section) known.insert(identity(item));
  for (const Document& item : added) {
    if (known.insert(identity(item)).second) section.push_back(item);
  }
}

}  // namespace

Document FunctionsVocabularyModule::merge_functions_vocabulary(const Document& functions,
                                                               const Document& vocabulary,
                                                               const std::string& named_universe,
                                                               std::int64_t expected_era_number) const {
  require_member(vocabulary, "era_number", expected_era_number);
  require_member(vocabulary, "named_universe", named_universe);
  Document merged = vocabulary;
  for (const char* name : MERGED_SECTIONS) {
    const Document* added = find_member(functions, name);
    if (added == nullptr) continue;
    const auto [at, absent] = merged.emplace(name, *added);
    if (absent) continue;
    Document& section = *at;
    if (section.is_object() && added->is_object()) {
      add_missing_members(section, *added);
    } else if (section.is_array() && added->is_array()) {
      add_missing_items(section, *added);
    }
  }
  return merged;
}

ModuleSeam<const FunctionsVocabularyModule>& functions_vocabulary_module() {
  static auto& seam = never_destroyed<ModuleSeam<const FunctionsVocabularyModule>>(
      std::make_shared<const FunctionsVocabularyModule>());
  return seam;
}

Document merge_functions_vocabulary(const Document& functions, const Document& vocabulary,
                                    const std::string& named_universe, std::int64_t expected_era_number) {
  return functions_vocabulary_module().current()->merge_functions_vocabulary(
      functions, vocabulary, named_universe, expected_era_number);
}

}  // namespace tidalcrest::sync
