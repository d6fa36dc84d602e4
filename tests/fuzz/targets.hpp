#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// What is fed with arbitrary bytes. A target refuses them with a failure of the family or takes them;
/// everything else (another exception, a broken property, a crash) is a finding.
namespace tidalcrest::fuzz {

struct Target {
  std::string name;
  void (*feed)(std::string_view bytes);
};

/// Complete before `main`.
std::vector<Target>& targets();
/// Makes a function a target.
struct Registered {
  Registered(const char* name, void (*feed)(std::string_view bytes)) { targets().push_back({name, feed}); }
};
/// Feeds one input. Throws what is no failure of the family, and `std::logic_error` for a broken property.
void feed(const Target& target, std::string_view bytes);

/// A property that holds for every input. Deliberately no failure of the family.
inline void require(bool holds, const char* property) {
  if (!holds) throw std::logic_error(property);
}
/// The parts of an input of several documents, parted by a zero byte; always `count` of them.
std::vector<std::string> parts_of(std::string_view bytes, std::size_t count);

}  // namespace tidalcrest::fuzz
