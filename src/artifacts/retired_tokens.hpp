#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// Hands every entry name of a value to `use`, without copying: for an object its "name" when that is a
/// string, then the names in its values, then its keys; for a list the names in its elements. A bare string
/// is no name.
void _walk_vocabulary_entry_names(const Document& value, const std::function<void(const std::string&)>& use);

/// The retired names in the sections `rotations`, `filtrations`, `reductions`, `aggregations`, `functions` of
/// a vocabulary or functions document, sorted, each once.
std::vector<std::string> _retired_function_names_in_vocabulary(const Document& vocabulary);
/// `SyncError` naming a sample of the retired ids; the text speaks of vocabulary.json for both documents.
void _validate_no_retired_function_tokens(const Document& vocabulary);

}  // namespace tidalcrest::sync
