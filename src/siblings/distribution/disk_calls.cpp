#include "siblings/distribution/disk_calls.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>

#include "host/never_destroyed.hpp"

namespace tidalcrest::sync {

DiskCalls DiskCalls::real() {
  return DiskCalls{
      .flush_file = [](int descriptor) { return ::fsync(descriptor); },
      .flush_file_system = [](int descriptor) { return ::syncfs(descriptor); },
      .rename =
          [](int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
            return flags == 0 ? ::renameat(from_directory, from, to_directory, to)
                              : ::renameat2(from_directory, from, to_directory, to, flags);
          },
      .lock = [](int descriptor, int operation) { return ::flock(descriptor, operation); },
  };
}

DiskCalls& disk_calls() {
  static DiskCalls& calls = never_destroyed<DiskCalls>(DiskCalls::real());
  return calls;
}

}  // namespace tidalcrest::sync
