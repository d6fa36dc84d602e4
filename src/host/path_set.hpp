#pragma once

#include <tsl/ordered_set.h>

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace tidalcrest::sync {

/// A set of texts that live elsewhere. Two pieces of memory however many they are: a plan asks for ten
/// thousand paths several times, and a node for each of them costs more than the question.
using PathSet = tsl::ordered_set<std::string_view, std::hash<std::string_view>, std::equal_to<>,
                                 std::allocator<std::string_view>, std::vector<std::string_view>>;

}  // namespace tidalcrest::sync
