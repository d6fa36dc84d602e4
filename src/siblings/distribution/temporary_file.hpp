#pragma once

#include <string>
#include <string_view>

#include "host/descriptor.hpp"

namespace tidalcrest::sync::client_manifest {

/// A new file beside its final name, under a hidden random name that ends in `.tmp`, so that a sweep finds
/// what a crash leaves behind. Removed by the destructor unless it was placed.
class TemporaryFile {
 public:
  /// `directory` must outlive this object. Throws `OSError`, with `what` naming the final file.
  TemporaryFile(int directory, std::string what);
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile();

  int descriptor() const noexcept { return _descriptor.get(); }
  /// One rename. Without `allow_replace` an existing target is a failure, and stays as it is.
  void place(const std::string& name, bool allow_replace);

 private:
  const int _directory;
  const std::string _what;
  std::string _name;  // empty once placed
  Descriptor _descriptor;
};

/// Writes aside, flushes the file, renames: a reader, or a crash, finds the old file or the new one.
void write_file_atomically(int directory, const std::string& name, std::string_view data, bool allow_replace,
                           const std::string& what);

}  // namespace tidalcrest::sync::client_manifest
