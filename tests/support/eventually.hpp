#pragma once

#include <chrono>
#include <thread>

namespace tidalcrest::sync::testing {

/// True as soon as the condition is; generous, because the machine may be busy with other things.
template <class Condition>
bool eventually(Condition condition, std::chrono::seconds patience = std::chrono::seconds(60)) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace tidalcrest::sync::testing
