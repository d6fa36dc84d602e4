#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/module_seam.hpp"
#include "siblings/auth/identity.hpp"

/// Bookkeeping of searches across eras.
namespace tidalcrest::sync::search_tracking {

class SearchTracker {
 public:
  virtual ~SearchTracker() = default;
  /// `previous_era_number` is absent when there was no manifest before.
  virtual void handle_era_transition(std::int64_t new_era_number,
                                     std::optional<std::int64_t> previous_era_number) = 0;
  virtual void close() = 0;
};

/// The module as the sync module reaches it; the host can put its own in its place at run time.
class Module {
 public:
  virtual ~Module() = default;
  virtual std::shared_ptr<SearchTracker> open(const std::string& data_dir,
                                              const std::optional<identity::Identity>& identity) = 0;
};

ModuleSeam<Module>& module_seam();

/// Name of the built-in tracker's file in the data directory: a JSON object with `schema_version` 1,
/// `agent_id` (null without an identity), `era_number` and the last transitions, oldest first.
inline constexpr const char* SEARCH_TRACKING_FILE = ".search-tracking.json";

/// Opens the tracker of a data directory. The built-in one replaces a file that it cannot read, with a
/// warning, and throws `OSError`, `TypeError` or `ValueError` when it cannot write.
std::shared_ptr<SearchTracker> open_search_tracker(const std::string& data_dir,
                                                   const std::optional<identity::Identity>& identity = {});

}  // namespace tidalcrest::sync::search_tracking
