"""The built-in sibling modules, importable under the names of the SDK's.

The finder stands last: a module that the SDK brings is found before it.
"""

import contextlib
import importlib.abc
import importlib.machinery
import sys
import types

from . import _errors, _native


class SyncBackoffPolicy:
    """The whole retry schedule."""

    def delay_seconds(self, attempt_index):
        """The delay for a zero-based attempt index."""
        return _native.backoff_delay_seconds(attempt_index)

    def sleep(self, wait_seconds, sleep=None, stop_requested=None):
        """Waits; gives False when `stop_requested` cut the wait."""
        if sleep is None:
            from time import sleep
        return _native.backoff_sleep(wait_seconds, sleep, stop_requested)


@contextlib.contextmanager
def backoff_context(**context):
    """Sets the calling thread's context: `surface`, `data_dir` and `stop_requested`."""
    entered = _native.BackoffContext(context)
    try:
        yield
    finally:
        entered.leave()


def current_context():
    """The calling thread's context."""
    return _native.backoff_current_context()


def sync_backoff_event_fields(*, surface, attempt, wait_seconds, reason, file_path):
    """The event of a wait; `attempt` is one-based."""
    return {"event_type": "sync_backoff_wait", "surface": surface, "attempt": attempt, "wait_seconds": wait_seconds,
            "reason": reason, "file_path": file_path}


def notify_era_change(era_number):
    """Told once per advance to another era, after its publication."""
    _native.notify_era_change(era_number)


def describe_reason(reason_class, *, recovery=None, error_code=None, dependency=None, reason=None):
    """What a failure asks of the one who reads it: a map with `rendered` and `recovery`."""
    return _native.describe_reason(reason_class, recovery, error_code, dependency, reason)


def check_update(current_version):
    """The highest version in the wheel cache above `current_version`, or None."""
    return _native.check_update(current_version)


def auto_update(version):
    """Installs the highest cached version that is not below `version`; the result has `success` and `warning`."""
    success, warning = _native.auto_update(version)
    return types.SimpleNamespace(success=success, warning=warning)


def _compare_versions(first, second):
    return _native.compare_versions(first, second)


MODULES = {
    "tidalcrest.distribution.sync_backoff": {
        "SyncBackoffPolicy": SyncBackoffPolicy,
        "SyncBackoffCancelled": _errors.SyncBackoffCancelled,
        "backoff_context": backoff_context,
        "current_context": current_context,
        "sync_backoff_event_fields": sync_backoff_event_fields,
    },
    "tidalcrest.auth": {"AuthError": _errors.AuthError, "notify_era_change": notify_era_change},
    "tidalcrest.deployment": {
        "LibraryUpdateRequired": _errors.LibraryUpdateRequired,
        "_CURRENT_VERSION": _native.current_version,
        "_compare_versions": _compare_versions,
        "auto_update": auto_update,
        "check_update": check_update,
    },
    "tidalcrest.catalog.reason_descriptions": {"describe_reason": describe_reason},
}
PACKAGES = {name.rpartition(".")[0] for name in MODULES} - {"tidalcrest"}


class BuiltInModules(importlib.abc.MetaPathFinder, importlib.abc.Loader):
    """Finds the modules above, and the packages that they lie in."""

    def find_spec(self, fullname, path=None, target=None):
        if fullname in MODULES:
            return importlib.machinery.ModuleSpec(fullname, self)
        if fullname in PACKAGES:
            return importlib.machinery.ModuleSpec(fullname, self, is_package=True)
        return None

    def create_module(self, spec):
        return None

    def exec_module(self, module):
        names = MODULES.get(module.__name__)
        if names is None:
            return
        vars(module).update(names)
        module._tidalcrest_sync_built_in = dict(names)


def offer_built_in_modules():
    """Puts the finder behind all others, once."""
    if not any(isinstance(finder, BuiltInModules) for finder in sys.meta_path):
        sys.meta_path.append(BuiltInModules())
