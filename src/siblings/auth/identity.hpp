#pragma once

#include <memory>
#include <string>

#include "host/module_seam.hpp"

/// Who works in a data directory.
namespace tidalcrest::sync::identity {

struct Identity {
  std::string agent_id;
  std::shared_ptr<void>
      host_object;  ///< the host's own identity, handed through; null for the built-in module
};

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  virtual Identity resolve_identity_for_data_dir(const std::string& data_dir) = 0;
};

ModuleSeam<Module>& module_seam();

/// Name of the built-in module's file in the data directory: strict JSON, `{"schema_version": 1, "agent_id":
/// "..."}`.
inline constexpr const char* IDENTITY_FILE = ".tidalcrest-identity.json";

/// Throws `FileNotFoundError` when there is none, `ValueError` when it is not of that shape. Callers treat
/// every failure as no identity.
Identity resolve_identity_for_data_dir(const std::string& data_dir);

}  // namespace tidalcrest::sync::identity
