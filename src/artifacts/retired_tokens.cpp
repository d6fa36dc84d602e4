#include "artifacts/retired_tokens.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "host/json.hpp"
#include "host/text.hpp"
#include "siblings/functions/token_safety.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* SCANNED_SECTIONS[] = {"rotations", "filtrations", "reductions", "aggregations",
                                            "functions"};
constexpr std::size_t SAMPLE_SIZE = 5;

}  // namespace

void _walk_vocabulary_entry_names(const Document& value, const std::function<void(const std::string&)>& use) {
  if (value.is_object()) {
    const Document* const name = find_member(value, "name");
    if (name && name->is_string()) use(name->get_ref<const std::string&>());
    const auto& members = value.get_ref<const Document::object_t&>();
    for (const auto& [key, member] : members) _walk_vocabulary_entry_names(member, use);
    for (const auto& [key, member] : members) use(key);
  } else if (value.is_array()) {
    for (const Document& element : value) _walk_vocabulary_entry_names(element, use);
  }
}

std::vector<std::string> _retired_function_names_in_vocabulary(const Document& vocabulary) {
  std::set<std::string> retired;
  for (const char* const section : SCANNED_SECTIONS) {
    const Document* const entries = find_member(vocabulary, section);
    if (!entries) continue;
    _walk_vocabulary_entry_names(*entries, [&retired](const std::string& name) {
      if (is_retired_public_function_token_name(name)) retired.insert(name);
    });
  }
  return {retired.begin(), retired.end()};
}

void _validate_no_retired_function_tokens(const Document& vocabulary) {
  const std::vector<std::string> retired = _retired_function_names_in_vocabulary(vocabulary);
  if (retired.empty()) return;
  const std::size_t shown = std::min(retired.size(), SAMPLE_SIZE);
  const std::string sample =
      text::join({retired.begin(), retired.begin() + static_cast<std::ptrdiff_t>(shown)}, ", ");
  const std::string suffix = retired.size() > shown ? fmt::format(" (+{} more)", retired.size() - shown) : "";
  throw SyncError(
      fmt::format("vocabulary.json contains retired function token ids {}{}; regenerate the era distribution "
                  "with DB-token vocabulary",
                  sample, suffix));
}

}  // namespace tidalcrest::sync
