#pragma once

#include <map>
#include <memory>
#include <string>

#include "host/mutex.hpp"
#include "siblings/distribution/local_cohort.hpp"
#include "tidalcrest/sync/manifest.hpp"

namespace tidalcrest::sync {

/// Normalised named universe to its merged vocabulary, in manifest order of the paths.
using Vocabularies = Document;  // an object

/// The five fields that change only together, at a publication or an adoption. Immutable.
struct ActiveView {
  std::shared_ptr<const local_cohort::Selection> cohort;  ///< null in the flat state
  std::string data_dir;                                   ///< the generation root, or the data directory
  std::shared_ptr<const std::string> manifest_bytes;      ///< null when absent
  std::shared_ptr<const Manifest> manifest;               ///< null when absent
  std::shared_ptr<const Vocabularies> vocabulary;         ///< null when absent
};

/// The manager's current view, swapped whole. Written under the manager's sync lock; read from any thread: a
/// reader takes one copy of the pointer and never sees half a change.
class ActiveViewHolder {
 public:
  explicit ActiveViewHolder(std::shared_ptr<const ActiveView> first) : _view(std::move(first)) {}
  std::shared_ptr<const ActiveView> get() const {
    const MutexLock lock(_mutex);
    return _view;
  }
  void set(std::shared_ptr<const ActiveView> view) {
    const MutexLock lock(_mutex);
    _view.swap(view);  // the view before is large, and goes after the lock
  }

 private:
  mutable Mutex _mutex;  // a leaf, held for the copy of one pointer
  std::shared_ptr<const ActiveView> _view GUARDED_BY(_mutex);
};

}  // namespace tidalcrest::sync
