#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/module_seam.hpp"
#include "tidalcrest/sync/errors.hpp"

/// The library's own update checks. Newer versions come from a local wheel cache directory and are put in
/// place by an installer command that runs as a child process; a running process keeps its version until it
/// restarts.
namespace tidalcrest::sync::deployment {

struct UpdateResult {
  std::optional<bool> success;         ///< absent counts as true
  std::optional<std::string> warning;  ///< why it failed
};

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  virtual std::string current_version() = 0;
  virtual int compare_versions(const std::string& first, const std::string& second) = 0;
  virtual std::optional<std::string> check_update(const std::string& current_version) = 0;
  virtual UpdateResult auto_update(const std::string& version) = 0;
};

ModuleSeam<Module>& module_seam();

/// Version text of the running library.
std::string _current_version();
/// Negative when the first is lower, 0 when equal, positive otherwise. Understands release numbers of any
/// length with `a`, `b`, `rc`, `.post` and `.dev` suffixes; a local part after `+` does not count.
/// `ValueError` on anything else.
int _compare_versions(const std::string& first, const std::string& second);
/// The highest version in the wheel cache above `current_version`; absent when nothing is newer or no cache
/// is set. `ConnectionError` when the cache cannot be read.
std::optional<std::string> check_update(const std::string& current_version);
/// Installs the highest cached version that is not below `version`. A failure is a result, not an exception.
UpdateResult auto_update(const std::string& version);

/// What the built-in module works with.
struct Settings {
  std::string wheel_cache_dir;  ///< directory of `tidalcrest-{version}-*.whl` files; empty means no cache
  std::vector<std::string> installer_command = {"python3", "-m", "pip", "install",
                                                "--upgrade"};  ///< wheel added
  double installer_timeout_seconds = 600.0;
};

/// Replaces the settings of the built-in module for the process. Thread-safe.
void configure(Settings settings);

}  // namespace tidalcrest::sync::deployment
