#include "era/library_floor.hpp"

#include "host/json.hpp"
#include "host/log.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* INSTALL_ADVICE =
    "Build a local wheel with build_wheel() and install it with: pip install --upgrade "
    "/path/to/tidalcrest-*.whl";

}  // namespace

void LibraryFloor::look_for_update() {
  _current_version = _deployment->current_version();
  try {
    _newer_version = _deployment->check_update(_current_version);
  } catch (const ConnectionError& failure) {
    log::warning("Could not check local wheel cache for library update: %s", failure.what());
  }
}

void LibraryFloor::require(const Document& era_config, const std::string& new_era_number) {
  _read_floor(era_config);
  if (_newer_version) _update(new_era_number);
  if (!_current_below_min) return;
  // Nothing newer to install.
  throw LibraryUpdateRequired(
      fmt::format("tidalcrest >= {} required for era {}. {}", _min_version, new_era_number, INSTALL_ADVICE));
}

void LibraryFloor::_read_floor(const Document& era_config) {
  const Document* floor = find_member(era_config, "min_library_version");
  _min_version = floor != nullptr ? text::str(*floor) : "0.0.0";
  try {
    _current_below_min = _deployment->compare_versions(_current_version, _min_version) < 0;
  } catch (const ValueError&) {
    log::warning("Invalid min_library_version from era config: %s", _min_version);
    _min_version = _current_version;
    _current_below_min = false;
  }
}

// To the floor, not to the newest: the era asks for no more. A success counts for any floor.
void LibraryFloor::_update(const std::string& new_era_number) {
  deployment::UpdateResult result;
  try {
    result = _deployment->auto_update(_min_version);
  } catch (const LibraryUpdateRequired&) {
    throw;
  } catch (const std::exception& failure) {
    return _note_failed_update(new_era_number, failure.what());
  }
  if (!result.success.value_or(true)) {
    return _note_failed_update(new_era_number, result.warning.value_or("Could not auto-update to latest."));
  }
  _current_below_min = false;
}

void LibraryFloor::_note_failed_update(const std::string& new_era_number, const std::string& warning) const {
  log::warning("Auto-update failed: %s", warning);
  if (!_current_below_min) return;
  throw LibraryUpdateRequired(fmt::format("tidalcrest >= {} required for era {}; auto-update failed: {}. {}",
                                          _min_version, new_era_number, warning, INSTALL_ADVICE));
}

}  // namespace tidalcrest::sync
