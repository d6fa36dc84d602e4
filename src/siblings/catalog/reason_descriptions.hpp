#pragma once

#include <string>

#include "host/module_seam.hpp"
#include "tidalcrest/sync/document.hpp"

/// Wording for people: what a failure asks of the one who reads it.
namespace tidalcrest::sync::reason_descriptions {

/// What is known of a failure. Each value is a text or null.
struct ReasonDetails {
  Document recovery;
  Document error_code;
  Document dependency;
  Document reason;
};

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  virtual Document describe_reason(const std::string& reason_class, const ReasonDetails& details) = 0;
};

ModuleSeam<Module>& module_seam();

/// A map with `reason_class`, `recovery` and `rendered`. Event levels are read from the words
/// "reauthenticate" and "contact_tidalcrest", so the built-in texts use each for its own recovery only and
/// repeat no detail.
Document describe_reason(const std::string& reason_class, const ReasonDetails& details);

}  // namespace tidalcrest::sync::reason_descriptions
