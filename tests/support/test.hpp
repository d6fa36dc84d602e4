#pragma once
// What nearly every test is written with.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/digest.hpp"
#include "host/json.hpp"
#include "host/scope_exit.hpp"
#include "host/seams.hpp"
#include "support/eventually.hpp"
#include "support/failure_text.hpp"
#include "support/log_capture.hpp"
#include "support/temp_dir.hpp"
#include "tidalcrest/sync/backoff.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

using testing::caught, testing::eventually, testing::failure_of;

using ::testing::AllOf, ::testing::Each, ::testing::ElementsAre, ::testing::EndsWith, ::testing::HasSubstr;
using ::testing::IsEmpty, ::testing::Not, ::testing::Optional, ::testing::SizeIs, ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

}  // namespace tidalcrest::sync
