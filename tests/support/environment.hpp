#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace tidalcrest::sync::testing {

/// An environment variable with another value for as long as this lives.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::string& value) : _name(name) {
    if (const char* before = ::getenv(name)) _before = before;
    ::setenv(name, value.c_str(), 1);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
  ~ScopedEnvironment() { _before ? ::setenv(_name, _before->c_str(), 1) : ::unsetenv(_name); }

 private:
  const char* const _name;
  std::optional<std::string> _before;
};

}  // namespace tidalcrest::sync::testing
