#pragma once

#include <string>

namespace tidalcrest::sync {

/// Takes the advisory lock of an opened file or directory, shared or exclusive, for its open file
/// description: it lasts until that is unlocked or closed everywhere, and excludes other descriptions of this
/// process too.
///
/// Waits as long as it takes. While it waits it looks at the calling thread's stop signal
/// (`SyncBackoffCancelled`) and says at debug level what it waits for, and after how long it came. `what`
/// names the lock in log lines and failures (`OSError`).
void lock_opened_file(int descriptor, bool exclusive, const std::string& what);

}  // namespace tidalcrest::sync
