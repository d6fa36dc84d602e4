#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>

#include "host/failures.hpp"

namespace tidalcrest::sync::testing {

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
