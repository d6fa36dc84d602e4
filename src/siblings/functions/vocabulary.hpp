#pragma once

#include <cstdint>
#include <string>

#include "host/module_seam.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// The SDK module that knows how the shared functions file completes a universe's vocabulary.
class FunctionsVocabularyModule {
 public:
  virtual ~FunctionsVocabularyModule() = default;
  /// A copy of the vocabulary with the sections of the functions document added: `rotations`, `filtrations`,
  /// `reductions`, `aggregations`, `functions`. The vocabulary's own entries win. Throws `ValueError` for a
  /// vocabulary of another era or universe.
  virtual Document merge_functions_vocabulary(const Document& functions, const Document& vocabulary,
                                              const std::string& named_universe,
                                              std::int64_t expected_era_number) const;
};

/// The module's place, for a host that brings its own.
ModuleSeam<const FunctionsVocabularyModule>& functions_vocabulary_module();

/// Through the module that is in place at the moment of the call.
Document merge_functions_vocabulary(const Document& functions, const Document& vocabulary,
                                    const std::string& named_universe, std::int64_t expected_era_number);

}  // namespace tidalcrest::sync
