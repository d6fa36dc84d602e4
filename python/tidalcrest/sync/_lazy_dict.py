"""A dict whose values are converted when they are asked for."""

import os
import threading

_ABSENT = object()
_changing = None  # held for every change of a dict that still has its view; one for all, as a change is short


def _renew_lock():
    global _changing
    _changing = threading.RLock()


_renew_lock()
os.register_at_fork(after_in_child=_renew_lock)  # the thread that held it may not have come along


class LazyDict(dict):
    """A dict over a view of a document.

    A look-up converts that one value and keeps it. Keys, size and membership convert nothing. Everything else
    first makes it the plain dict that it stands for, in the document's order.
    """

    __slots__ = ("_view",)

    def __init__(self, view):
        super().__init__()
        self._view = view
        # Never empty while it stands for something: the JSON encoder looks at a dict's own size first.
        if len(view) > 0:
            self[view.first_key()]

    def _fill(self):
        if self._view is None:
            return
        with _changing:
            if self._view is None:
                return
            values = {key: self[key] for key in self._view.keys()}
            dict.clear(self)
            dict.update(self, values)
            self._view = None

    def __missing__(self, key):
        with _changing:
            value = dict.get(self, key, _ABSENT)  # another thread may have asked meanwhile
            if value is not _ABSENT:
                return value
            if self._view is None:
                raise KeyError(key)
            value = self._view[key]
            dict.__setitem__(self, key, value)
            return value

    def get(self, key, default=None):
        try:
            return self[key]
        except KeyError:
            return default

    def __contains__(self, key):
        view = self._view
        return dict.__contains__(self, key) if view is None else key in view

    def __len__(self):
        view = self._view
        return dict.__len__(self) if view is None else len(view)

    def __iter__(self):
        view = self._view
        return dict.__iter__(self) if view is None else iter(view.keys())

    def __reduce__(self):
        return dict, (dict(self.items()),)


def _on_plain_dict(name):
    method = getattr(dict, name)

    def call(self, *arguments, **named):
        self._fill()
        return method(self, *arguments, **named)

    call.__name__ = name
    call.__doc__ = method.__doc__
    return call


for _name in ("keys", "values", "items", "copy", "pop", "popitem", "setdefault", "update", "clear", "__setitem__",
              "__delitem__", "__eq__", "__ne__", "__repr__", "__reversed__", "__or__", "__ror__", "__ior__"):
    if hasattr(dict, _name):
        setattr(LazyDict, _name, _on_plain_dict(_name))
LazyDict.__hash__ = None
