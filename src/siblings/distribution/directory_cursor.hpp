#pragma once

#include <string>

#include "siblings/distribution/pinned_root.hpp"

namespace tidalcrest::sync::client_manifest {

/// Stats many members of one root. Keeps the directory of the last one open, so that neighbours cost one call
/// each: what a poll over a hundred thousand members wants.
///
/// Same refusals as `PinnedRoot::stat_regular_file`. The directory was reached without a link when it was
/// opened; should it be moved elsewhere meanwhile, its members are still the ones measured, until the next
/// directory. The root must outlive the cursor. For one thread; short-lived.
class DirectoryCursor {
 public:
  explicit DirectoryCursor(const PinnedRoot& root) : _root(root) {}
  FileStat stat_regular_file(const std::string& path, const std::string& label);

 private:
  int _enter(const std::string& parent, const std::string& what);

  const PinnedRoot& _root;
  std::string _parent;
  Descriptor _opened;  // stands for `_parent`; empty when there is none
};

}  // namespace tidalcrest::sync::client_manifest
