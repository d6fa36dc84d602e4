#pragma once
// The headers that nearly every file needs and that cost the most to read.
#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "tidalcrest/sync/document.hpp"
