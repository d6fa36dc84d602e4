"""The way of the core's log records into the host's logging."""

import logging

LOGGER = logging.getLogger("tidalcrest.sync")


def deliver(level, message, extra, exception):
    """Hands one record to the logger. The message is whole and is never formatted again."""
    if not LOGGER.isEnabledFor(level):
        return
    exc_info = None if exception is None else (type(exception), exception, exception.__traceback__)
    LOGGER.handle(LOGGER.makeRecord(LOGGER.name, level, "tidalcrest.sync", 0, message, (), exc_info, None, extra))
