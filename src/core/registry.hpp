#pragma once

#include <map>
#include <memory>
#include <string>

#include "host/mutex.hpp"

namespace tidalcrest::sync {

class SyncManager;

/// The managers of this process by canonical data directory.
///
/// `_class_lock` is the outermost lock of the system: it is held across the construction of a manager (its
/// file and lock work included) and across the release of the last consumer, so that two threads never build
/// two managers for one directory and eviction never races a creation.
struct Registry {
  Mutex _class_lock;
  std::map<std::string, std::shared_ptr<SyncManager>> _instances GUARDED_BY(_class_lock);

  static Registry& of_this_process();
};

/// The real path of a directory, symbolic links resolved; what does not exist is kept as it is written.
std::string canonical_path(const std::string& data_dir);

}  // namespace tidalcrest::sync
