"""The failure types, with the host's own bases."""

from . import _native


class SyncError(Exception):
    """Base sync error."""


class PermanentDownloadError(SyncError):
    """A file download response is not transient."""

    def __init__(self, message, file_path=None, status=None):
        super().__init__(message)
        self.file_path = file_path
        try:
            self.status = int(status)
        except (TypeError, ValueError, OverflowError):
            self.status = None

    def __reduce__(self):
        return type(self), (str(self), self.file_path, self.status)


class SyncUnavailableError(SyncError, ConnectionError):
    """A retryable sync dependency remains unavailable."""

    def __init__(self, url, attempts, statuses=None, failures=None, server_error_code=None, dependency=None,
                 retryable=None, recovery=None, reason=None, typed_details=None):
        self.url = str(url) if url else "<unknown>"
        self.endpoint = _native._sync_endpoint_from_url(self.url)
        self.attempts = int(attempts)
        self.statuses = list(statuses or ())
        self.failures = list(failures or ())
        self.server_error_code = server_error_code
        self.dependency = dependency
        self.retryable = retryable
        self.recovery = recovery
        self.reason = reason
        if typed_details is None:
            typed_details = any(detail is not None for detail in (dependency, retryable, recovery))
        self.typed_details = bool(typed_details)
        super().__init__(self._build_message())

    def _build_message(self):
        parts = [f"TidalCrest data sync unavailable after {self.attempts} attempt(s).",
                 f"endpoint={self.endpoint}", f"url={self.url}"]
        for label, value in (("statuses", self.statuses), ("failures", self.failures),
                             ("server_error", self.server_error_code), ("dependency", self.dependency)):
            if value:
                parts.append(f"{label}={value}")
        if self.retryable is not None:
            parts.append(f"retryable={bool(self.retryable)}")
        for label, value in (("recovery", self.recovery), ("reason", self.reason)):
            if value:
                parts.append(f"{label}={value}")
        return " ".join(parts)

    def __reduce__(self):
        return type(self), (self.url, self.attempts, self.statuses, self.failures, self.server_error_code,
                            self.dependency, self.retryable, self.recovery, self.reason, self.typed_details)


class ManifestSupersededError(SyncError):
    """A newer manifest generation supersedes active downloads."""


class DiskSpaceError(SyncError):
    """Insufficient disk space for sync."""


class IntegrityError(SyncError):
    """File checksum verification fails after retries."""


class EraError(SyncError):
    """Era-related errors."""


class ManifestError(SyncError):
    """Manifest parsing or validation errors."""


class StateError(Exception):
    """An operation is invalid for the current state. Deliberately not a SyncError."""


class FeatureRotationStateError(StateError):
    """Persisted feature-rotation state is invalid."""


PUBLIC = (SyncError, PermanentDownloadError, SyncUnavailableError, ManifestSupersededError, DiskSpaceError,
          IntegrityError, EraError, ManifestError, StateError, FeatureRotationStateError)
for _type in PUBLIC:
    _type.__module__ = "tidalcrest.sync"


# What sibling modules raise. A module that the host has loaded brings its own class for the first three.

class AuthError(Exception):
    """The server refused the credentials (HTTP 401)."""


class LibraryUpdateRequired(Exception):
    """The running library is below the version floor of an era."""


class SyncBackoffCancelled(Exception):
    """A stop was requested during a backoff wait."""


class LocalCohortError(Exception):
    """A missing or incomplete local cohort."""


class ShuffleSeedStateError(Exception):
    """A shuffle seed pair that does not belong to its manifest or does not open."""


class ManifestJsonError(ValueError):
    """A distribution manifest that is not strict JSON."""


class ActiveRotationStateError(ValueError):
    """An active rotation state that does not fit the manifest's artifacts."""


class RotationStatePayloadError(ValueError):
    """A persisted rotation state payload of the wrong shape."""


class VocabularyScopeError(ValueError):
    """A vocabulary that cannot be limited to the active rotation."""


class MandatoryArtifactsTooLargeError(ValueError):
    """The mandatory artifacts alone exceed the disk space that rotation may use."""
