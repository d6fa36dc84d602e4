#pragma once

#include <filesystem>
#include <set>
#include <string>

#include "origin/manifest_builder.hpp"

namespace tidalcrest::origin {

struct Release;

/// Writes the files of one release into a directory and tells their manifest entries.
class ReleaseWriter {
 public:
  /// `before` is the release whose files are linked where they are the same; null when there is none.
  ReleaseWriter(std::filesystem::path directory, const Release* before);
  /// The manifest entry of the written file. Throws `ValueError` when a kept file is not in the release
  /// before.
  Document write(const std::string& path, const FileSource& source);

 private:
  Document _keep(const std::string& path, const FileSource& source);
  void _link(const std::string& path);
  std::filesystem::path _target(const std::string& path);

  const std::filesystem::path _directory;
  const Release* const _before;
  std::set<std::string> _made;  ///< directories that are there
};

}  // namespace tidalcrest::origin
