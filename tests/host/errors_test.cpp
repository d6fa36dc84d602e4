#include "tidalcrest/sync/errors.hpp"

#include <cerrno>

#include "host/failures.hpp"
#include "host/log.hpp"
#include "support/test.hpp"

namespace tidalcrest::sync {
namespace {

template <class Kind, class Thrown>
bool caught_as(const Thrown& thrown) {
  try {
    throw thrown;
  } catch (const Kind&) {
    return true;
  } catch (...) {
    return false;
  }
}

TEST(Failures, AreCaughtByEveryHandlerOfTheirFamily) {
  const SyncUnavailableError unavailable("https://x/data", 3);
  EXPECT_TRUE(caught_as<SyncError>(unavailable));
  EXPECT_TRUE(caught_as<ConnectionError>(unavailable));
  EXPECT_TRUE(caught_as<OSError>(unavailable));
  EXPECT_TRUE(caught_as<std::exception>(unavailable));
  EXPECT_FALSE(caught_as<SyncError>(FeatureRotationStateError("x")));
  EXPECT_TRUE(caught_as<StateError>(FeatureRotationStateError("x")));
  EXPECT_TRUE(caught_as<ValueError>(ManifestJsonError("x")));
  EXPECT_STREQ(unavailable.type_name(), "SyncUnavailableError");
  EXPECT_THROW(throw_os_error(ENOENT, "x"), FileNotFoundError);
}

TEST(Failures, OfALocalOperationAreNoneOfTheNetwork) {
  for (const int error_number : {ECONNRESET, EPIPE, ETIMEDOUT}) {
    const auto failure = caught<OSError>([&] { throw_os_error(error_number, "x"); });
    EXPECT_STREQ(failure.type_name(), "OSError");
    EXPECT_EQ(failure.error_number(), error_number);
  }
}

TEST(LogMessage, StandsAsItIsWhereItsFormatDoesNotFit) {
  EXPECT_EQ(log::message("%s has %d", std::string("a"), 1), "a has 1");
  EXPECT_EQ(log::message("%s failed", 1), "%s failed");
  EXPECT_EQ(log::message("%d failed"), "%d failed");
}

TEST(Failures, KeepTheirCause) {
  const auto failure = caught<SyncError>([] {
    try {
      throw ValueError("inner");
    } catch (const ValueError&) {
      throw SyncError("outer");
    }
  });
  EXPECT_THROW(std::rethrow_exception(failure.cause()), ValueError);
}

TEST(SyncUnavailable, MessageHasItsPartsInOrder) {
  const UnavailableDetails details{.statuses = {503, 502},
                                   .failures = {"TimeoutError"},
                                   .server_error_code = "busy",
                                   .dependency = "store",
                                   .retryable = false,
                                   .recovery = "retry_with_backoff",
                                   .reason = "load",
                                   .typed_details = {}};
  const SyncUnavailableError full("https://h.example/data/x?q=1", 3, details);
  EXPECT_STREQ(full.what(),
               "TidalCrest data sync unavailable after 3 attempt(s). endpoint=/data/x "
               "url=https://h.example/data/x?q=1 statuses=[503, 502] failures=['TimeoutError'] "
               "server_error=busy dependency=store retryable=False recovery=retry_with_backoff reason=load");
  EXPECT_TRUE(full.typed_details);

  UnavailableDetails untyped;
  untyped.server_error_code = "busy";
  untyped.reason = "load";
  const SyncUnavailableError bare("", 3, untyped);
  EXPECT_EQ(bare.url, "<unknown>");
  EXPECT_FALSE(bare.typed_details);
  EXPECT_STREQ(bare.what(),
               "TidalCrest data sync unavailable after 3 attempt(s). endpoint=<unknown> url=<unknown> "
               "server_error=busy reason=load");
}

}  // namespace
}  // namespace tidalcrest::sync
