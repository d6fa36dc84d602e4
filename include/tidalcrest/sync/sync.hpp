#pragma once

/// Everything that a caller of the sync module needs.
#include "tidalcrest/sync/backoff.hpp"
#include "tidalcrest/sync/cohort_pin.hpp"
#include "tidalcrest/sync/collection.hpp"
#include "tidalcrest/sync/constants.hpp"
#include "tidalcrest/sync/document.hpp"
#include "tidalcrest/sync/era_callback.hpp"
#include "tidalcrest/sync/era_thread.hpp"
#include "tidalcrest/sync/errors.hpp"
#include "tidalcrest/sync/freshness_guard.hpp"
#include "tidalcrest/sync/log.hpp"
#include "tidalcrest/sync/manifest.hpp"
#include "tidalcrest/sync/progress.hpp"
#include "tidalcrest/sync/records.hpp"
#include "tidalcrest/sync/rotation.hpp"
#include "tidalcrest/sync/search_consumer.hpp"
#include "tidalcrest/sync/sync_manager.hpp"
