#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include "build_paths.hpp"
#include "host/json.hpp"

namespace tidalcrest::sync::testing {

/// A JSON file of the test data.
inline Document test_data(const std::string& name) {
  std::ifstream in(std::string(TIDALCREST_TEST_DATA) + "/" + name, std::ios::binary);
  return parse_json(std::string(std::istreambuf_iterator<char>(in), {}));
}

/// A seed that another program sealed, with all that it was sealed for.
inline Document seed_vector(std::size_t number) {
  return test_data("shuffle_seed.json").at("vectors").at(number);
}

}  // namespace tidalcrest::sync::testing
