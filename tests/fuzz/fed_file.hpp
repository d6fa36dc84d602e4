#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace tidalcrest::fuzz {

/// A file that holds the bytes of one input after the other. Kept open, because a target that goes through
/// the file system spends its time there.
class FedFile {
 public:
  explicit FedFile(const std::string& path)
      : _descriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
    if (_descriptor < 0) throw std::runtime_error("no file " + path);
  }
  FedFile(const FedFile&) = delete;
  FedFile& operator=(const FedFile&) = delete;
  ~FedFile() { ::close(_descriptor); }

  void set(std::string_view bytes) const {
    if (::pwrite(_descriptor, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()) ||
        ::ftruncate(_descriptor, static_cast<off_t>(bytes.size())) != 0)
      throw std::runtime_error("an input cannot be written");
  }

 private:
  const int _descriptor;
};

}  // namespace tidalcrest::fuzz
