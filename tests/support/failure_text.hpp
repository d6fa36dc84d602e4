#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <stdexcept>
#include <string>

#include "host/failures.hpp"

namespace tidalcrest::sync::testing {

/// What the call throws, where it is of this kind; any other failure passes.
template <class Kind, class Call>
Kind caught(Call call) {
  try {
    call();
  } catch (const Kind& failure) {
    return failure;
  }
  throw std::logic_error("nothing was thrown");
}

/// "{type}: {text}" of what the call throws; "nothing" when it returns.
template <class Call>
std::string failure_of(Call call) {
  try {
    call();
  } catch (const std::exception& failure) {
    return failure_type_name(failure) + ": " + failure.what();
  }
  return "nothing";
}

}  // namespace tidalcrest::sync::testing
