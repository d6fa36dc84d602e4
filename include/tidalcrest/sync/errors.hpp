#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tidalcrest::sync {

/// Root of every failure of this system.
///
/// Each failure knows its message, its class name (as events and messages print it) and its cause: the
/// exception that was being handled when it was made. Every base in the family is virtual, so that a
/// type with two bases is still caught by a handler for either, and for `std::exception`.
class Failure : public virtual std::exception {
 public:
  explicit Failure(const std::string& message) : _message(message), _cause(std::current_exception()) {}
  Failure() : Failure("") {}
  const char* what() const noexcept override { return _message.what(); }
  virtual const char* type_name() const noexcept { return "Failure"; }
  /// The exception that was being handled when this one was made; null when there was none.
  const std::exception_ptr& cause() const noexcept { return _cause; }

 private:
  std::runtime_error _message;  // a member, not a base: its copy cannot throw
  std::exception_ptr _cause;
};

// Declares one failure type that carries nothing but its message.
#define TIDALCREST_FAILURE(Name, Base)                                \
  class Name : public virtual Base {                                  \
   public:                                                            \
    explicit Name(const std::string& message) : Failure(message) {}   \
    const char* type_name() const noexcept override { return #Name; } \
                                                                      \
   protected:                                                         \
    Name() = default;                                                 \
  }

// --- Host kinds: the general failure types of the host, under the host's names and hierarchy. ---

TIDALCREST_FAILURE(ValueError, Failure);
TIDALCREST_FAILURE(UnicodeDecodeError, ValueError);
TIDALCREST_FAILURE(JSONDecodeError, ValueError);
TIDALCREST_FAILURE(TypeError, Failure);
TIDALCREST_FAILURE(KeyError, Failure);
TIDALCREST_FAILURE(RuntimeError, Failure);

/// Operating-system failure. `error_number()` is the `errno` value, 0 when there is none.
class OSError : public virtual Failure {
 public:
  explicit OSError(const std::string& message, int error_number = 0)
      : Failure(message), _error_number(error_number) {}
  const char* type_name() const noexcept override { return "OSError"; }
  int error_number() const noexcept { return _error_number; }

 protected:
  OSError() = default;
  int _error_number = 0;
};

// Declares one kind of operating-system failure.
#define TIDALCREST_OS_FAILURE(Name, Base)                                                \
  class Name : public virtual Base {                                                     \
   public:                                                                               \
    explicit Name(const std::string& message, int error_number = 0) : Failure(message) { \
      _error_number = error_number;                                                      \
    }                                                                                    \
    const char* type_name() const noexcept override { return #Name; }                    \
                                                                                         \
   protected:                                                                            \
    Name() = default;                                                                    \
  }

TIDALCREST_OS_FAILURE(FileNotFoundError, OSError);
TIDALCREST_OS_FAILURE(ConnectionError, OSError);
TIDALCREST_OS_FAILURE(TimeoutError, OSError);
TIDALCREST_OS_FAILURE(URLError, OSError);

#undef TIDALCREST_OS_FAILURE

// --- Failures of the sync module. ---

/// Base sync error.
TIDALCREST_FAILURE(SyncError, Failure);
/// A newer manifest generation supersedes active downloads.
TIDALCREST_FAILURE(ManifestSupersededError, SyncError);
/// Insufficient disk space for sync.
TIDALCREST_FAILURE(DiskSpaceError, SyncError);
/// File checksum verification fails after retries.
TIDALCREST_FAILURE(IntegrityError, SyncError);
/// Era-related errors.
TIDALCREST_FAILURE(EraError, SyncError);
/// Manifest parsing or validation errors.
TIDALCREST_FAILURE(ManifestError, SyncError);
/// An operation is invalid for the current state. Deliberately not a `SyncError`.
TIDALCREST_FAILURE(StateError, Failure);
/// Persisted feature-rotation state is invalid.
TIDALCREST_FAILURE(FeatureRotationStateError, StateError);

/// A file download response is not transient.
class PermanentDownloadError : public virtual SyncError {
 public:
  explicit PermanentDownloadError(const std::string& message, std::optional<std::string> file_path = {},
                                  std::optional<std::int64_t> status = {})
      : Failure(message), file_path(std::move(file_path)), status(status) {}
  const char* type_name() const noexcept override { return "PermanentDownloadError"; }

  std::optional<std::string> file_path;
  std::optional<std::int64_t> status;
};

/// What a `SyncUnavailableError` tells about the dependency that stayed away. All optional.
struct UnavailableDetails {
  std::vector<std::int64_t> statuses;
  std::vector<std::string> failures;
  std::optional<std::string> server_error_code;
  std::optional<std::string> dependency;
  std::optional<bool> retryable;  // absent and false differ
  std::optional<std::string> recovery;
  std::optional<std::string> reason;
  std::optional<bool> typed_details;
};

/// A retryable sync dependency remains unavailable. Both a `SyncError` and a `ConnectionError` (and so
/// an `OSError`): handlers for each of them catch it.
class SyncUnavailableError : public virtual SyncError, public virtual ConnectionError {
 public:
  SyncUnavailableError(const std::string& url, std::int64_t attempts, UnavailableDetails details = {});
  const char* type_name() const noexcept override { return "SyncUnavailableError"; }

  std::string url;  // "<unknown>" when none was given
  std::string endpoint;
  std::int64_t attempts;
  std::vector<std::int64_t> statuses;
  std::vector<std::string> failures;
  std::optional<std::string> server_error_code;
  std::optional<std::string> dependency;
  std::optional<bool> retryable;
  std::optional<std::string> recovery;
  std::optional<std::string> reason;
  bool typed_details;

 private:
  struct Parts;
  explicit SyncUnavailableError(Parts parts);
  static Parts _parts(const std::string& url, std::int64_t attempts, UnavailableDetails details);
  static std::string _build_message(const Parts& parts);
};

// --- Failures of the sibling modules that callers of the sync module meet. ---

/// The server refused the credentials (HTTP 401).
TIDALCREST_FAILURE(AuthError, Failure);
/// A distribution manifest that is not strict JSON.
TIDALCREST_FAILURE(ManifestJsonError, ValueError);
/// A missing or incomplete local cohort.
TIDALCREST_FAILURE(LocalCohortError, Failure);
/// A shuffle seed pair that does not belong to its manifest or does not open.
TIDALCREST_FAILURE(ShuffleSeedStateError, Failure);
/// A stop was requested during a backoff wait.
TIDALCREST_FAILURE(SyncBackoffCancelled, Failure);
/// An active rotation state that does not fit the manifest's artifacts.
TIDALCREST_FAILURE(ActiveRotationStateError, ValueError);
/// A persisted rotation state payload of the wrong shape.
TIDALCREST_FAILURE(RotationStatePayloadError, ValueError);
/// A vocabulary that cannot be limited to the active rotation.
TIDALCREST_FAILURE(VocabularyScopeError, ValueError);
/// The running library is below the version floor of an era.
TIDALCREST_FAILURE(LibraryUpdateRequired, Failure);

/// The mandatory artifacts alone exceed the disk space that rotation may use.
class MandatoryArtifactsTooLargeError : public virtual ValueError {
 public:
  MandatoryArtifactsTooLargeError(std::int64_t mandatory_bytes, std::int64_t available_bytes,
                                  std::vector<std::string> selected_paths = {});
  const char* type_name() const noexcept override { return "MandatoryArtifactsTooLargeError"; }

  std::int64_t mandatory_bytes;
  std::int64_t available_bytes;
  std::vector<std::string> selected_paths;
};

#undef TIDALCREST_FAILURE

}  // namespace tidalcrest::sync
