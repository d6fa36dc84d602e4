#pragma once

#include <memory>
#include <optional>
#include <string>

#include "siblings/deployment/deployment.hpp"
#include "tidalcrest/sync/document.hpp"

namespace tidalcrest::sync {

/// Decides whether the running library may enter an era, and updates it where something newer is at hand.
class LibraryFloor {
 public:
  explicit LibraryFloor(std::shared_ptr<deployment::Module> module) : _deployment(std::move(module)) {}

  /// Looks for a newer version. A wheel cache that cannot be read is a warning.
  void look_for_update();
  /// Throws `LibraryUpdateRequired` when the library is below the era's floor and no update has lifted it.
  void require(const Document& era_config, const std::string& new_era_number);

 private:
  void _read_floor(const Document& era_config);
  void _update(const std::string& new_era_number);
  void _note_failed_update(const std::string& new_era_number, const std::string& warning) const;

  const std::shared_ptr<deployment::Module> _deployment;
  std::string _current_version;
  std::optional<std::string> _newer_version;
  std::string _min_version;
  bool _current_below_min = false;
};

}  // namespace tidalcrest::sync
