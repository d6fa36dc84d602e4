#pragma once

#include <unistd.h>

#include <utility>

namespace tidalcrest::sync {

/// Owns one file descriptor; closes it, without reporting a failure, when destroyed. Move-only.
class Descriptor {
 public:
  Descriptor() noexcept = default;
  explicit Descriptor(int descriptor) noexcept : _descriptor(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : _descriptor(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const noexcept { return _descriptor; }
  explicit operator bool() const noexcept { return _descriptor >= 0; }
  int release() noexcept { return std::exchange(_descriptor, -1); }
  void reset(int descriptor = -1) noexcept {
    if (_descriptor >= 0) ::close(_descriptor);
    _descriptor = descriptor;
  }

 private:
  int _descriptor = -1;
};

}  // namespace tidalcrest::sync
