#include "core/consumer_count.hpp"

#include <string_view>

#include "host/integer.hpp"
#include "host/log.hpp"
#include "siblings/distribution/pinned_root.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync {

namespace {

constexpr std::int64_t MOST_CONSUMERS = 1'000'000'000;  // far above any; counting on from it cannot overflow

}  // namespace

ConsumerCount::ConsumerCount(const std::string& data_dir) : _data_dir(data_dir) {
  try {
    const auto text = client_manifest::PinnedRoot(_data_dir).read_regular_file_if_present(
        CONSUMER_COUNT_FILENAME, "consumer count");
    const std::int64_t count = text ? to_int(std::string_view(*text)) : 0;
    if (count > MOST_CONSUMERS) throw ValueError("no number of consumers: " + *text);
    _consumer_count = count;
  } catch (const std::exception& failure) {
    log::warning("Failed to read consumer count: %s", failure.what());
  }
}

void ConsumerCount::set(std::int64_t count) {
  _consumer_count = count;
  _persist_consumer_count();
}

void ConsumerCount::_persist_consumer_count() const {
  try {
    const client_manifest::PinnedRoot root(_data_dir);
    // Replaced, not written over: the name may be a link to a file that is not ours.
    root.remove_regular_file(CONSUMER_COUNT_FILENAME, /*missing_ok=*/true);
    auto file = root.open_regular_file_for_update(CONSUMER_COUNT_FILENAME, /*create=*/true);
    file.write(std::to_string(_consumer_count));
    file.close();
  } catch (const std::exception& failure) {
    log::warning("Failed to persist consumer count: %s", failure.what());
  }
}

}  // namespace tidalcrest::sync
