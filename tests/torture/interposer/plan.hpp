#pragma once

#include <string>

/// What the interposed calls of one process are to meet, read once from the environment:
///   TIDALCREST_TORTURE_ROOT      only files below this directory count; sockets always do
///   TIDALCREST_TORTURE_COUNTERS  file that is mapped and shared: the driver reads it after any end
///   TIDALCREST_TORTURE_PLAN      one of
///       kill-before KIND N | kill-torn KIND N (half of a write, then the end)
///       fail KIND N ERROR once|on          (ERROR: an errno name, or SHORT for half of what was asked)
///       grant-all-locks
///   TIDALCREST_TORTURE_LOG       file that takes one line per change, for the power-cut model
/// KIND is a name below or `any`; N counts calls of that kind from 1.
namespace tidalcrest::torture {

enum class Call { open, write, copy, clone, truncate, rename, link, unlink, mkdir, sync, flock, send, recv };
inline constexpr int CALL_KINDS = 13;

/// What one call is to do. `half` asks for a shorter transfer, `kill_after` for the end of the process once
/// the call is done.
struct Verdict {
  int error = 0;
  bool half = false;
  bool kill_after = false;
};

/// Counts the call and judges it; does not return when the plan ends the process before it.
Verdict judge(Call kind);
void count_received(long bytes);
bool grants_all_locks();
/// The directory whose files count, without a slash at its end; empty when there is none.
const std::string& torture_root();
[[noreturn]] void end_process();

}  // namespace tidalcrest::torture
